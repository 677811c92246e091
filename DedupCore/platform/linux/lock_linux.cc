#include "../lock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "../../file_records.h"

namespace dedup::platform {

namespace {

int openRetrying(const std::string& path, int flags) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK, 0644);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

}  // namespace

LockFile openLockFile(const std::string& path) {
    LockFile lock;
    int fd = openRetrying(path, O_RDWR | O_CREAT);
    lock.writable = fd >= 0;
    // A file another user made in a shared data folder still locks when opened for reading.
    if (fd < 0 && (errno == EACCES || errno == EROFS)) fd = openRetrying(path, O_RDONLY);
    if (fd < 0) throw SystemError("open", path, errno);
    lock.fd = FileDescriptor(fd);
    struct stat status {};
    if (::fstat(fd, &status) != 0) throw SystemError("fstat", path, errno);
    if (!S_ISREG(status.st_mode)) throw SystemError("open", path, EINVAL);
    return lock;
}

bool tryLockExclusive(const FileDescriptor& fd, const std::string& path) {
    for (;;) {
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return true;
        if (errno == EINTR) continue;
        if (errno == EWOULDBLOCK) return false;
        throw SystemError("flock", path, errno);
    }
}

void replaceContent(const FileDescriptor& fd, const std::string& path, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        ssize_t n = ::pwrite(fd.get(), text.data() + written, text.size() - written, static_cast<off_t>(written));
        if (n < 0) {
            if (errno == EINTR) continue;
            throw SystemError("pwrite", path, errno);
        }
        written += static_cast<size_t>(n);
    }
    while (::ftruncate(fd.get(), static_cast<off_t>(text.size())) != 0) {
        if (errno != EINTR) throw SystemError("ftruncate", path, errno);
    }
}

void clearContent(const FileDescriptor& fd) {
    while (::ftruncate(fd.get(), 0) != 0 && errno == EINTR) {
    }
}

std::string readContent(const FileDescriptor& fd, size_t limit) {
    std::string text(limit, '\0');
    size_t have = 0;
    while (have < limit) {
        ssize_t n = ::pread(fd.get(), text.data() + have, limit - have, static_cast<off_t>(have));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        have += static_cast<size_t>(n);
    }
    text.resize(have);
    return text;
}

long currentProcess() { return static_cast<long>(::getpid()); }

bool processExists(long pid) {
    if (pid <= 0) return false;
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace dedup::platform
