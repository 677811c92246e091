// The digest of a folder tree: what makes two trees identical, computed the same way by the search
// across disks and by the check made right before one copy goes to the Trash.
//
// Two trees are identical when they hold the same names, the same kinds of entries and identical
// contents all the way down: files by their content digest, folders by their own tree digest,
// symbolic links by their target text. Empty files and empty folders count like any other entry.
#pragma once

#include <string>
#include <vector>

namespace dedup {

struct TreeItem {
    enum class Kind : char { file = 'f', folder = 'd', link = 'l', other = 'o' };
    Kind kind = Kind::file;
    std::string name;
    std::string payload;  // content digest, tree digest or link target; empty for other kinds
};

// SHA-256 over the items in name order, as 64 lower-case hexadecimal characters. The order the
// items come in does not matter. Each field is preceded by its length, so no name can pose as
// another item's payload.
std::string treeDigest(std::vector<TreeItem> items);

}  // namespace dedup
