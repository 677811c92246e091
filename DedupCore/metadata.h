// The metadata a replacement must carry from the replaced copy onto its clone: extended attributes
// (the ACL travels among them as system.posix_acl_access), the ACL's text for the journal and for
// verification, owner, mode and the immutable/append-only flags. Every call acts on the link
// itself, never following a final symbolic link. Stateless; any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "file_records.h"
#include "platform/file_io.h"

namespace dedup {

using Attributes = std::map<std::string, std::string>;  // name -> bytes

namespace XAttr {
// Names in the order the file system lists them. XFS's trusted.SGI_ACL_* mirrors of the ACL are
// left out: the kernel keeps them in step with system.posix_acl_access by itself.
// Throws SystemError("llistxattr").
std::vector<std::string> names(const std::string& path);
std::string get(const std::string& path, const std::string& name);  // SystemError("lgetxattr")
Attributes all(const std::string& path);
void set(const std::string& path, const std::string& name, const std::string& bytes);  // "lsetxattr"
void remove(const std::string& path, const std::string& name);                          // "lremovexattr"
// Makes the attributes exactly `wanted`: removes the others, writes what differs, leaves alone
// what is already equal.
void replaceAll(const std::string& path, const Attributes& wanted);

// The same through an open descriptor, for a file reached without a path that links could
// redirect; `path` only names it in errors.
std::vector<std::string> names(const platform::FileDescriptor& fd, const std::string& path);
Attributes all(const platform::FileDescriptor& fd, const std::string& path);
void set(const platform::FileDescriptor& fd, const std::string& path, const std::string& name, const std::string& bytes);
void remove(const platform::FileDescriptor& fd, const std::string& path, const std::string& name);
void replaceAll(const platform::FileDescriptor& fd, const std::string& path, const Attributes& wanted);
}  // namespace XAttr

namespace ACL {
// The access ACL in its long text form; absent when the file has only its mode bits.
// Throws SystemError("acl_to_text").
std::optional<std::string> text(const std::string& path);
std::optional<std::string> text(const platform::FileDescriptor& fd, const std::string& path);
}  // namespace ACL

// Writes `attributes` onto `path`. An attribute the process may not set (EPERM, a security.* label)
// that then differs makes the copy a Skip(quarantineCannotBeKept); other errors propagate.
void applyAttributes(const Attributes& attributes, const std::string& path);

// Gives a fresh clone the replaced copy's metadata, in an order that cannot lock itself out: clear
// inherited flags, open the mode to the owner, attributes, owner (Skip(notOwned) when refused),
// mode, then the flags last.
void copyMetadata(const std::string& clone, const FileStatus& targetStatus, const Attributes& attributes);

void applyAttributes(const Attributes& attributes, const platform::FileDescriptor& fd, const std::string& path);

// The Linux attributes a clone carries over from the copy it replaces besides immutable,
// append-only and no-dump: no access time (A), synchronous writes (S), no copy-on-write (C) and
// compression (c).
inline constexpr int carriedAttributeBits = 0x00000080 | 0x00000008 | 0x00800000 | 0x00000004;

// The two halves of giving a nameless clone the replaced copy's metadata. The first leaves it
// private (mode 0600, this process's owner) while its bytes are still to be compared; the second,
// once they are proven equal, gives it the copy's owner, mode, Linux attributes and, last, its
// flags. File capabilities, which the kernel drops on a change of owner, are written again after it.
void prepareClone(const platform::FileDescriptor& clone, const std::string& path, const Attributes& attributes);
void handOverClone(const platform::FileDescriptor& clone, const std::string& path, const FileStatus& targetStatus,
                   const Attributes& attributes, int targetAttributeBits);

}  // namespace dedup
