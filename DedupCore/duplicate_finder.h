// Runs a whole scan: walks the roots, narrows the candidates by size and then by a 64 KiB prefix
// digest, collapses files that already share all their blocks into one unit, drops sets in which
// no copy could ever be replaced, and confirms identity by a digest of the whole file.
//
// A plain value holding the options and the cache it was given; one scan at a time per finder.
// The walk and the grouping run on the caller's thread; hashing and the extent-map reads run on
// worker threads, so `progress` and `isCancelled` must be safe to call from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "file_records.h"
#include "scan_options.h"
#include "scan_progress.h"

namespace dedup {

class HashCache;

struct DuplicateGroup {
    std::string digest;
    std::vector<ScannedFile> files;  // the kept copy first
    int64_t reclaimableBytes = 0;
    bool operator==(const DuplicateGroup&) const = default;
};

struct ScanResult {
    std::vector<DuplicateGroup> groups;  // largest reclaimable first
    int64_t filesSeen = 0;
    int64_t bytesRead = 0;  // bytes read for digests; cache hits read nothing
    std::vector<std::string> unreadableFolders;
    // Candidates that could not be read to compare them (no permission, gone since the listing);
    // saved scans from before this field read it as empty.
    std::vector<std::string> unreadableFiles;
    std::vector<std::string> leftovers;  // temporary files of an interrupted reclaim
    bool cancelled = false;
    bool operator==(const ScanResult&) const = default;
};

void to_json(nlohmann::json& j, const DuplicateGroup& g);
void from_json(const nlohmann::json& j, DuplicateGroup& g);
void to_json(nlohmann::json& j, const ScanResult& r);
void from_json(const nlohmann::json& j, ScanResult& r);

using ProgressCallback = std::function<void(const ScanProgress&)>;
using CancelCallback = std::function<bool()>;

struct DuplicateFinder {
    ScanOptions options;
    HashCache* cache = nullptr;  // optional; not owned
    int threads = 0;             // readers at once; 0: by the disk (see workersFor in parallel.h)
    // Read every extent map again rather than trust what the cache kept of a file's blocks: puts
    // right a report misled by blocks another tool shared or unshared since they were read.
    bool fullCheck = false;

    struct Grouping {
        std::vector<DuplicateGroup> groups;
        int64_t bytesRead = 0;
        bool cancelled = false;
        std::vector<std::string> unreadableFiles;  // sorted
    };

    ScanResult scan(const std::vector<std::string>& roots, const ProgressCallback& progress,
                    const CancelCallback& isCancelled) const;

    // The grouping alone. With `acrossVolumes`, equal sizes on different volumes meet and every
    // unit counts as replaceable (nothing is cloned across volumes).
    Grouping groups(const std::vector<ScannedFile>& files, bool acrossVolumes, const ProgressCallback& progress,
                    const CancelCallback& isCancelled) const;
};

}  // namespace dedup
