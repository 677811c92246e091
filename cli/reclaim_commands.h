// What every command that changes files shares: the journal, the saved selection, and putting right
// what an interrupted run left.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "journal.h"
#include "reclaim_plan.h"
#include "reclaimer.h"

namespace dedup::cli {

// Throws CommandError when the journal cannot be opened: without it nothing may be changed.
std::unique_ptr<Journal> openJournal();
// The saved selection as the user left it. Throws CommandError naming the file when it is there
// but cannot be read: work that would ignore it must not start.
Selection savedSelection();
// The same, ready to match files walked below `roots` (as the user gave them), by the rule of
// path_spellings.h.
Selection loadSelection(const std::vector<std::string>& roots);
// What a reclaim did, for a person: the freed bytes, and every copy left alone by reason, failures
// once per cause (a full disk fails every copy after it the same way).
void printReclaimSummary(std::ostream& out, const ReclaimSummary& summary);
// Announces and puts right what an interrupted run left; returns how many files there were.
size_t recoverInterrupted(Journal& journal, std::ostream& out);

// The engine's temporary files found by a scan, less those a live dedup is working with right now:
// what an interrupted run left behind.
std::vector<std::string> leftoversToPutRight(const std::vector<std::string>& found);
// "dedup journal recover ROOT...", ready to paste.
std::string putRightCommand(const std::vector<std::string>& roots);

}  // namespace dedup::cli
