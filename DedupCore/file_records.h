// The small value records that describe one file on disk and the volume it lies on. Every other
// part of the engine passes these around; they are plain values, copied freely and compared field
// by field. Reading them from the disk is done by the platform layer (platform/linux/).
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace dedup {

namespace platform {
class FileDescriptor;
}

// A file time as the file system stores it.
struct Timestamp {
    int64_t seconds = 0;
    int64_t nanoseconds = 0;

    auto operator<=>(const Timestamp&) const = default;
};

// BSD-style flag bits kept in FileStatus.flags. The Linux attributes are translated to these
// values so that stored scans and journals mean the same thing on every system.
namespace FileFlags {
inline constexpr uint32_t nodump = 0x1;
inline constexpr uint32_t userImmutable = 0x2;
inline constexpr uint32_t userAppend = 0x4;
inline constexpr uint32_t compressed = 0x20;
inline constexpr uint32_t systemImmutable = 0x20000;
inline constexpr uint32_t systemAppend = 0x40000;
inline constexpr uint32_t dataless = 0x40000000;
inline constexpr uint32_t anyImmutable = userImmutable | systemImmutable;
inline constexpr uint32_t anyAppend = userAppend | systemAppend;
}  // namespace FileFlags

// A file's status read without following a final symbolic link.
struct FileStatus {
    uint64_t device = 0;  // the full dev_t; on Btrfs every subvolume has its own
    uint64_t inode = 0;
    int64_t size = 0;
    Timestamp modified;
    Timestamp changed;
    uint32_t mode = 0;
    uint32_t links = 0;
    uint32_t uid = 0;
    uint32_t gid = 0;
    uint32_t flags = 0;

    bool operator==(const FileStatus&) const = default;

    bool isRegularFile() const;
    bool isDirectory() const;
    bool isSymbolicLink() const;

    // The test of sameness for a file seen twice. Mode, owner, links and flags are left out on
    // purpose: any change to them also moves `changed`, and a link count alone must not make a
    // new version.
    bool isSameVersion(const FileStatus& other) const;

    // statx without following a final link. Throws SystemError("lstat", path, errno).
    static FileStatus read(const std::string& path);
};

// The dates a replacement must carry over. Linux has no "date added"; `added` stays absent.
struct FileTimes {
    Timestamp created;  // birth time; zero where the file system keeps none
    Timestamp modified;
    Timestamp accessed;
    std::optional<Timestamp> added;

    bool operator==(const FileTimes&) const = default;

    // Throws SystemError("statx", path, errno).
    static FileTimes read(const std::string& path);
    // Sets modified and accessed; Linux cannot set a birth time. Throws SystemError("utimensat").
    void write(const std::string& path) const;
};

// What the file system says about blocks a file shares with others. Absent (an empty optional)
// where the file system cannot tell or the file has no extents.
struct CloneInfo {
    int64_t privateSize = 0;  // bytes held by this file alone: what deleting it would free
    uint64_t cloneID = 0;     // equal for files that share all their blocks; never 0
    uint32_t references = 0;  // files using the first extent; 0 when it cannot be counted
    // The data lives inside the file system's metadata (small files on Btrfs): there is no block
    // to share, so such a file is never a clone and replacing it frees nothing. Not in the JSON form.
    bool inlineData = false;
    // Every byte is a hole (a sparse file never written): there is no block to share or to free,
    // so such a file is never planned and never counted. Not in the JSON form.
    bool noBlocks = false;

    bool operator==(const CloneInfo&) const = default;

    // Reads the extent map; a file of holes alone gets `noBlocks`. Throws SystemError("open"/"fiemap", path, errno) when the file cannot
    // be opened or the call fails for a reason other than "not supported".
    static std::optional<CloneInfo> read(const std::string& path);
    // The same of a file open already, `path` naming it in errors: spares opening it again.
    static std::optional<CloneInfo> read(const platform::FileDescriptor& fd, const std::string& path);
};

// One regular file found by a scan: a snapshot of its path and status at that moment.
struct ScannedFile {
    std::string path;
    FileStatus status;
    std::optional<CloneInfo> clones;

    bool operator==(const ScannedFile&) const = default;
};

// The mount facts of the volume holding a path.
struct VolumeInfo {
    std::string mountPoint;
    std::string device;
    std::string fileSystem;

    bool operator==(const VolumeInfo&) const = default;

    // Absent when the mount cannot be found; never throws.
    static std::optional<VolumeInfo> of(const std::string& path);
};

// Where a volume's bytes live. Decides how many files are read at once.
struct StorageKind {
    // False when unknown; never throws.
    static bool isRotational(const std::string& path);
};

// The one error thrown by every wrapper of a system call.
class SystemError : public std::runtime_error {
public:
    SystemError(std::string call, std::string path, int code);

    std::string call;
    std::string path;
    int code;

    bool operator==(const SystemError& other) const {
        return call == other.call && path == other.path && code == other.code;
    }
};

void to_json(nlohmann::json& j, const Timestamp& t);
void from_json(const nlohmann::json& j, Timestamp& t);
void to_json(nlohmann::json& j, const FileStatus& s);
void from_json(const nlohmann::json& j, FileStatus& s);
void to_json(nlohmann::json& j, const FileTimes& t);
void from_json(const nlohmann::json& j, FileTimes& t);
void to_json(nlohmann::json& j, const CloneInfo& c);
void from_json(const nlohmann::json& j, CloneInfo& c);
void to_json(nlohmann::json& j, const ScannedFile& f);
void from_json(const nlohmann::json& j, ScannedFile& f);

}  // namespace dedup
