#include "reclaimer.h"

#include <cstdint>

#include <nlohmann/json.hpp>

#include "path_text.h"

namespace dedup {

void to_json(nlohmann::json& j, const ReclaimSummary& s) {
    nlohmann::json skipped = nlohmann::json::object();
    for (const auto& [reason, paths] : s.skipped) skipped[reason] = pathTexts(paths);
    // An error's text names its path, so it is written the way paths are.
    nlohmann::json failed = nlohmann::json::object();
    for (const auto& [path, error] : s.failed) failed[pathText(path)] = pathText(error);
    j = {{"freedBytes", s.freedBytes},
         {"replaced", s.replaced},
         {"skipped", skipped},
         {"failed", failed},
         {"cancelled", s.cancelled}};
}

std::vector<CloneEngine::Replacement> Reclaimer::replacements(const std::vector<DuplicateGroup>& groups,
                                                              const Selection& selection) {
    std::vector<CloneEngine::Replacement> result;
    for (const auto& group : groups) {
        if (group.files.empty()) continue;
        const auto& kept = group.files.front();
        for (const auto& target : Report::targets({group}, selection)) {
            result.push_back({target.file.path, kept.path, target.file.status, group.digest, kept.status,
                              target.file.clones, kept.clones});
        }
    }
    return result;
}

std::vector<std::vector<CloneEngine::Replacement>> Reclaimer::batches(
    const std::vector<CloneEngine::Replacement>& replacements, CloneEngine::Strategy strategy) {
    bool swaps = strategy == CloneEngine::Strategy::cloneAndSwap;
    size_t count = swaps ? batchCount : inPlaceBatchCount;
    int64_t byteLimit = swaps ? batchBytes : INT64_MAX;
    std::vector<std::vector<CloneEngine::Replacement>> result;
    int64_t bytes = 0;
    for (const auto& replacement : replacements) {
        if (result.empty() || result.back().size() >= count || bytes >= byteLimit) {
            result.emplace_back();
            bytes = 0;
        }
        result.back().push_back(replacement);
        bytes += replacement.expected.size;
    }
    return result;
}

ReclaimSummary Reclaimer::reclaim(const std::vector<DuplicateGroup>& groups, const Selection& selection,
                                  const std::function<void(const ReclaimProgress&)>& progress,
                                  const std::function<bool()>& isCancelled) {
    ReclaimSummary summary;
    auto planned = replacements(groups, selection);
    ReclaimProgress state;
    state.total = static_cast<int64_t>(planned.size());
    for (const auto& batch : batches(planned, engine.strategy)) {
        if (summary.cancelled) break;
        engine.replace(
            batch,
            [&](const CloneEngine::Replacement& r) {
                if (isCancelled && isCancelled()) {
                    summary.cancelled = true;
                    return false;
                }
                if (progress) {
                    state.freedBytes = summary.freedBytes;
                    state.current = r.target;
                    progress(state);
                }
                ++state.done;
                return true;
            },
            [&](const CloneEngine::Replacement& r, const CloneEngine::Outcome& outcome) {
                if (!outcome.error) {
                    summary.freedBytes += outcome.freed;
                    ++summary.replaced;
                    return;
                }
                try {
                    std::rethrow_exception(outcome.error);
                } catch (const Skip& skip) {
                    summary.skipped[std::string(rawValue(skip.reason))].push_back(r.target);
                } catch (const std::exception& error) {
                    summary.failed[r.target] = error.what();
                } catch (...) {
                    summary.failed[r.target] = "unknown error";
                }
            });
    }
    return summary;
}

}  // namespace dedup
