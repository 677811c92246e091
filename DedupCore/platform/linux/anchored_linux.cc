// Folder descriptors opened without links, and the *at calls that act inside them.
#include "../anchored.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cerrno>
#include <cstdio>
#include <vector>

#include "statx_util.h"

namespace dedup::platform {

namespace {

int retrying(auto&& call) {
    int result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

// "/a/./b/../c" -> "/a/c". Only applied to text whose folders were all opened without following a
// link, so a ".." there means the folder's real parent.
std::string normalised(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        std::string part = path.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") continue;
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
            continue;
        }
        parts.push_back(std::move(part));
    }
    std::string result;
    for (const auto& part : parts) result += "/" + part;
    return result.empty() ? "/" : result;
}

// One folder at a time from "/", each opened relative to the last without following a link. A link
// on the way is followed only when root or this process's own user made it: those are the links
// of the system and of whoever runs the engine (a user's folder named through a link of their
// own), never one another user put in place of a folder. Answers -1 with errno set.
int openStepByStep(std::string path) {
    const uid_t self = ::geteuid();
    for (int hops = 0; hops < 40; ++hops) {
        int fd = retrying([] { return ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
        if (fd < 0) return -1;
        std::string resolved;
        size_t start = 1;
        bool restarted = false;
        while (start < path.size() + 1 && !restarted) {
            size_t end = path.find('/', start);
            if (end == std::string::npos) end = path.size();
            std::string part = path.substr(start, end - start);
            start = end + 1;
            if (part.empty() || part == ".") continue;
            int next = retrying(
                [&] { return ::openat(fd, part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
            if (next >= 0) {
                ::close(fd);
                fd = next;
                resolved += "/" + part;
                continue;
            }
            int code = errno;
            struct stat link {};
            bool isLink = (code == ELOOP || code == ENOTDIR) &&
                          ::fstatat(fd, part.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(link.st_mode);
            if (isLink) code = ELOOP;
            bool trusted = isLink && (link.st_uid == 0 || link.st_uid == self);
            std::string target(PATH_MAX, '\0');
            ssize_t length = trusted ? ::readlinkat(fd, part.c_str(), target.data(), target.size()) : -1;
            ::close(fd);
            if (length <= 0) {
                errno = code;
                return -1;
            }
            target.resize(static_cast<size_t>(length));
            std::string rest = start < path.size() ? path.substr(start) : "";
            path = normalised((target.front() == '/' ? target : resolved + "/" + target) + "/" + rest);
            restarted = true;
        }
        if (!restarted) return fd;
    }
    errno = ELOOP;
    return -1;
}

}  // namespace

FileDescriptor openFolderWithoutLinks(const std::string& path) {
    if (path.empty() || path.front() != '/') throw SystemError("openat2", path, EINVAL);
    struct open_how how {};
    how.flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    int fd = retrying([&] { return static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)); });
    // Without openat2, or with a link on the way that may be one to follow: step by step.
    if (fd < 0 && (errno == ENOSYS || errno == E2BIG || errno == ELOOP)) fd = openStepByStep(path);
    if (fd < 0) throw SystemError("openat2", path, errno);
    return FileDescriptor(fd);
}

FileDescriptor openFileIn(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    int fd = retrying([&] { return ::openat(folder.get(), name.c_str(), flags | O_NOATIME); });
    // O_NOATIME is refused with EPERM to anyone but the owner and root.
    if (fd < 0 && errno == EPERM) fd = retrying([&] { return ::openat(folder.get(), name.c_str(), flags); });
    if (fd < 0) throw SystemError("openat", path, errno);
    return FileDescriptor(fd);
}

std::optional<FileStatus> statusIn(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    struct statx sx {};
    if (::statx(folder.get(), name.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, statusMask, &sx) != 0) {
        if (errno == ENOENT) return std::nullopt;
        throw SystemError("statx", path, errno);
    }
    return statusOf(sx);
}

FileTimes timesOf(const FileDescriptor& fd, const std::string& path) {
    struct statx sx {};
    if (::statx(fd.get(), "", AT_EMPTY_PATH, STATX_ATIME | STATX_MTIME | STATX_BTIME, &sx) != 0) {
        throw SystemError("statx", path, errno);
    }
    FileTimes times;
    if (sx.stx_mask & STATX_BTIME) times.created = timestampOf(sx.stx_btime);
    times.modified = timestampOf(sx.stx_mtime);
    times.accessed = timestampOf(sx.stx_atime);
    return times;
}

void setTimes(const FileDescriptor& fd, const FileTimes& times, const std::string& path) {
    struct timespec both[2] = {
        {static_cast<time_t>(times.accessed.seconds), static_cast<long>(times.accessed.nanoseconds)},
        {static_cast<time_t>(times.modified.seconds), static_cast<long>(times.modified.nanoseconds)}};
    if (::futimens(fd.get(), both) != 0) throw SystemError("futimens", path, errno);
}

FileDescriptor anonymousFileIn(const FileDescriptor& folder, const std::string& path) {
    int fd = retrying([&] { return ::openat(folder.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); });
    if (fd >= 0) return FileDescriptor(fd);
    // Older kernels and some file systems (network ones among them) have no nameless files.
    if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return FileDescriptor();
    throw SystemError("openat", path, errno);
}

FileDescriptor createFileIn(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    int fd = retrying([&] {
        return ::openat(folder.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    });
    if (fd < 0) throw SystemError("openat", path, errno);
    return FileDescriptor(fd);
}

bool cloneInto(const FileDescriptor& destination, const FileDescriptor& source, const std::string& path) {
    if (::ioctl(destination.get(), FICLONE, source.get()) == 0) return true;
    if (errno == EOPNOTSUPP || errno == ENOTTY || errno == EXDEV) return false;
    throw SystemError("FICLONE", path, errno);
}

void linkInto(const FileDescriptor& file, const FileDescriptor& folder, const std::string& name,
              const std::string& path) {
    if (::linkat(file.get(), "", folder.get(), name.c_str(), AT_EMPTY_PATH) == 0) return;
    // Naming a file by its descriptor needs CAP_DAC_READ_SEARCH; through /proc it needs nothing more
    // than owning the descriptor.
    if (errno != ENOENT && errno != EPERM) throw SystemError("linkat", path, errno);
    char procPath[64];
    std::snprintf(procPath, sizeof procPath, "/proc/self/fd/%d", file.get());
    if (::linkat(AT_FDCWD, procPath, folder.get(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        throw SystemError("linkat", path, errno);
    }
}

bool exchangeIn(const FileDescriptor& folder, const std::string& a, const std::string& b) {
    return ::renameat2(folder.get(), a.c_str(), folder.get(), b.c_str(), RENAME_EXCHANGE) == 0;
}

bool tryRenameWithoutReplacing(const FileDescriptor& fromFolder, const std::string& from,
                               const FileDescriptor& toFolder, const std::string& to) {
    return ::renameat2(fromFolder.get(), from.c_str(), toFolder.get(), to.c_str(), RENAME_NOREPLACE) == 0;
}

void renameWithoutReplacing(const FileDescriptor& fromFolder, const std::string& from, const FileDescriptor& toFolder,
                            const std::string& to, const std::string& path) {
    if (!tryRenameWithoutReplacing(fromFolder, from, toFolder, to)) throw SystemError("renameat2", path, errno);
}

void removeIn(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    if (::unlinkat(folder.get(), name.c_str(), 0) != 0) throw SystemError("unlinkat", path, errno);
}

bool tryRemoveIn(const FileDescriptor& folder, const std::string& name) {
    return ::unlinkat(folder.get(), name.c_str(), 0) == 0;
}

void makeFolderIn(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    if (::mkdirat(folder.get(), name.c_str(), 0700) != 0) throw SystemError("mkdirat", path, errno);
}

bool tryRemoveFolderIn(const FileDescriptor& folder, const std::string& name) {
    return ::unlinkat(folder.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

FileDescriptor openSubfolder(const FileDescriptor& folder, const std::string& name, const std::string& path) {
    int fd = retrying(
        [&] { return ::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    if (fd < 0) throw SystemError("openat", path, errno);
    return FileDescriptor(fd);
}

int attributeBitsOf(const FileDescriptor& fd, const std::string& path) {
    int bits = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &bits) == 0) return bits;
    if (errno == ENOTTY || errno == EOPNOTSUPP || errno == EINVAL) return 0;
    throw SystemError("FS_IOC_GETFLAGS", path, errno);
}

}  // namespace dedup::platform
