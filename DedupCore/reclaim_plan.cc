#include "reclaim_plan.h"

#include <utility>

#include <nlohmann/json.hpp>

#include "duplicate_finder.h"
#include "path_text.h"
#include "platform/file_io.h"
#include "platform/metadata.h"
#include "saved_choices.h"

namespace dedup {

bool Selection::excludes(const std::string& path) const {
    if (excluded.empty()) return false;
    std::string current = path;
    for (;;) {
        if (excluded.contains(current)) return true;
        auto slash = current.find_last_of('/');
        if (slash == std::string::npos) return false;
        std::string parent = slash == 0 ? "/" : current.substr(0, slash);
        if (parent == current || parent.empty()) return false;
        current = std::move(parent);
    }
}

void to_json(nlohmann::json& j, const Selection& s) { j = {{"excluded", pathTexts(s.excluded)}}; }
void from_json(const nlohmann::json& j, Selection& s) {
    s.excluded.clear();
    for (const auto& text : j.at("excluded").get<std::vector<std::string>>()) s.excluded.insert(pathFromText(text));
}

void Selection::save(const std::string& path) const {
    platform::writeFileAtomically(path, nlohmann::json(*this).dump(2) + "\n");
}

Selection Selection::load(const std::string& path) {
    return nlohmann::json::parse(platform::readWholeFile(path)).get<Selection>();
}

Selection Selection::loadSaved(const std::string& path) {
    auto text = readSavedChoices(path);
    if (!text) return {};
    return decodeSavedChoices<Selection>(path, *text);
}

namespace Report {

std::vector<Target> targets(const std::vector<DuplicateGroup>& groups, const Selection& selection) {
    std::vector<Target> result;
    for (const auto& group : groups) {
        if (group.files.size() < 2) continue;
        const ScannedFile& kept = group.files.front();
        std::set<std::pair<uint64_t, uint64_t>> families;
        for (size_t i = 1; i < group.files.size(); ++i) {
            const ScannedFile& copy = group.files[i];
            if (selection.excludes(copy.path)) continue;
            // Data kept inside the metadata, or no data block at all: nothing can be shared, and
            // replacing such a copy frees nothing.
            auto blockless = [](const ScannedFile& f) { return f.clones && (f.clones->inlineData || f.clones->noBlocks); };
            if (blockless(copy) || blockless(kept)) continue;
            if (!copy.clones) {
                result.push_back({copy, copy.status.size});
            } else if (copy.clones->privateSize != 0) {
                result.push_back({copy, copy.clones->privateSize});
            } else if (kept.clones && copy.status.device == kept.status.device &&
                       copy.clones->cloneID == kept.clones->cloneID) {
                continue;  // already shares every block with the kept file
            } else {
                bool first = families.insert({copy.status.device, copy.clones->cloneID}).second;
                result.push_back({copy, first ? copy.status.size : 0});
            }
        }
    }
    return result;
}

int64_t reclaimableBytes(const std::vector<DuplicateGroup>& groups, const Selection& selection) {
    int64_t total = 0;
    for (const auto& target : targets(groups, selection)) total += target.frees;
    return total;
}

}  // namespace Report

}  // namespace dedup
