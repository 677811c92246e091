// The system calls behind metadata preservation and the journal that the engine's own headers do
// not declare: owner, mode and attribute flags of a file (always the link itself, never what it
// points to), random bytes, and the plain file access of the journal. The extended-attribute and
// ACL primitives of metadata.h are implemented beside these, in the same platform file.
// Every failure is a SystemError naming the call and the path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "file_io.h"

namespace dedup::platform {

// fchownat(AT_SYMLINK_NOFOLLOW). Throws SystemError("fchownat").
void changeOwner(const std::string& path, uint32_t uid, uint32_t gid);

// The permission bits (07777) of the file itself. A symbolic link has none to change and fails
// with EOPNOTSUPP. Throws SystemError("fchmodat").
void changeMode(const std::string& path, uint32_t mode);

// Makes the immutable, append-only and no-dump attributes those in `flags` (FileFlags bits; the
// user and system variants both mean the one Linux attribute) and leaves every other attribute,
// compression among them, as it is. Writes nothing when nothing changes, so a file system without
// these attributes accepts a request for none of them. Throws SystemError("FS_IOC_SETFLAGS").
void setFileFlags(const std::string& path, uint32_t flags);

// The same through an open descriptor; `path` names the file in errors.
void changeOwner(const FileDescriptor& fd, const std::string& path, uint32_t uid, uint32_t gid);
void changeMode(const FileDescriptor& fd, const std::string& path, uint32_t mode);
// Also sets, among the Linux attribute bits in `carried`, exactly those in `bits`.
void setFileFlags(const FileDescriptor& fd, const std::string& path, uint32_t flags, int carried = 0, int bits = 0);

// Fills `bytes` from the kernel's random source. Throws SystemError("getrandom").
void randomBytes(std::span<std::byte> bytes);

// Creates the folder and every missing folder above it. Throws SystemError("mkdir").
void makeDirectories(const std::string& path);

// Adds `bytes` at the end of the file, creating it (mode 0600) when missing, in one write(2), so
// that lines written by concurrent appenders never interleave. When the file does not end in a
// line feed (a line cut short by a crash) one is written first in the same write, so the damaged
// line stays apart from the new one. Empty `bytes` only make sure the file exists.
// Throws SystemError("open"/"write"/"close").
void appendToFile(const std::string& path, std::string_view bytes);

// The whole content of the file. Throws SystemError("open"/"read").
std::string readWholeFile(const std::string& path);

// True when the path names something, following a final symbolic link; false when it or a folder
// above it does not exist. Throws SystemError("stat") when the answer cannot be known.
bool pathResolves(const std::string& path);

}  // namespace dedup::platform
