// A scan result the size the application must stay smooth with: a million files in 200,000
// groups, made the same way (same seed) for every benchmark that needs one.
#pragma once

#include <cstdint>
#include <string>

#include "duplicate_finder.h"

namespace dedup::bench {

inline constexpr int groupCount = 200'000;
inline constexpr int filesPerGroup = 5;

// Paths spread over 1,000 folders in two levels, names with a handful of extensions, sizes spread
// over six orders of magnitude; about one copy in eight shares blocks with another, so the plan's
// clone-family rule is exercised too.
inline const ScanResult& bigResult() {
    static const ScanResult result = [] {
        ScanResult r;
        r.groups.reserve(groupCount);
        static const char* const extensions[] = {"jpg", "png", "mov", "pdf", "txt", "iso", "JPG", "heic"};
        uint64_t inode = 1;
        uint64_t seed = 88172645463325252ull;
        auto next = [&] {
            seed ^= seed << 13;
            seed ^= seed >> 7;
            seed ^= seed << 17;
            return seed;
        };
        for (int g = 0; g < groupCount; ++g) {
            DuplicateGroup group;
            group.digest = std::to_string(next());
            const int64_t size = static_cast<int64_t>(1000 + next() % 1'000'000'000);
            const char* ext = extensions[g % 8];
            for (int f = 0; f < filesPerGroup; ++f) {
                dedup::ScannedFile file;
                file.path = "/home/ana/Pictures/" + std::to_string(next() % 40) + "/" + std::to_string(next() % 25) +
                            "/IMG_" + std::to_string(g) + (f ? " copy " + std::to_string(f) : std::string()) + "." + ext;
                file.status.size = size;
                file.status.inode = inode++;
                file.status.device = 1;
                if (f >= 3 && g % 2 == 0) file.clones = dedup::CloneInfo{0, static_cast<uint64_t>(g) + 1, 2, false};
                group.files.push_back(std::move(file));
            }
            group.reclaimableBytes = size * (filesPerGroup - 1);
            r.groups.push_back(std::move(group));
        }
        return r;
    }();
    return result;
}

}  // namespace dedup::bench
