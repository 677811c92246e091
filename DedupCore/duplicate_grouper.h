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

}  // namespace dedup
