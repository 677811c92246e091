#include "keep_rules.h"

namespace dedup::app {

namespace {
// Whether `a` is a better copy to keep than `b` under the rule; equal copies are not better.
bool better(const ScannedFile& a, const ScannedFile& b, KeepRule rule) {
    switch (rule) {
        case KeepRule::oldest: return a.status.modified < b.status.modified;
        case KeepRule::newest: return b.status.modified < a.status.modified;
        case KeepRule::shortestPath:
            return a.path.size() < b.path.size() || (a.path.size() == b.path.size() && a.path < b.path);
    }
    return false;
}
}  // namespace

std::vector<std::pair<size_t, size_t>> copiesToKeep(const std::vector<DuplicateGroup>& groups, KeepRule rule) {
    std::vector<std::pair<size_t, size_t>> choices;
    for (size_t g = 0; g < groups.size(); ++g) {
        const auto& files = groups[g].files;
        size_t best = 0;
        for (size_t f = 1; f < files.size(); ++f) {
            if (better(files[f], files[best], rule)) best = f;
        }
        if (best != 0) choices.emplace_back(g, best);
    }
    return choices;
}

}  // namespace dedup::app
