// Which copy of a group is kept, which copies become replacement targets, and what each frees.
// The report and the reclaimer use the same rules, so the figure shown before a reclaim and the
// work done agree. Plain values and pure functions; any thread.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "file_records.h"

namespace dedup {

struct DuplicateGroup;

// Paths the user has left out of reclaiming: a path is left out when it or any folder above it is
// in the set. Whole paths only: leaving out /a/b does not leave out /a/bc.
struct Selection {
    std::set<std::string> excluded;

    bool operator==(const Selection&) const = default;

    bool excludes(const std::string& path) const;
    // Atomic write; throws SystemError or nlohmann's error.
    void save(const std::string& path) const;
    static Selection load(const std::string& path);
    // The user's saved selection: none when the file is missing; a file that is there but cannot
    // be read or decoded throws SavedChoicesError, so nothing the user left out is ever replaced
    // for want of reading the list.
    static Selection loadSaved(const std::string& path);
};
void to_json(nlohmann::json& j, const Selection& s);
void from_json(const nlohmann::json& j, Selection& s);

// One copy to be replaced by a clone of its group's kept file, and the bytes that frees.
struct Target {
    ScannedFile file;
    int64_t frees = 0;
    bool operator==(const Target&) const = default;
};

namespace Report {
// The first file of each group is kept; the others are targets unless left out or already
// sharing every block with the kept file. A family of clones among themselves gives its blocks
// back once, so only its first member counts its size.
std::vector<Target> targets(const std::vector<DuplicateGroup>& groups, const Selection& selection);
int64_t reclaimableBytes(const std::vector<DuplicateGroup>& groups, const Selection& selection);
}  // namespace Report

}  // namespace dedup
