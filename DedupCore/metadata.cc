#include "metadata.h"

#include <cerrno>

#include "platform/metadata.h"
#include "skip_reason.h"

namespace dedup {

Attributes XAttr::all(const std::string& path) {
    Attributes attributes;
    for (auto& name : names(path)) {
        std::string bytes = get(path, name);
        attributes.emplace(std::move(name), std::move(bytes));
    }
    return attributes;
}

void XAttr::replaceAll(const std::string& path, const Attributes& wanted) {
    Attributes present = all(path);
    for (const auto& [name, bytes] : present) {
        if (!wanted.contains(name)) remove(path, name);
    }
    // Equal attributes are left alone: rewriting one would move the change time for nothing and,
    // for a label the process may not set, fail where nothing needed doing.
    for (const auto& [name, bytes] : wanted) {
        auto it = present.find(name);
        if (it == present.end() || it->second != bytes) set(path, name, bytes);
    }
}

void applyAttributes(const Attributes& attributes, const std::string& path) {
    try {
        XAttr::replaceAll(path, attributes);
    } catch (const SystemError& error) {
        if (error.code != EPERM) throw;
        // Refused, typically a security.* label only a privileged process may write. If the file
        // now differs from what was asked, the copy would not stay as the user had it.
        if (XAttr::all(path) != attributes) throw Skip(SkipReason::quarantineCannotBeKept);
        throw;
    }
}

void copyMetadata(const std::string& clone, const FileStatus& targetStatus, const Attributes& attributes) {
    // A clone of an immutable or append-only kept copy inherits those flags and could not be
    // changed at all; the compression the file system chose for it stays.
    platform::setFileFlags(clone, 0);
    // The owner must be able to write the attributes whatever mode the kept copy had.
    platform::changeMode(clone, 0600);
    // The ACL travels among the attributes as system.posix_acl_access; a target without one
    // removes the one the kept copy passed on.
    applyAttributes(attributes, clone);
    try {
        platform::changeOwner(clone, targetStatus.uid, targetStatus.gid);
    } catch (const SystemError&) {
        throw Skip(SkipReason::notOwned);
    }
    // After the owner (chown clears set-id bits) and after the ACL (chmod sets its mask from the
    // group bits, as the target's own mask was).
    platform::changeMode(clone, targetStatus.mode & 07777);
    // Flags go last: an immutable or append-only bit set earlier would block the steps after it.
    platform::setFileFlags(clone, targetStatus.flags);
}

}  // namespace dedup

namespace dedup {

void XAttr::replaceAll(const platform::FileDescriptor& fd, const std::string& path, const Attributes& wanted) {
    Attributes present = all(fd, path);
    for (const auto& [name, bytes] : present) {
        if (!wanted.contains(name)) remove(fd, path, name);
    }
    for (const auto& [name, bytes] : wanted) {
        auto it = present.find(name);
        if (it == present.end() || it->second != bytes) set(fd, path, name, bytes);
    }
}

void applyAttributes(const Attributes& attributes, const platform::FileDescriptor& fd, const std::string& path) {
    try {
        XAttr::replaceAll(fd, path, attributes);
    } catch (const SystemError& error) {
        if (error.code != EPERM) throw;
        if (XAttr::all(fd, path) != attributes) throw Skip(SkipReason::quarantineCannotBeKept);
        throw;
    }
}

void prepareClone(const platform::FileDescriptor& clone, const std::string& path, const Attributes& attributes) {
    // A clone of an immutable or append-only kept copy inherits those flags and could not be
    // changed at all.
    platform::setFileFlags(clone, path, 0);
    // Private until its bytes are proven equal: the kept file's mode and ACL may open it to others.
    platform::changeMode(clone, path, 0600);
    applyAttributes(attributes, clone, path);
}

void handOverClone(const platform::FileDescriptor& clone, const std::string& path, const FileStatus& targetStatus,
                   const Attributes& attributes, int targetAttributeBits) {
    try {
        platform::changeOwner(clone, path, targetStatus.uid, targetStatus.gid);
    } catch (const SystemError&) {
        throw Skip(SkipReason::notOwned);
    }
    // After the owner (chown clears set-id bits) and after the ACL (chmod sets its mask from the
    // group bits, as the target's own mask was).
    platform::changeMode(clone, path, targetStatus.mode & 07777);
    // A change of owner drops file capabilities (security.capability): they go on again here, and
    // anything else already equal is left alone.
    applyAttributes(attributes, clone, path);
    // Flags go last: an immutable or append-only bit set earlier would block the steps after it.
    platform::setFileFlags(clone, path, targetStatus.flags, carriedAttributeBits, targetAttributeBits);
}

}  // namespace dedup
