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

namespace dedup::cli {

// Throws CommandError when the journal cannot be opened: without it nothing may be changed.
std::unique_ptr<Journal> openJournal();
// The saved selection; an unreadable one is reported on standard error and leaves nothing out.
Selection loadSelection();
// Announces and puts right what an interrupted run left; returns how many files there were.
size_t recoverInterrupted(Journal& journal, std::ostream& out);

// The engine's temporary files found by a scan, less those a live dedup is working with right now:
// what an interrupted run left behind.
std::vector<std::string> leftoversToPutRight(const std::vector<std::string>& found);
// "dedup journal recover ROOT...", ready to paste.
std::string putRightCommand(const std::vector<std::string>& roots);

}  // namespace dedup::cli
