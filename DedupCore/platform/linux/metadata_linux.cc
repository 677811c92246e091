// Extended attributes, ACL text, owner, mode and attribute flags of one file, through the calls
// that act on a link itself (l*xattr, fchownat and fchmodat with AT_SYMLINK_NOFOLLOW); and the
// random source and file access of the journal.
#include <acl/libacl.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/acl.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "../../metadata.h"
#include "../file_io.h"
#include "../metadata.h"

using dedup::platform::FileDescriptor;

namespace dedup {

namespace {

int openRetrying(const std::string& path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// XFS keeps a copy of the ACL under these names and rewrites it whenever system.posix_acl_access
// changes; copying or removing them by hand would fight the kernel.
bool isACLMirror(std::string_view name) {
    return name == "trusted.SGI_ACL_FILE" || name == "trusted.SGI_ACL_DEFAULT";
}

struct ACLFree {
    void operator()(void* object) const { ::acl_free(object); }
};

// The names a list call answers, split at their NUL bytes, the ACL mirrors left out. `list` is
// llistxattr or flistxattr bound to one file.
std::vector<std::string> listedNames(auto&& list, const char* call, const std::string& path) {
    std::vector<char> buffer;
    for (;;) {
        ssize_t size = list(nullptr, 0);
        if (size < 0) {
            // A file system without extended attributes holds none.
            if (errno == ENOTSUP) return {};
            throw SystemError(call, path, errno);
        }
        if (size == 0) return {};
        buffer.assign(static_cast<size_t>(size), '\0');
        ssize_t got = list(buffer.data(), buffer.size());
        if (got >= 0) {
            buffer.resize(static_cast<size_t>(got));
            break;
        }
        // ERANGE: an attribute was added between the two calls; ask for the size again.
        if (errno != ERANGE) throw SystemError(call, path, errno);
    }
    std::vector<std::string> names;
    size_t start = 0;
    while (start < buffer.size()) {
        size_t end = start;
        while (end < buffer.size() && buffer[end] != '\0') ++end;
        std::string name(buffer.data() + start, end - start);
        if (!name.empty() && !isACLMirror(name)) names.push_back(std::move(name));
        start = end + 1;
    }
    return names;
}

// One attribute's bytes; `get` is lgetxattr or fgetxattr bound to one file and name.
std::string valueOf(auto&& get, const char* call, const std::string& path) {
    for (;;) {
        ssize_t size = get(nullptr, 0);
        if (size < 0) throw SystemError(call, path, errno);
        std::string bytes(static_cast<size_t>(size), '\0');
        if (size == 0) return bytes;
        ssize_t got = get(bytes.data(), bytes.size());
        if (got >= 0) {
            bytes.resize(static_cast<size_t>(got));
            return bytes;
        }
        if (errno != ERANGE) throw SystemError(call, path, errno);
    }
}

}  // namespace

std::vector<std::string> XAttr::names(const std::string& path) {
    return listedNames([&](char* buffer, size_t size) { return ::llistxattr(path.c_str(), buffer, size); },
                       "llistxattr", path);
}

std::string XAttr::get(const std::string& path, const std::string& name) {
    return valueOf([&](char* buffer, size_t size) { return ::lgetxattr(path.c_str(), name.c_str(), buffer, size); },
                   "lgetxattr", path);
}

void XAttr::set(const std::string& path, const std::string& name, const std::string& bytes) {
    if (::lsetxattr(path.c_str(), name.c_str(), bytes.data(), bytes.size(), 0) != 0) {
        throw SystemError("lsetxattr", path, errno);
    }
}

void XAttr::remove(const std::string& path, const std::string& name) {
    if (::lremovexattr(path.c_str(), name.c_str()) != 0) throw SystemError("lremovexattr", path, errno);
}

std::optional<std::string> ACL::text(const std::string& path) {
    // acl_get_file follows links; a link itself never carries an ACL.
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) throw SystemError("acl_to_text", path, errno);
    if (S_ISLNK(st.st_mode)) return std::nullopt;

    std::unique_ptr<void, ACLFree> acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!acl) {
        if (errno == ENOTSUP) return std::nullopt;
        throw SystemError("acl_to_text", path, errno);
    }
    // Without an ACL of its own a file still answers with the three entries its mode bits make.
    if (::acl_equiv_mode(static_cast<acl_t>(acl.get()), nullptr) == 0) return std::nullopt;
    ssize_t length = 0;
    std::unique_ptr<char, ACLFree> text(::acl_to_text(static_cast<acl_t>(acl.get()), &length));
    if (!text) throw SystemError("acl_to_text", path, errno);
    return std::string(text.get(), static_cast<size_t>(length));
}

std::vector<std::string> XAttr::names(const FileDescriptor& fd, const std::string& path) {
    return listedNames([&](char* buffer, size_t size) { return ::flistxattr(fd.get(), buffer, size); }, "flistxattr",
                       path);
}

Attributes XAttr::all(const FileDescriptor& fd, const std::string& path) {
    Attributes attributes;
    for (auto& name : names(fd, path)) {
        std::string bytes = valueOf(
            [&](char* buffer, size_t size) { return ::fgetxattr(fd.get(), name.c_str(), buffer, size); }, "fgetxattr",
            path);
        attributes.emplace(std::move(name), std::move(bytes));
    }
    return attributes;
}

void XAttr::set(const FileDescriptor& fd, const std::string& path, const std::string& name, const std::string& bytes) {
    if (::fsetxattr(fd.get(), name.c_str(), bytes.data(), bytes.size(), 0) != 0) {
        throw SystemError("fsetxattr", path, errno);
    }
}

void XAttr::remove(const FileDescriptor& fd, const std::string& path, const std::string& name) {
    if (::fremovexattr(fd.get(), name.c_str()) != 0) throw SystemError("fremovexattr", path, errno);
}

std::optional<std::string> ACL::text(const FileDescriptor& fd, const std::string& path) {
    std::unique_ptr<void, ACLFree> acl(::acl_get_fd(fd.get()));
    if (!acl) {
        if (errno == ENOTSUP) return std::nullopt;
        throw SystemError("acl_get_fd", path, errno);
    }
    if (::acl_equiv_mode(static_cast<acl_t>(acl.get()), nullptr) == 0) return std::nullopt;
    ssize_t length = 0;
    std::unique_ptr<char, ACLFree> text(::acl_to_text(static_cast<acl_t>(acl.get()), &length));
    if (!text) throw SystemError("acl_to_text", path, errno);
    return std::string(text.get(), static_cast<size_t>(length));
}

namespace platform {

void changeOwner(const std::string& path, uint32_t uid, uint32_t gid) {
    if (::fchownat(AT_FDCWD, path.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) != 0) {
        throw SystemError("fchownat", path, errno);
    }
}

void changeMode(const std::string& path, uint32_t mode) {
    // glibc answers EOPNOTSUPP for a link instead of changing what it points to.
    if (::fchmodat(AT_FDCWD, path.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW) != 0) {
        throw SystemError("fchmodat", path, errno);
    }
}

void setFileFlags(const std::string& path, uint32_t flags) {
    // The attribute ioctls need a descriptor; O_NOFOLLOW keeps them off a link's target.
    int fd = openRetrying(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor file(fd);
    setFileFlags(file, path, flags);
}

void setFileFlags(const FileDescriptor& file, const std::string& path, uint32_t flags, int carried, int bits) {
    int wanted = bits & carried;
    if (flags & FileFlags::anyImmutable) wanted |= FS_IMMUTABLE_FL;
    if (flags & FileFlags::anyAppend) wanted |= FS_APPEND_FL;
    if (flags & FileFlags::nodump) wanted |= FS_NODUMP_FL;
    const int managed = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL | carried;

    // The kernel reads and writes an int whatever the ioctl's declared type says.
    int current = 0;
    if (::ioctl(file.get(), FS_IOC_GETFLAGS, &current) != 0) {
        bool unsupported = errno == ENOTTY || errno == EOPNOTSUPP;
        if (unsupported && wanted == 0) return;
        throw SystemError("FS_IOC_SETFLAGS", path, errno);
    }
    int next = (current & ~managed) | wanted;
    if (next == current) return;
    if (::ioctl(file.get(), FS_IOC_SETFLAGS, &next) != 0) throw SystemError("FS_IOC_SETFLAGS", path, errno);
    // Some file systems take a bit without complaint and keep it off (no copy-on-write on a file
    // that already has data, on Btrfs): what was asked must be what the file now has.
    int now = 0;
    if (::ioctl(file.get(), FS_IOC_GETFLAGS, &now) != 0) throw SystemError("FS_IOC_GETFLAGS", path, errno);
    if ((now & managed) != wanted) throw SystemError("FS_IOC_SETFLAGS", path, EOPNOTSUPP);
}

void changeOwner(const FileDescriptor& fd, const std::string& path, uint32_t uid, uint32_t gid) {
    if (::fchown(fd.get(), uid, gid) != 0) throw SystemError("fchown", path, errno);
}

void changeMode(const FileDescriptor& fd, const std::string& path, uint32_t mode) {
    if (::fchmod(fd.get(), mode & 07777) != 0) throw SystemError("fchmod", path, errno);
}

void randomBytes(std::span<std::byte> bytes) {
    size_t filled = 0;
    while (filled < bytes.size()) {
        ssize_t got = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            throw SystemError("getrandom", "", errno);
        }
        filled += static_cast<size_t>(got);
    }
}

void makeDirectories(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw SystemError("mkdir", path, error.value());
}

void appendToFile(const std::string& path, std::string_view bytes) {
    int fd = openRetrying(path, O_RDWR | O_APPEND | O_CREAT, 0600);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor file(fd);
    if (bytes.empty()) return;

    struct stat st {};
    char last = '\n';
    if (::fstat(fd, &st) == 0 && st.st_size > 0 && ::pread(fd, &last, 1, st.st_size - 1) != 1) last = '\n';
    std::string line;
    line.reserve(bytes.size() + 1);
    if (last != '\n') line += '\n';
    line.append(bytes);

    // One write and no retry of a part: a second write could land after another appender's line.
    ssize_t written;
    do {
        written = ::write(fd, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) throw SystemError("write", path, errno);
    if (static_cast<size_t>(written) != line.size()) throw SystemError("write", path, ENOSPC);
    if (::close(file.release()) != 0) throw SystemError("close", path, errno);
}

std::string readWholeFile(const std::string& path) {
    int fd = openRetrying(path, O_RDONLY);
    if (fd < 0) throw SystemError("open", path, errno);
    FileDescriptor file(fd);
    std::string content;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            throw SystemError("read", path, errno);
        }
        if (got == 0) return content;
        content.append(buffer.data(), static_cast<size_t>(got));
    }
}

bool pathResolves(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR) return false;
    throw SystemError("stat", path, errno);
}

}  // namespace platform
}  // namespace dedup
