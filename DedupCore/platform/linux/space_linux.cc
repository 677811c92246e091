// Extent maps (FIEMAP), the owners of Btrfs extents (tree search and LOGICAL_INO_V2), Btrfs
// snapshots (libbtrfsutil) and the freedesktop.org Trash folders.
#include "../space.h"

#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <btrfsutil.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

#include "../../file_records.h"
#include "../file_io.h"
#include "../system.h"

namespace dedup::platform {

std::optional<std::vector<FileExtent>> readExtents(const FileDescriptor& fd, const std::string& path) {
    constexpr unsigned batch = 128;
    std::vector<std::byte> buffer(sizeof(struct fiemap) + batch * sizeof(struct fiemap_extent));
    auto* map = reinterpret_cast<struct fiemap*>(buffer.data());
    std::vector<FileExtent> extents;
    uint64_t start = 0;
    for (bool last = false; !last;) {
        std::fill(buffer.begin(), buffer.end(), std::byte{0});
        map->fm_start = start;
        map->fm_length = FIEMAP_MAX_OFFSET - start;
        // Without the sync flag a recent overwrite still shows the old sharing.
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = batch;
        if (::ioctl(fd.get(), FS_IOC_FIEMAP, map) != 0) {
            if (errno == EOPNOTSUPP || errno == ENOTTY || errno == EINVAL) return std::nullopt;
            throw SystemError("fiemap", path, errno);
        }
        if (map->fm_mapped_extents == 0) break;
        for (unsigned i = 0; i < map->fm_mapped_extents; ++i) {
            const auto& e = map->fm_extents[i];
            // Inline data is copied by a clone, never shared; only a snapshot's leaf can hold it.
            bool inlineData = e.fe_flags & FIEMAP_EXTENT_DATA_INLINE;
            bool shared = (e.fe_flags & FIEMAP_EXTENT_SHARED) && !inlineData;
            extents.push_back({e.fe_logical, e.fe_physical, e.fe_length, shared, inlineData});
            start = e.fe_logical + e.fe_length;
            if (e.fe_flags & FIEMAP_EXTENT_LAST) last = true;
        }
    }
    if (extents.empty()) return std::nullopt;
    return extents;
}

namespace {

constexpr size_t smallestAnswer = 64 * 1024 / sizeof(uint64_t);
constexpr size_t largestAnswer = 16 * 1024 * 1024 / sizeof(uint64_t);  // the kernel's limit

bool isBtrfs(int fd) {
    struct statfs fs {};
    return ::fstatfs(fd, &fs) == 0 && fs.f_type == BTRFS_SUPER_MAGIC;
}

// Frees what libbtrfsutil hands out.
struct SubvolumeIterator {
    btrfs_util_subvolume_iterator* iterator = nullptr;
    ~SubvolumeIterator() {
        if (iterator) btrfs_util_destroy_subvolume_iterator(iterator);
    }
};

bool isSnapshot(const struct btrfs_util_subvolume_info& info) {
    return std::any_of(std::begin(info.parent_uuid), std::end(info.parent_uuid), [](uint8_t b) { return b != 0; });
}

// Whether any subvolume of the file system began as a snapshot; true when that cannot be told.
bool anySnapshot(int fd) {
    SubvolumeIterator it;
    if (btrfs_util_create_subvolume_iterator_fd(fd, BTRFS_FS_TREE_OBJECTID, 0, &it.iterator) != BTRFS_UTIL_OK) {
        return true;
    }
    for (;;) {
        struct btrfs_util_subvolume_info info {};
        auto error = btrfs_util_subvolume_iterator_next_info(it.iterator, nullptr, &info);
        if (error == BTRFS_UTIL_ERROR_STOP_ITERATION) return false;
        if (error != BTRFS_UTIL_OK || isSnapshot(info)) return true;
    }
}

int askLogicalIno(int fd, uint64_t address, std::vector<uint64_t>& buffer) {
    struct btrfs_ioctl_logical_ino_args args {};
    args.logical = address;
    args.size = buffer.size() * sizeof(uint64_t);
    args.flags = BTRFS_LOGICAL_INO_ARGS_IGNORE_OFFSET;
    args.inodes = reinterpret_cast<uintptr_t>(buffer.data());
    int result;
    do {
        result = ::ioctl(fd, BTRFS_IOC_LOGICAL_INO_V2, &args);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

}  // namespace

std::unique_ptr<ExtentOwners> ExtentOwners::open(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return nullptr;
    FileDescriptor owned(fd);
    if (!isBtrfs(fd)) return nullptr;
    // Address 0 never holds data: a permitted caller hears "not found", anyone else "not permitted",
    // and a kernel without the call "not a known request".
    auto owners = std::unique_ptr<ExtentOwners>(new ExtentOwners());
    int code = askLogicalIno(fd, 0, owners->answer_);
    if (code == EPERM || code == EACCES || code == ENOTTY || code == EOPNOTSUPP) return nullptr;
    // Extents written since the last commit have no searchable back references yet.
    ::syncfs(fd);
    owners->snapshotsExist_ = anySnapshot(fd);
    return owners;
}

ExtentOwners::ExtentOwners()
    : answer_(smallestAnswer), search_(sizeof(struct btrfs_ioctl_search_args_v2) + 64 * 1024) {}

std::optional<uint32_t> ExtentOwners::holdersOf(uint64_t address, int fileFd) {
    if (auto known = holders_.find(address); known != holders_.end()) return known->second;
    for (;;) {
        if (askLogicalIno(fileFd, address, answer_) != 0) return std::nullopt;
        auto* answer = reinterpret_cast<struct btrfs_data_container*>(answer_.data());
        if (answer->elem_missed == 0) {
            // Triples of (inode, offset in the file, subvolume); a file using the extent at
            // several offsets is still one holder.
            std::set<std::pair<uint64_t, uint64_t>> files;
            for (uint32_t i = 0; i + 2 < answer->elem_cnt; i += 3) {
                files.insert({answer->val[i + 2], answer->val[i]});
            }
            if (files.empty()) return std::nullopt;
            uint32_t count = static_cast<uint32_t>(files.size());
            holders_.emplace(address, count);
            return count;
        }
        if (answer_.size() >= largestAnswer) return std::nullopt;
        answer_.resize(std::min(largestAnswer, answer_.size() * 4));
    }
}

std::optional<uint64_t> ExtentOwners::lastSnapshotOf(int fileFd) {
    struct btrfs_ioctl_ino_lookup_args lookup {};
    lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;  // tree 0 and the root folder: the descriptor's subvolume
    if (::ioctl(fileFd, BTRFS_IOC_INO_LOOKUP, &lookup) != 0) return std::nullopt;
    if (auto known = lastSnapshots_.find(lookup.treeid); known != lastSnapshots_.end()) return known->second;
    struct btrfs_ioctl_search_args search {};
    search.key.tree_id = BTRFS_ROOT_TREE_OBJECTID;
    search.key.min_objectid = search.key.max_objectid = lookup.treeid;
    search.key.min_type = search.key.max_type = BTRFS_ROOT_ITEM_KEY;
    search.key.max_offset = UINT64_MAX;
    search.key.max_transid = UINT64_MAX;
    search.key.nr_items = 1;
    if (::ioctl(fileFd, BTRFS_IOC_TREE_SEARCH, &search) != 0 || search.key.nr_items == 0) return std::nullopt;
    struct btrfs_ioctl_search_header header;
    std::memcpy(&header, search.buf, sizeof header);
    struct btrfs_root_item root {};
    std::memcpy(&root, search.buf + sizeof header, std::min<size_t>(header.len, sizeof root));
    uint64_t generation = le64toh(root.last_snapshot);
    lastSnapshots_.emplace(lookup.treeid, generation);
    return generation;
}

std::optional<ExtentOwners::Blocks> ExtentOwners::blocksOf(const FileDescriptor& file) {
    struct stat st {};
    if (::fstat(file.get(), &st) != 0) return std::nullopt;
    Blocks blocks;

    // The file's extent items, read from its subvolume's tree (tree 0: the tree of the descriptor).
    auto* args = reinterpret_cast<struct btrfs_ioctl_search_args_v2*>(search_.data());
    std::vector<Extent>& extents = blocks.extents;
    std::unordered_map<uint64_t, size_t> indexOf;
    uint64_t nextOffset = 0;
    for (;;) {
        std::memset(args, 0, sizeof *args);
        args->key.min_objectid = args->key.max_objectid = st.st_ino;
        args->key.min_type = args->key.max_type = BTRFS_EXTENT_DATA_KEY;
        args->key.min_offset = nextOffset;
        args->key.max_offset = UINT64_MAX;
        args->key.max_transid = UINT64_MAX;
        args->key.nr_items = UINT32_MAX;
        args->buf_size = search_.size() - sizeof *args;
        if (::ioctl(file.get(), BTRFS_IOC_TREE_SEARCH_V2, args) != 0) return std::nullopt;
        if (args->key.nr_items == 0) break;
        size_t at = 0;
        for (uint32_t i = 0; i < args->key.nr_items; ++i) {
            struct btrfs_ioctl_search_header header;
            std::memcpy(&header, args->buf + at, sizeof header);
            at += sizeof header;
            struct btrfs_file_extent_item item {};
            std::memcpy(&item, args->buf + at, std::min<size_t>(header.len, sizeof item));
            at += header.len;
            nextOffset = header.offset + 1;
            if (item.type == BTRFS_FILE_EXTENT_INLINE) {
                // A leaf no newer than the subvolume's last snapshot has not been copied since: a
                // snapshot may still use it. The header's transid is the generation of the leaf.
                if (!snapshotsExist_) continue;
                auto lastSnapshot = lastSnapshotOf(file.get());
                if (!lastSnapshot) return std::nullopt;
                if (header.transid <= *lastSnapshot) blocks.inlineMaybeShared = true;
                continue;
            }
            if (header.len < sizeof item) continue;
            uint64_t address = le64toh(item.disk_bytenr);
            if (address == 0) continue;  // a hole
            // A file may use one extent in several places (a clone of its own range).
            auto [index, fresh] = indexOf.try_emplace(address, extents.size());
            if (fresh) extents.push_back({address, static_cast<int64_t>(le64toh(item.disk_num_bytes)), 0, 0});
            extents[index->second].fileBytes += static_cast<int64_t>(le64toh(item.num_bytes));
        }
        if (nextOffset == 0) break;  // the last possible offset was read
    }
    for (auto& extent : extents) {
        auto holders = holdersOf(extent.address, file.get());
        if (!holders) return std::nullopt;
        extent.holders = *holders;
    }
    return blocks;
}

namespace {

std::string joined(const std::string& folder, const std::string& relative) {
    return folder == "/" ? "/" + relative : folder + "/" + relative;
}

// Lists the snapshots below subvolume `top` (0: the mounted one), turning each path with `place`.
template <typename Place>
std::optional<std::vector<std::string>> listSnapshots(const std::string& mountPoint, uint64_t top, uint64_t own,
                                                      Place place) {
    SubvolumeIterator it;
    if (btrfs_util_create_subvolume_iterator(mountPoint.c_str(), top, 0, &it.iterator) != BTRFS_UTIL_OK) {
        return std::nullopt;
    }
    std::vector<std::string> result;
    for (;;) {
        char* path = nullptr;
        struct btrfs_util_subvolume_info info {};
        auto error = btrfs_util_subvolume_iterator_next_info(it.iterator, &path, &info);
        if (error == BTRFS_UTIL_ERROR_STOP_ITERATION) break;
        if (error != BTRFS_UTIL_OK) return std::nullopt;
        std::string relative(path);
        std::free(path);
        if (info.id != own && isSnapshot(info)) result.push_back(place(relative));
    }
    return result;
}

}  // namespace

std::optional<std::vector<std::string>> btrfsSnapshots(const std::string& mountPoint) {
    uint64_t own = 0;
    if (btrfs_util_subvolume_id(mountPoint.c_str(), &own) != BTRFS_UTIL_OK) return std::nullopt;
    // With privilege the whole file system is listed: snapshots kept beside the mounted subvolume
    // (a "@snapshots" next to "@") hold space on the same disk.
    char* ownPath = nullptr;
    if (btrfs_util_subvolume_path(mountPoint.c_str(), 0, &ownPath) == BTRFS_UTIL_OK) {
        std::string prefix(ownPath);
        std::free(ownPath);
        auto all = listSnapshots(mountPoint, BTRFS_FS_TREE_OBJECTID, own, [&](const std::string& relative) {
            if (prefix.empty()) return joined(mountPoint, relative);
            if (relative.starts_with(prefix + "/")) return joined(mountPoint, relative.substr(prefix.size() + 1));
            return relative;
        });
        if (all) return all;
    }
    // Without it the kernel shows the subvolumes below the mounted one that this user can reach.
    return listSnapshots(mountPoint, 0, own, [&](const std::string& relative) { return joined(mountPoint, relative); });
}

std::string homeTrash() {
    if (const char* value = std::getenv("XDG_DATA_HOME"); value && value[0] == '/') {
        return std::string(value) + "/Trash";
    }
    return homeDirectory() + "/.local/share/Trash";
}

std::vector<std::string> volumeTrashes(const std::string& mountPoint) {
    std::string uid = std::to_string(::getuid());
    return {joined(mountPoint, ".Trash/" + uid), joined(mountPoint, ".Trash-" + uid)};
}

}  // namespace dedup::platform
