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

namespace DirectoryReader {
// The whole folder in the order the file system returns it, without "." and "..". A folder given
// as a symbolic link is refused (ELOOP). Throws SystemError("open" or "getdents64", path, errno).
// An entry that vanishes between the listing and its status is left out.
std::vector<DirectoryEntry> read(const std::string& path);
}  // namespace DirectoryReader

}  // namespace dedup
