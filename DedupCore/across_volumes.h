// Finds copies that cannot share blocks because they lie on different disks: identical files, and
// whole identical folder trees, on two or more volumes. Btrfs subvolumes of one file system are one
// volume (their files can share blocks, so reclaiming handles them).
//
// Files are grouped with the scan's digests and digest cache (across_grouping.h), so a second
// search of unchanged trees reads no content; only files whose size is met on another volume are
// read, every disk by a reader of its own. Folder trees are first matched by their shape (names,
// kinds, sizes, link targets: no reading), and only files inside trees whose shape has a twin on
// another volume are read for the tree digests, whatever their size.
//
// A plain call on the caller's thread; reading runs on worker threads, so `progress` and
// `isCancelled` must be safe to call from any thread. Never throws: unreadable folders are listed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "duplicate_finder.h"

namespace dedup {

class HashCache;

struct AcrossOptions {
    int64_t minimumSize = 1;  // smaller files, and smaller trees, are not reported
    bool folders = false;     // also look for identical folder trees
    HashCache* cache = nullptr;  // optional; not owned
    int threads = 0;             // files read at once on each disk; 0: as the disk is read fastest
};

// Identical files on two or more volumes.
struct AcrossFileGroup {
    std::string digest;
    int64_t size = 0;
    int64_t freedBytes = 0;              // the most that removing one copy frees on its disk
    std::vector<ScannedFile> files;      // by path
    std::vector<std::string> volumes;    // the volume of each file, at the same index
    bool operator==(const AcrossFileGroup&) const = default;
};

// Identical folder trees on two or more volumes; the largest only, never their subfolders again.
struct AcrossTreeGroup {
    std::string digest;  // the tree digest (tree_digest.h)
    int64_t bytes = 0;   // content bytes of one copy
    int64_t fileCount = 0;
    int64_t freedBytes = 0;
    std::vector<std::string> folders;  // by path
    std::vector<std::string> volumes;
    bool operator==(const AcrossTreeGroup&) const = default;
};

// Two folders of one name on different volumes holding mostly the same files: what differs, by
// paths relative to each folder.
struct AcrossNearGroup {
    std::vector<std::string> folders;  // two, by path
    int64_t sameFiles = 0;
    int64_t sameBytes = 0;
    std::vector<std::string> onlyInFirst, onlyInSecond;
    std::vector<std::string> changed;  // in both, with other contents
    bool operator==(const AcrossNearGroup&) const = default;
};

struct AcrossResult {
    std::vector<AcrossTreeGroup> trees;  // most freed first
    std::vector<AcrossFileGroup> files;  // most freed first; files inside reported trees left out
    std::vector<AcrossNearGroup> nearlyIdentical;  // with folders only; most bytes alike first
    int64_t filesSeen = 0;
    int64_t bytesRead = 0;
    std::vector<std::string> unreadableFolders;
    bool cancelled = false;
    bool operator==(const AcrossResult&) const = default;
};

void to_json(nlohmann::json& j, const AcrossFileGroup& g);
void to_json(nlohmann::json& j, const AcrossTreeGroup& g);
void to_json(nlohmann::json& j, const AcrossNearGroup& g);
void to_json(nlohmann::json& j, const AcrossResult& r);

namespace AcrossVolumes {
AcrossResult find(const std::vector<std::string>& roots, const AcrossOptions& options,
                  const ProgressCallback& progress, const CancelCallback& isCancelled);

// What removing this copy would give back on its disk: nothing while another name keeps its
// blocks, else the blocks it holds alone where the file system says, else its size.
int64_t freedByRemoving(const ScannedFile& file);

// A volume's name for grouping: the file system's identifier (Btrfs subvolumes share it), else
// the device number.
std::string volumeOf(const std::string& path, uint64_t device);
}  // namespace AcrossVolumes

}  // namespace dedup
