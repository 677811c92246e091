// The findings of a scan taken out of the program: a CSV table of every file with what replacing
// it would free, for a spreadsheet, and the whole scan as JSON, which can be loaded again to show
// it without scanning anew. Pure functions on values; any thread. Writing the file is the caller's.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "duplicate_finder.h"
#include "reclaim_plan.h"

namespace dedup::Report {

// UTF-8 lines ending in a line feed (the last one too), headed "digest,size,frees,role,path". One
// line per file, groups and files in the given order. `frees` is empty for files that are not
// reclaim targets. `role` is "keep" for each group's first file, else "excluded" or "clone". Only
// the path is ever quoted: between double quotes, inner quotes doubled, when it holds a comma, a
// double quote or a line feed.
std::string csv(const std::vector<DuplicateGroup>& groups, const Selection& selection);

// The scan result as pretty-printed JSON with sorted keys. Throws nlohmann::json::exception when a
// path is not valid UTF-8: a saved scan must give back exactly the paths it was given.
std::string json(const ScanResult& result);

// Reads what json() wrote. Throws nlohmann::json::exception when the text is not such a scan.
ScanResult load(std::string_view json);

}  // namespace dedup::Report
