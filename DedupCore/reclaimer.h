// Drives a whole reclaim: turns the groups and the user's selection into replacements with the
// same rules the report uses, cuts them into batches, hands each batch to the clone engine, and
// sums up. Cancellation is honoured between replacements; a replacement under way always finishes
// or is undone. Never throws: every failure ends up in the summary and, through the engine, in
// the journal. One thread runs a reclaim; callbacks run on it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "clone_engine.h"
#include "duplicate_finder.h"
#include "reclaim_plan.h"

namespace dedup {

struct ReclaimProgress {
    int64_t done = 0;
    int64_t total = 0;
    int64_t freedBytes = 0;
    std::string current;
};

struct ReclaimSummary {
    int64_t freedBytes = 0;
    int64_t replaced = 0;
    std::map<std::string, std::vector<std::string>> skipped;  // reason's raw value -> targets
    std::map<std::string, std::string> failed;                // target -> error text
    bool cancelled = false;
    bool operator==(const ReclaimSummary&) const = default;
};
void to_json(nlohmann::json& j, const ReclaimSummary& s);

struct Reclaimer {
    CloneEngine engine;

    static constexpr size_t batchCount = 64;
    static constexpr int64_t batchBytes = int64_t{1} << 30;
    // Shared in place, a copy is finished as soon as it is shared and nothing waits under a
    // temporary name: a batch is only the copies whose started entries share one sync.
    static constexpr size_t inPlaceBatchCount = 1024;

    ReclaimSummary reclaim(const std::vector<DuplicateGroup>& groups, const Selection& selection,
                           const std::function<void(const ReclaimProgress&)>& progress,
                           const std::function<bool()>& isCancelled);

    // What reclaim() will do, in its order: one replacement per target of the plan.
    static std::vector<CloneEngine::Replacement> replacements(const std::vector<DuplicateGroup>& groups,
                                                              const Selection& selection);
    // Clone and swap: at most 64 replacements or 2^30 bytes a batch (a batch may end above it by its
    // last member), which bounds how many replaced copies wait under temporary names. In place (and
    // automatic, which is in place): at most 1024 replacements, whatever their size.
    static std::vector<std::vector<CloneEngine::Replacement>> batches(
        const std::vector<CloneEngine::Replacement>& replacements, CloneEngine::Strategy strategy);
};

}  // namespace dedup
