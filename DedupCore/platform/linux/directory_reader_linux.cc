// The directory reader: getdents64 for the names, then one statx per entry relative to the folder's
// descriptor, so no path is resolved twice.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <vector>

#include "../../directory_reader.h"
#include "../file_io.h"
#include "statx_util.h"

namespace dedup {

namespace {

// The record getdents64 writes; the name follows the fixed part.
struct LinuxDirent64 {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
};

uint32_t typeBits(unsigned char type) {
    switch (type) {
        case DT_FIFO: return S_IFIFO;
        case DT_CHR: return S_IFCHR;
        case DT_BLK: return S_IFBLK;
        case DT_SOCK: return S_IFSOCK;
        default: return 0;
    }
}

}  // namespace

std::vector<DirectoryEntry> DirectoryReader::read(const std::string& path, std::optional<FolderIdentity> expected) {
    platform::FileDescriptor dir = platform::openDirectory(path);
    if (expected) {
        // Opened by its path, the folder is whatever the path leads to now; only the one listed
        // is read, so that a link put in place of a folder on the way leads nowhere.
        struct statx sx {};
        if (::statx(dir.get(), "", AT_EMPTY_PATH, STATX_INO, &sx) != 0) throw SystemError("statx", path, errno);
        if (makedev(sx.stx_dev_major, sx.stx_dev_minor) != expected->device || sx.stx_ino != expected->inode) {
            throw SystemError("open", path, ELOOP);
        }
    }
    // One buffer per thread, reused for every folder: a fresh large allocation per folder would
    // cost more page faults than the listing itself.
    thread_local std::vector<char> buffer(64 * 1024);
    std::vector<DirectoryEntry> entries;
    for (;;) {
        long count = ::syscall(SYS_getdents64, dir.get(), buffer.data(), buffer.size());
        if (count < 0) {
            if (errno == EINTR) continue;
            throw SystemError("getdents64", path, errno);
        }
        if (count == 0) break;
        for (long offset = 0; offset < count;) {
            const auto* d = reinterpret_cast<const LinuxDirent64*>(buffer.data() + offset);
            offset += d->d_reclen;
            const char* name = reinterpret_cast<const char*>(d) + offsetof(LinuxDirent64, d_type) + 1;
            if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
            DirectoryEntry entry;
            entry.name = name;
            // Devices, FIFOs and sockets are never candidates: their type is all the walk needs.
            if (uint32_t bits = typeBits(d->d_type)) {
                entry.status.mode = bits;
                entry.status.inode = d->d_ino;
                entries.push_back(std::move(entry));
                continue;
            }
            struct statx sx {};
            if (::statx(dir.get(), name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, platform::statusMask, &sx) != 0) {
                if (errno == ENOENT) continue;  // removed since the listing
                throw SystemError("statx", path + "/" + name, errno);
            }
            entry.status = platform::statusOf(sx);
            entry.allocated = static_cast<int64_t>(sx.stx_blocks) * 512;
            entries.push_back(std::move(entry));
        }
    }
    return entries;
}

}  // namespace dedup
