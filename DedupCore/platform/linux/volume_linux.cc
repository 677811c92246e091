// VolumeInfo, the disks under a volume and the mount table, read from /proc and /sys.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <blkid/blkid.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "../../file_records.h"
#include "../file_io.h"
#include "../storage.h"
#include "../system.h"

namespace dedup::platform {

namespace {

// mountinfo escapes space, tab, newline and backslash as three octal digits.
std::string unescapeMountField(const std::string& field) {
    std::string out;
    out.reserve(field.size());
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            int value = 0;
            bool octal = true;
            for (size_t k = 1; k <= 3; ++k) {
                char c = field[i + k];
                if (c < '0' || c > '7') octal = false;
                value = value * 8 + (c - '0');
            }
            if (octal) {
                out.push_back(static_cast<char>(value));
                i += 3;
                continue;
            }
        }
        out.push_back(field[i]);
    }
    return out;
}

struct MountLine {
    uint64_t id = 0;
    Mount mount;
};

std::vector<MountLine> readMountInfo() {
    std::vector<MountLine> result;
    std::ifstream in("/proc/self/mountinfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        MountLine m;
        std::string parent, majorMinor, root, point, options;
        if (!(fields >> m.id >> parent >> majorMinor >> root >> point >> options)) continue;
        std::string word;
        while (fields >> word && word != "-") {
        }
        std::string type, source;
        fields >> type >> source;
        unsigned major = 0, minor = 0;
        std::sscanf(majorMinor.c_str(), "%u:%u", &major, &minor);
        m.mount.device = makedev(major, minor);
        m.mount.mountPoint = unescapeMountField(point);
        m.mount.fileSystem = type;
        m.mount.source = unescapeMountField(source);
        m.mount.readOnly = options == "ro" || options.starts_with("ro,");
        result.push_back(std::move(m));
    }
    return result;
}

std::string readFirstLine(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

std::string uuidText(const unsigned char bytes[16]) {
    char text[37];
    std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                  bytes[0], bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                  bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return text;
}

FileDescriptor openForQuestions(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    return FileDescriptor(fd);
}

std::optional<std::string> btrfsFsid(int fd) {
    struct btrfs_ioctl_fs_info_args info {};
    if (::ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0) return std::nullopt;
    return uuidText(info.fsid);
}

// The generic file-system UUID ioctl of recent kernels; older headers lack it.
struct FsUuid2 {
    uint8_t len;
    uint8_t uuid[16];
};
constexpr unsigned long fsIocGetFsUuid = _IOR(0x15, 0, FsUuid2);

std::optional<uint64_t> mountIdOf(const std::string& path) {
    struct statx sx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &sx) != 0) return std::nullopt;
    if (!(sx.stx_mask & STATX_MNT_ID)) return std::nullopt;
    return sx.stx_mnt_id;
}

// A descriptor on the same volume (and Btrfs subvolume) as `path`, for questions about the volume:
// its mount point where that is on the same device, since a user's file may be unreadable and any
// one file may be gone; else the nearest of the path and its folders that opens.
FileDescriptor openOnSameVolume(const std::string& path) {
    struct statx sx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_MNT_ID, &sx) != 0) return {};
    const dev_t device = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    auto onDevice = [&](const FileDescriptor& fd) {
        struct stat st {};
        return fd && ::fstat(fd.get(), &st) == 0 && st.st_dev == device;
    };
    if (sx.stx_mask & STATX_MNT_ID) {
        for (const auto& line : readMountInfo()) {
            if (line.id != sx.stx_mnt_id) continue;
            if (FileDescriptor fd = openForQuestions(line.mount.mountPoint); onDevice(fd)) return fd;
            break;
        }
    }
    // A subvolume below the mount point has a device of its own.
    for (std::string at = path; !at.empty();) {
        if (FileDescriptor fd = openForQuestions(at); onDevice(fd)) return fd;
        if (at == "/") break;
        auto slash = at.find_last_of('/');
        if (slash == std::string::npos) break;
        at = slash == 0 ? "/" : at.substr(0, slash);
    }
    return {};
}

}  // namespace

std::vector<Mount> mounts() {
    std::vector<Mount> result;
    for (auto& line : readMountInfo()) result.push_back(std::move(line.mount));
    return result;
}

std::optional<std::string> volumeIdentifier(const std::string& path, bool withSubvolume) {
    FileDescriptor fd = openOnSameVolume(path);
    if (!fd) return std::nullopt;
    struct statfs fs {};
    if (::fstatfs(fd.get(), &fs) != 0) return std::nullopt;
    if (fs.f_type == BTRFS_SUPER_MAGIC) {
        auto fsid = btrfsFsid(fd.get());
        if (!fsid) return std::nullopt;
        if (!withSubvolume) return fsid;
        // The tree holding the object asked about is the subvolume the descriptor lies in.
        struct btrfs_ioctl_ino_lookup_args lookup {};
        lookup.treeid = 0;
        lookup.objectid = 256;  // the first inode of every Btrfs tree: its root folder
        if (::ioctl(fd.get(), BTRFS_IOC_INO_LOOKUP, &lookup) != 0) return std::nullopt;
        return *fsid + ":" + std::to_string(lookup.treeid);
    }
    FsUuid2 uuid{};
    uuid.len = 16;
    if (::ioctl(fd.get(), fsIocGetFsUuid, &uuid) == 0 && uuid.len == 16) {
        bool zero = true;
        for (auto b : uuid.uuid) zero = zero && b == 0;
        if (!zero) return uuidText(uuid.uuid);
    }
    auto volume = VolumeInfo::of(path);
    if (!volume || !volume->device.starts_with("/dev/")) return std::nullopt;
    char* value = blkid_get_tag_value(nullptr, "UUID", volume->device.c_str());
    if (!value) return std::nullopt;
    std::string text(value);
    std::free(value);
    return text;
}

namespace {

// Walks from a block device in /sys down to the disks that hold its bytes.
class DiskSearch {
public:
    std::vector<DiskFacts> disks;

    void fromPath(const std::string& path, int depth) {
        struct statx sx {};
        if (depth > maxDepth || ::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_TYPE, &sx) != 0) return;
        if (sx.stx_dev_major != 0) {
            fromBlockDevice(std::filesystem::path("/sys/dev/block") /
                                (std::to_string(sx.stx_dev_major) + ":" + std::to_string(sx.stx_dev_minor)),
                            depth);
            return;
        }
        // Btrfs gives every subvolume an anonymous device; its real devices are listed under its fsid.
        FileDescriptor fd = openForQuestions(path);
        auto fsid = fd ? btrfsFsid(fd.get()) : std::nullopt;
        if (!fsid) return;
        std::error_code ec;
        for (const auto& device : std::filesystem::directory_iterator("/sys/fs/btrfs/" + *fsid + "/devices", ec)) {
            fromBlockDevice(device.path(), depth + 1);
        }
    }

private:
    static constexpr int maxDepth = 8;

    void fromBlockDevice(const std::filesystem::path& link, int depth) {
        std::error_code ec;
        auto dir = std::filesystem::canonical(link, ec);
        if (ec || depth > maxDepth || !visited_.insert(dir.string()).second) return;
        if (std::filesystem::exists(dir / "partition", ec)) return fromBlockDevice(dir.parent_path(), depth + 1);
        // A loop device stands for its image file, whose bytes lie on another disk. An image that
        // was deleted reads "(deleted)" and cannot be followed: the loop device is then the answer.
        std::string image = readFirstLine(dir / "loop" / "backing_file");
        if (!image.empty() && !image.ends_with("(deleted)")) {
            size_t before = disks.size();
            fromPath(image, depth + 1);
            if (disks.size() > before) return;
        }
        size_t before = disks.size();
        for (const auto& member : std::filesystem::directory_iterator(dir / "slaves", ec)) {
            fromBlockDevice(member.path(), depth + 1);
        }
        if (disks.size() > before) return;
        DiskFacts disk;
        disk.name = dir.filename().string();
        disk.sysPath = dir.string();
        disk.rotational = readFirstLine(dir / "queue" / "rotational") == "1";
        disk.driver = std::filesystem::canonical(dir / "device" / "driver", ec).filename().string();
        if (ec) disk.driver.clear();
        disk.vendor = trimmed(readFirstLine(dir / "device" / "vendor"));
        disk.model = trimmed(readFirstLine(dir / "device" / "model"));
        disks.push_back(std::move(disk));
    }

    // SCSI pads its vendor and model fields with spaces.
    static std::string trimmed(std::string text) {
        while (!text.empty() && text.back() == ' ') text.pop_back();
        size_t start = text.find_first_not_of(' ');
        return start == std::string::npos ? "" : text.substr(start);
    }

    std::set<std::string> visited_;
};

}  // namespace

std::vector<DiskFacts> disksUnder(const std::string& path) {
    DiskSearch search;
    search.fromPath(path, 0);
    return std::move(search.disks);
}

}  // namespace dedup::platform

namespace dedup {

std::optional<VolumeInfo> VolumeInfo::of(const std::string& path) {
    auto id = platform::mountIdOf(path);
    if (!id) return std::nullopt;
    for (auto& line : platform::readMountInfo()) {
        if (line.id == *id) return VolumeInfo{line.mount.mountPoint, line.mount.source, line.mount.fileSystem};
    }
    return std::nullopt;
}

}  // namespace dedup
