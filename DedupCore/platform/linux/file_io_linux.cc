#include "../file_io.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "../../file_records.h"

namespace dedup::platform {

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = other.release();
    }
    return *this;
}

void FileDescriptor::reset() {
    // close() must not be retried on EINTR: the descriptor is gone either way on Linux.
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

namespace {
int openRetrying(const std::string& path, int flags) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}
}  // namespace

FileDescriptor openForReading(const std::string& path, int64_t length) {
    // O_NONBLOCK: a path that became a FIFO since the listing must fail, not hang the scan.
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK;
    int fd = openRetrying(path, flags | O_NOATIME);
    // O_NOATIME is refused with EPERM to anyone but the owner and root.
    if (fd < 0 && errno == EPERM) fd = openRetrying(path, flags);
    if (fd < 0) throw SystemError("open", path, errno);
    // Below a few read-ahead windows the kernel's own read-ahead already covers the whole read.
    constexpr int64_t worthAHint = 256 * 1024;
    if (length > worthAHint) ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return FileDescriptor(fd);
}

FileDescriptor openForReading(const std::string& path) {
    return openForReading(path, std::numeric_limits<int64_t>::max());
}

FileDescriptor openDirectory(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0) throw SystemError("open", path, errno);
    return FileDescriptor(fd);
}

size_t readSome(const FileDescriptor& fd, const std::string& path, std::span<std::byte> buffer) {
    for (;;) {
        ssize_t n = ::read(fd.get(), buffer.data(), buffer.size());
        if (n >= 0) return static_cast<size_t>(n);
        if (errno != EINTR) throw SystemError("read", path, errno);
    }
}

void readAhead(const FileDescriptor& fd, int64_t offset, int64_t length) {
    ::posix_fadvise(fd.get(), offset, length, POSIX_FADV_WILLNEED);
}

void syncFile(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY | O_NOFOLLOW);
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

void writeFileAtomically(const std::string& path, const std::string& content) {
    std::string temporary = path + ".tmp-" + std::to_string(::getpid());
    int fd = openRetrying(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
    if (fd < 0) throw SystemError("open", temporary, errno);
    FileDescriptor file(fd);
    size_t written = 0;
    while (written < content.size()) {
        ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            int code = errno;
            ::unlink(temporary.c_str());
            throw SystemError("write", temporary, code);
        }
        written += static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0) {
        int code = errno;
        ::unlink(temporary.c_str());
        throw SystemError("fsync", temporary, code);
    }
    file.reset();
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        int code = errno;
        ::unlink(temporary.c_str());
        throw SystemError("rename", path, code);
    }
}

}  // namespace dedup::platform
