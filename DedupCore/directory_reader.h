// Lists one folder with the attributes the scan needs, so that the walk never asks for a file's
// status separately. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "file_records.h"

namespace dedup {

struct DirectoryEntry {
    std::string name;
    FileStatus status;
    std::optional<CloneInfo> clones;  // never filled by the listing: an extent map per file is too dear
    int64_t allocated = 0;           // bytes allocated on disk for the data

    bool operator==(const DirectoryEntry&) const = default;
};

// The folder a walk expects at a path: the one its parent's listing showed under that name.
struct FolderIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    bool operator==(const FolderIdentity&) const = default;
};

namespace DirectoryReader {
// The whole folder in the order the file system returns it, without "." and "..". A folder given
// as a symbolic link is refused (ELOOP), and so is one that is not `expected` (ELOOP too): a
// folder on the way was swapped for a link since its parent was listed, and the path now leads
// somewhere else. Throws SystemError("open" or "getdents64", path, errno). An entry that vanishes
// between the listing and its status is left out.
std::vector<DirectoryEntry> read(const std::string& path, std::optional<FolderIdentity> expected = std::nullopt);
}  // namespace DirectoryReader

}  // namespace dedup
