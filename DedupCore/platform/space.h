// What the space accounting asks the operating system: the extent map of a file, which files hold
// a Btrfs extent, the snapshots of a Btrfs file system, and where the Trash folders are.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "file_io.h"

namespace dedup::platform {

// One extent of a file as FIEMAP reports it.
struct FileExtent {
    uint64_t logical = 0;   // offset in the file
    uint64_t physical = 0;  // address on the volume
    uint64_t length = 0;
    bool shared = false;      // the file system says another file (or snapshot) also uses these blocks
    bool inlineData = false;  // kept inside the metadata, where only a snapshot can share it
};

// The extent map of the file open on `file` (see openForReading), read after its pending writes
// reached the disk. Absent where the file system keeps none (tmpfs) or the file has no extents.
// Throws SystemError("fiemap", path, errno) when the call fails for another reason.
std::optional<std::vector<FileExtent>> readExtents(const FileDescriptor& file, const std::string& path);

// Answers, for the files of one Btrfs file system, which other files use the same data extents.
// Needs CAP_SYS_ADMIN: the kernel lets nobody else walk the back references of an extent.
//
// Owns a memo of the extents it has asked about, so clones that share an extent ask once, and the
// buffers of its calls. One thread at a time.
class ExtentOwners {
public:
    // A data extent a file uses and how many files use it.
    struct Extent {
        uint64_t address = 0;   // the extent's start on the volume: the same for every file using it
        int64_t diskBytes = 0;  // what the extent takes on disk, whoever uses how much of it
        int64_t fileBytes = 0;  // bytes of this file that lie in the extent
        uint32_t holders = 0;   // distinct files (subvolume and inode) using any part of it
    };

    // Absent when `path` is not on Btrfs or this process may not ask. Commits the file system's
    // pending changes first, because the back references of fresh writes are only searchable then.
    static std::unique_ptr<ExtentOwners> open(const std::string& path);

    struct Blocks {
        std::vector<Extent> extents;  // data extents; holes are left out
        // Inline data in a metadata leaf written before the subvolume's last snapshot: the snapshot
        // may still share that leaf, and no back reference says whether it does.
        bool inlineMaybeShared = false;
    };

    // Absent when any extent cannot be resolved; the caller then knows nothing of its sharing.
    std::optional<Blocks> blocksOf(const FileDescriptor& file);

private:
    ExtentOwners();
    std::optional<uint32_t> holdersOf(uint64_t address, int fileFd);
    std::optional<uint64_t> lastSnapshotOf(int fileFd);

    bool snapshotsExist_ = true;  // without any, no metadata leaf is shared
    std::unordered_map<uint64_t, uint32_t> holders_;
    std::unordered_map<uint64_t, uint64_t> lastSnapshots_;  // by subvolume
    std::vector<uint64_t> answer_;  // of LOGICAL_INO_V2; grows for extents with many users
    std::vector<std::byte> search_;  // of TREE_SEARCH_V2
};

// The snapshots of the Btrfs file system mounted at `mountPoint`, in the order the file system
// lists them: absolute paths where they lie below the mount point, else paths from the file
// system's top level (as "btrfs subvolume list" shows them). The mounted subvolume itself is left
// out even when it began as a snapshot. Absent when the file system is not Btrfs or cannot be
// listed by this process; never throws.
std::optional<std::vector<std::string>> btrfsSnapshots(const std::string& mountPoint);

// The freedesktop.org home Trash: $XDG_DATA_HOME/Trash, by default ~/.local/share/Trash.
std::string homeTrash();

// The Trash folders a volume may keep for the current user, in the order file managers use them:
// "<mount>/.Trash/<uid>", then "<mount>/.Trash-<uid>".
std::vector<std::string> volumeTrashes(const std::string& mountPoint);

}  // namespace dedup::platform
