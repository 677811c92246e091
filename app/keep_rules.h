// The rules a user can apply to every group at once to choose the copy kept: the oldest, the
// newest, or the one with the shortest path (usually the original, not "Copy of ..."). Pure
// functions over the scan's groups; main thread or any other.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "duplicate_finder.h"

namespace dedup::app {

enum class KeepRule { oldest, newest, shortestPath };

// For each group whose best copy by `rule` is not already kept: (group, file) to keep instead. A tie
// keeps the copy kept now, so applying a rule twice changes nothing the second time.
std::vector<std::pair<size_t, size_t>> copiesToKeep(const std::vector<DuplicateGroup>& groups, KeepRule rule);

}  // namespace dedup::app
