// Shared by the Linux files that read statx: the translation of a statx record into FileStatus.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "../../file_records.h"

namespace dedup::platform {

inline constexpr unsigned statusMask = STATX_TYPE | STATX_MODE | STATX_NLINK | STATX_UID | STATX_GID |
                                       STATX_MTIME | STATX_CTIME | STATX_INO | STATX_SIZE | STATX_BLOCKS;

inline Timestamp timestampOf(const struct statx_timestamp& t) { return {t.tv_sec, t.tv_nsec}; }

// The Linux attribute bits become the BSD flag values the rest of the engine and its stored files
// use. Only bits the file system says it supports are read.
inline uint32_t flagsOf(const struct statx& sx) {
    uint64_t attributes = sx.stx_attributes & sx.stx_attributes_mask;
    uint32_t flags = 0;
    if (attributes & STATX_ATTR_IMMUTABLE) flags |= FileFlags::systemImmutable;
    if (attributes & STATX_ATTR_APPEND) flags |= FileFlags::systemAppend;
    if (attributes & STATX_ATTR_COMPRESSED) flags |= FileFlags::compressed;
    if (attributes & STATX_ATTR_NODUMP) flags |= FileFlags::nodump;
    return flags;
}

inline FileStatus statusOf(const struct statx& sx) {
    FileStatus s;
    s.device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    s.inode = sx.stx_ino;
    s.size = static_cast<int64_t>(sx.stx_size);
    s.modified = timestampOf(sx.stx_mtime);
    s.changed = timestampOf(sx.stx_ctime);
    s.mode = sx.stx_mode;
    s.links = sx.stx_nlink;
    s.uid = sx.stx_uid;
    s.gid = sx.stx_gid;
    s.flags = flagsOf(sx);
    return s;
}

}  // namespace dedup::platform
