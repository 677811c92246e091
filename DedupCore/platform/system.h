// Small questions the engine asks the operating system. None of them throws: a failure reads as
// "unknown", which each caller maps to the cautious answer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dedup::platform {

// realpath(3); absent on failure.
std::optional<std::string> realPath(const std::string& path);

// The text a symbolic link points to; empty when it cannot be read.
std::string readLink(const std::string& path);

// access(2) with the given mode (R_OK, W_OK, ...), not following a final link where possible.
bool canAccess(const std::string& path, int mode);
inline constexpr int writeAccess = 2;

uint32_t effectiveUser();

// The user's home folder: $HOME, else the password database, else "/".
std::string homeDirectory();

bool pathExists(const std::string& path);

// True when the path (symbolic links resolved) is the root of a mount.
bool isMountRoot(const std::string& path);

// A mounted file system, as /proc/self/mountinfo lists it.
struct Mount {
    std::string mountPoint;
    std::string source;
    std::string fileSystem;
    bool readOnly = false;
    uint64_t device = 0;  // the dev_t of the mount's root
};
std::vector<Mount> mounts();

// An identifier of the file system holding `path` that stays the same across mounts and boots:
// the Btrfs fsid, else the file system UUID the kernel reports, else the UUID of the source device.
// With `withSubvolume` a Btrfs identifier is followed by ":" and the subvolume id, so that inode
// numbers are unique under it. Absent when the volume has none.
std::optional<std::string> volumeIdentifier(const std::string& path, bool withSubvolume);

}  // namespace dedup::platform
