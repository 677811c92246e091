// Turns chosen roots into the list of candidate files. Never follows a symbolic link, never leaves
// the device of the root (so it stops at mount points and Btrfs subvolumes), and never yields the
// same file twice, even when it is reachable from two roots or through a hard link.
//
// A Walk is made for one scan and used by one thread; its callbacks run on that thread. It never
// throws: folders it cannot read are listed in `unreadable`.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "directory_reader.h"
#include "file_records.h"
#include "folder_prefetch.h"
#include "scan_options.h"
#include "scan_progress.h"

namespace dedup {

struct InodeKey {
    uint64_t device = 0;
    uint64_t inode = 0;
    bool operator==(const InodeKey&) const = default;
};

struct InodeKeyHash {
    size_t operator()(const InodeKey& k) const noexcept {
        return std::hash<uint64_t>{}(k.inode * 0x9E3779B97F4A7C15ull ^ k.device);
    }
};

// The files a walk has met, by device and inode, in one flat table: a walk meets every file of the
// tree, and a heap node per file cost more than listing the file did.
class InodeSet {
public:
    // True when `key` was not in the set yet.
    bool add(const InodeKey& key);
    size_t size() const { return size_; }

private:
    void grow();

    std::vector<InodeKey> slots_;  // a power of two of them; {0, 0} marks a free slot
    size_t size_ = 0;
    bool hasZero_ = false;  // {0, 0} itself, which cannot be told from a free slot
};

struct Walk {
    ScanOptions options;
    std::function<void(const ScanProgress&)> progress;  // once per folder entered
    std::function<bool()> isCancelled;                   // once per folder, before it is read
    std::vector<ScannedFile> files;
    std::vector<std::string> unreadable;
    std::vector<std::string> leftovers;
    bool unfiltered = false;  // take every regular file and enter every folder (tree comparison)
    std::vector<std::pair<std::string, std::string>> links;  // unfiltered only: (path, destination)
    std::unordered_set<std::string> folders;
    InodeSet inodes;

    explicit Walk(ScanOptions options = {});

    // Walks one root (a folder or a single file). A single-file root is taken without filters.
    void visit(const std::string& root);

    // Reads one folder, if it is still `expected` (when given); hands every folder to be entered to
    // `subfolder`, with the identity its listing gave it.
    void visitFolder(const std::string& folder, uint64_t device,
                     const std::function<void(std::string, FolderIdentity)>& subfolder,
                     std::optional<FolderIdentity> expected = std::nullopt);

    bool descends(const std::string& path, const std::string& name, bool atVolumeRoot) const;
    bool includes(const DirectoryEntry& entry) const;
    bool isExcluded(const std::string& path) const;
    static bool isVolumeRoot(const std::string& path);

    // Folders never entered at the root of a volume: the kernel's virtual trees, the recovery and
    // snapshot folders, and the per-volume Trash.
    static bool isVolumeSystemFolder(const std::string& name);

private:
    FolderPrefetch* prefetch_ = nullptr;  // while visit() runs: the folders it will enter, read ahead
};

}  // namespace dedup
