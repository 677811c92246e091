// FileStatus, FileTimes and CloneInfo read through statx and the extent map.
#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "../../file_records.h"
#include "../clone.h"
#include "../file_io.h"
#include "../space.h"
#include "statx_util.h"

namespace dedup {

FileStatus FileStatus::read(const std::string& path) {
    struct statx sx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, platform::statusMask, &sx) != 0) {
        throw SystemError("lstat", path, errno);
    }
    return platform::statusOf(sx);
}

FileTimes FileTimes::read(const std::string& path) {
    struct statx sx {};
    unsigned mask = STATX_ATIME | STATX_MTIME | STATX_BTIME;
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, mask, &sx) != 0) {
        throw SystemError("statx", path, errno);
    }
    FileTimes times;
    if (sx.stx_mask & STATX_BTIME) times.created = platform::timestampOf(sx.stx_btime);
    times.modified = platform::timestampOf(sx.stx_mtime);
    times.accessed = platform::timestampOf(sx.stx_atime);
    return times;
}

void FileTimes::write(const std::string& path) const {
    struct timespec times[2] = {{static_cast<time_t>(accessed.seconds), static_cast<long>(accessed.nanoseconds)},
                                {static_cast<time_t>(modified.seconds), static_cast<long>(modified.nanoseconds)}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        throw SystemError("utimensat", path, errno);
    }
}

namespace {

// Folds one 64-bit value into a running hash (the mixing step of splitmix64), so that equal extent
// lists give equal identifiers and different ones almost surely differ.
uint64_t mix(uint64_t hash, uint64_t value) {
    uint64_t z = hash ^ (value + 0x9E3779B97F4A7C15ull + (hash << 6) + (hash >> 2));
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

}  // namespace

std::optional<CloneInfo> CloneInfo::read(const std::string& path) { return read(platform::openForReading(path, 0), path); }

std::optional<CloneInfo> CloneInfo::read(const platform::FileDescriptor& fd, const std::string& path) {
    auto info = platform::cloneInfoOf(fd, path);
    if (info) return info;
    // No extent at all: either the file system keeps no map, or the file holds no block. Asked
    // after the map, whose sync flag has given delayed writes their blocks.
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0 || st.st_blocks != 0) return info;
    CloneInfo holes;
    holes.noBlocks = true;
    // Its own identifier: files of holes share nothing, so none is a clone of another.
    holes.cloneID = mix(mix(0x401E5ull, st.st_dev), st.st_ino);
    return holes;
}

}  // namespace dedup

namespace dedup::platform {

std::optional<CloneInfo> cloneInfoOf(const FileDescriptor& fd, const std::string& path) {
    auto extents = readExtents(fd, path);
    if (!extents) return std::nullopt;
    CloneInfo info;
    uint64_t hash = 0x5EED0F0CA7ull;
    for (const auto& e : *extents) {
        if (!e.shared) info.privateSize += static_cast<int64_t>(e.length);
        if (e.inlineData) info.inlineData = true;
        hash = mix(mix(hash, e.physical), e.length);
    }
    // Extents end on block boundaries; what a file holds of its own is never more than its size.
    struct stat st {};
    if (::fstat(fd.get(), &st) == 0) info.privateSize = std::min<int64_t>(info.privateSize, st.st_size);
    // Every inline extent reports the same physical address, 0: only the inode tells them apart.
    if (info.inlineData) hash = mix(mix(hash, st.st_dev), st.st_ino);
    info.cloneID = hash == 0 ? 1 : hash;
    return info;
}

}  // namespace dedup::platform
