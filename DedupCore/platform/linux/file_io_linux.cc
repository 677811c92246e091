#include "../file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstddef>

#include <cerrno>
#include <limits>

#include "../../file_records.h"
#include "../metadata.h"

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
// `mode` counts only with O_CREAT, and then always: a file created without one gets whatever the
// stack held, often 000.
int openRetrying(const std::string& path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
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

bool isInMemory(const FileDescriptor& fd, int64_t offset) {
    std::byte byte;
    iovec one{&byte, 1};
    // RWF_NOWAIT: answered from the page cache or refused with EAGAIN, never by reading the disk.
    ssize_t n;
    do {
        n = ::preadv2(fd.get(), &one, 1, offset, RWF_NOWAIT);
    } while (n < 0 && errno == EINTR);
    return n >= 0;
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
namespace {

// A name beside `path` that no one else uses: two writers of the same file (two copies of the
// tool, two threads) must never write into one temporary file.
std::string temporaryBeside(const std::string& path) {
    std::array<std::byte, 8> bytes;
    randomBytes(bytes);
    static constexpr char digits[] = "0123456789abcdef";
    std::string name = path + ".tmp-";
    for (auto b : bytes) {
        auto value = std::to_integer<unsigned>(b);
        name += digits[value >> 4];
        name += digits[value & 0xF];
    }
    return name;
}

}  // namespace

void writeFileAtomically(const std::string& path, const std::string& content) {
    // A new file gets 0666 less the umask, as any program's saved file; a file replaced keeps the
    // permissions its owner gave it. (Created without a mode, it would be unreadable to its owner.)
    struct stat existing{};
    bool replacing = ::lstat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode);
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < 8; ++attempt) {
        temporary = temporaryBeside(path);
        fd = openRetrying(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) throw SystemError("open", temporary, errno);
    FileDescriptor file(fd);
    auto fail = [&](const char* call, const std::string& where) {
        int code = errno;
        ::unlink(temporary.c_str());
        throw SystemError(call, where, code);
    };
    if (replacing && ::fchmod(fd, existing.st_mode & 07777) != 0) fail("fchmod", temporary);
    size_t written = 0;
    while (written < content.size()) {
        ssize_t n = ::write(fd, content.data() + written, content.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            fail("write", temporary);
        }
        written += static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0) fail("fsync", temporary);
    file.reset();
    if (::rename(temporary.c_str(), path.c_str()) != 0) fail("rename", path);
    // The rename itself lives in the folder: without this a power cut can bring the old file back.
    std::string folder = path.substr(0, path.find_last_of('/') + 1);
    int folderFd = openRetrying(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
    if (folderFd >= 0) {
        ::fsync(folderFd);
        ::close(folderFd);
    }
}

}  // namespace dedup::platform
