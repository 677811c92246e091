// The grouping behind DuplicateFinder::groups, in steps from the cheapest to the dearest: sizes
// from the listing, a 64 KiB prefix digest, the extent maps (files sharing all their blocks form
// one unit), and the whole files, read side by side.
//
// Runs on the caller's thread and starts reading threads of its own; `progress` and `isCancelled`
// are called from those too.
#pragma once

#include <vector>

#include "duplicate_finder.h"

namespace dedup {

DuplicateFinder::Grouping groupDuplicates(const DuplicateFinder& finder, const std::vector<ScannedFile>& files,
                                          bool acrossVolumes, const ProgressCallback& progress,
                                          const CancelCallback& isCancelled);

// The same for a caller done with the files: each file that joins a group is moved into it
// rather than copied, and is left in `files` with its status but without its path.
DuplicateFinder::Grouping groupDuplicatesTaking(const DuplicateFinder& finder, std::vector<ScannedFile>& files,
                                                const ProgressCallback& progress, const CancelCallback& isCancelled);

}  // namespace dedup
