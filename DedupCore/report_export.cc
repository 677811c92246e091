#include "report_export.h"

#include <unordered_map>

#include <nlohmann/json.hpp>

#include "path_text.h"

namespace dedup::Report {

namespace {

std::string csvField(std::string_view value) {
    if (value.find_first_of(",\"\n") == std::string_view::npos) return std::string(value);
    std::string quoted = "\"";
    for (char c : value) {
        if (c == '"') quoted.push_back('"');
        quoted.push_back(c);
    }
    quoted.push_back('"');
    return quoted;
}

}  // namespace

std::string csv(const std::vector<DuplicateGroup>& groups, const Selection& selection) {
    std::unordered_map<std::string, int64_t> frees;
    for (const auto& target : targets(groups, selection)) frees.emplace(target.file.path, target.frees);

    std::string text = "digest,size,frees,role,path\n";
    for (const auto& group : groups) {
        for (size_t i = 0; i < group.files.size(); ++i) {
            const ScannedFile& file = group.files[i];
            // The role follows the position, not the plan: callers put the kept copy first.
            const char* role = i == 0 ? "keep" : selection.excludes(file.path) ? "excluded" : "clone";
            auto freed = frees.find(file.path);
            text += group.digest;
            text += ',';
            text += std::to_string(file.status.size);
            text += ',';
            if (freed != frees.end()) text += std::to_string(freed->second);
            text += ',';
            text += role;
            text += ',';
            text += csvField(pathText(file.path));
            text += '\n';
        }
    }
    return text;
}

std::string json(const ScanResult& result) { return nlohmann::json(result).dump(2); }

ScanResult load(std::string_view json) { return nlohmann::json::parse(json).get<ScanResult>(); }

}  // namespace dedup::Report
