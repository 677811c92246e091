#include "../locks.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "../../file_records.h"

namespace dedup::platform {

namespace {

int openRetrying(const std::string& path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int flockRetrying(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace

FileDescriptor createHeldLock(const std::string& path) {
    std::string draft = path + ".new";
    int fd = openRetrying(draft, O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0) throw SystemError("open", draft, errno);
    FileDescriptor lock(fd);
    if (flockRetrying(fd, LOCK_EX | LOCK_NB) != 0) {
        int code = errno;
        ::unlink(draft.c_str());
        throw SystemError("flock", draft, code);
    }
    if (::rename(draft.c_str(), path.c_str()) != 0) {
        int code = errno;
        ::unlink(draft.c_str());
        throw SystemError("rename", path, code);
    }
    return lock;
}

FileDescriptor waitForLock(const std::string& path) {
    int fd = openRetrying(path, O_RDWR | O_CREAT, 0600);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor lock(fd);
    if (flockRetrying(fd, LOCK_EX) != 0) throw SystemError("flock", path, errno);
    return lock;
}

LockState probeLock(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY);
    if (fd < 0) return errno == ENOENT ? LockState::absent : LockState::held;
    FileDescriptor lock(fd);
    if (flockRetrying(fd, LOCK_EX | LOCK_NB) == 0) return LockState::free;
    return LockState::held;
}

void removeFreeLock(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY);
    if (fd < 0) return;
    FileDescriptor lock(fd);
    if (flockRetrying(fd, LOCK_EX | LOCK_NB) == 0) ::unlink(path.c_str());
}

void syncFile(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor file(fd);
    if (::fdatasync(fd) != 0) throw SystemError("fdatasync", path, errno);
}

void syncFolder(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY | O_DIRECTORY);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor folder(fd);
    if (::fsync(fd) != 0) throw SystemError("fsync", path, errno);
}

}  // namespace dedup::platform
