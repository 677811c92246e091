// One file can be named by several paths when symbolic links lead to it or to its folders. The walk
// never follows a link, so below a root it names each file by the folders that really hold it,
// prefixed with the root as the user spelled it. Paths the user leaves out are matched by one rule
// in every command (scan, reclaim, exclude, include, auto), whichever way the roots and the paths
// were spelled:
//   a left-out path holds for what it names and, when it leads through symbolic links, for where
//   they lead (leaving out a link to a folder leaves out that folder); a root given through a link
//   is one tree under two names, and a file below it is left out when either of its paths is.
// So a left-out path is known by two spellings, as given and resolved, and each root given through
// a link adds the spellings of the same places under its other name. Asks the file system
// (realpath); any thread.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace dedup {

// Where `path` really is: every link resolved; for a path that does not exist (yet), its folder's
// links resolved; `path` itself when not even that can be resolved.
std::string realLocation(const std::string& path);

// Every spelling by which a walk below `roots` (as the user gave them, links and all) can meet the
// paths in `excluded`, whether the walk starts at the root's spelling or at its real folder.
std::set<std::string> spellingsBelow(const std::set<std::string>& excluded, const std::vector<std::string>& roots);

}  // namespace dedup
