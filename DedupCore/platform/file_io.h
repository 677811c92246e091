// The engine's only door to file descriptors. Every wrapper retries EINTR and turns a failure into
// a SystemError naming the call and the path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace dedup::platform {

// Owns one open file descriptor (opened with O_CLOEXEC); closes it when destroyed. Move-only.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset();

private:
    int fd_ = -1;
};

// Opens a user file for reading its content: never follows a final symbolic link, leaves the
// access time alone where the kernel allows it (owner or root), and tells the kernel that the
// file will be read once from start to end. Throws SystemError("open", path, errno).
FileDescriptor openForReading(const std::string& path);
// The same for reading no more than `length` bytes from the start (0 for none, to ask the file
// system about the file): the read-once hint is given only where it can help, a hint being a call
// of its own.
FileDescriptor openForReading(const std::string& path, int64_t length);

// Opens a folder for listing without following a final symbolic link.
// Throws SystemError("open", path, errno).
FileDescriptor openDirectory(const std::string& path);

// Reads up to buffer.size() bytes; 0 means end of file. Throws SystemError("read", path, errno).
size_t readSome(const FileDescriptor& fd, const std::string& path, std::span<std::byte> buffer);

// Asks the kernel to start reading `length` bytes from `offset` into the page cache and returns at
// once, so that the disk works while the caller digests what it already has. Only a hint: never
// fails.
void readAhead(const FileDescriptor& fd, int64_t offset, int64_t length);
// Whether the byte at `offset` is already in memory (or lies past the end), found without waiting
// for the disk: a hint for whether to ask for read-ahead at all, which walks the page cache even
// where everything is there already. Unknown reads as false.
bool isInMemory(const FileDescriptor& fd, int64_t offset);

// Writes the whole text to a temporary file beside `path`, flushes it and renames it over `path`,
// so readers see the old or the new content, never a part. Throws SystemError.
void writeFileAtomically(const std::string& path, const std::string& content);

// fdatasync(2) of a file / fsync(2) of a folder, so that what was written or created in it
// survives a power cut. Throw SystemError("open"/"fdatasync"/"fsync").
void syncFile(const std::string& path);
void syncFolder(const std::string& path);

}  // namespace dedup::platform
