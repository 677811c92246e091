// What deleting a folder would really give back once files share blocks. A file browser counts
// every clone in full, yet deleting a clone frees nothing while another file still uses its
// blocks; the same holds for a hard-linked file while one of its names lies elsewhere.
//
// Shared blocks are counted as freed only when every file using them lies inside the folder. As
// root on Btrfs the file system is asked which files use each shared extent, so that is known
// exactly. Everywhere else the extent map only says "shared with something": those bytes are
// `uncertain`, never freed.
//
// A measurement is a single-threaded recursive walk that holds no shared state; any thread may run
// one. It stays on the folder's device, so mounts and Btrfs subvolumes inside it are not entered.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "file_records.h"

namespace dedup {

struct FolderSize {
    std::string path;
    int64_t logical = 0;         // sum of the sizes of the regular files in the tree
    int64_t allocated = 0;       // bytes allocated on disk to them; shared blocks count for each file
    int64_t freedIfDeleted = 0;  // what deleting the tree gives back
    int64_t uncertain = 0;       // shared with something the walk cannot see; not counted as freed
    std::vector<FolderSize> children;  // the measured subfolders, largest `freedIfDeleted` first

    bool operator==(const FolderSize&) const = default;
};
void to_json(nlohmann::json& j, const FolderSize& f);
void from_json(const nlohmann::json& j, FolderSize& f);

namespace TrueSize {

// How shared blocks were counted.
enum class Sharing {
    unknown,   // only "shared or not" was known: shared bytes are uncertain
    resolved,  // the file system named every file using each shared extent
};
std::string toString(Sharing sharing);

// Blocks used by several files. Every extent shared on Btrfs is one family; its members are the
// files (subvolume and inode) the file system names as using it.
struct Family {
    uint32_t references = 0;  // files using the blocks, inside the tree or not
    uint32_t found = 0;       // of those, found inside the tree
    int64_t sharedBytes = 0;  // what the blocks take on disk

    bool operator==(const Family&) const = default;
};

// One inode with several names. It leaves with the tree only when every name lies inside; then it
// is also one of the users found of each family it belongs to.
struct Link {
    uint32_t references = 0;  // its link count
    int64_t bytes = 0;        // what the inode holds of its own
    int64_t found = 0;        // names found inside the tree
    std::vector<uint64_t> families;  // the shared extents it uses, by address

    bool operator==(const Link&) const = default;
};

// The running account of one tree. Bytes a file holds alone go to `privateBytes` even when its
// other blocks are shared: a family records only the blocks its users share.
struct Tally {
    int64_t logical = 0;
    int64_t allocated = 0;
    int64_t privateBytes = 0;
    int64_t uncertain = 0;
    std::map<uint64_t, Family> families;  // by extent address
    std::map<uint64_t, Link> linked;      // by inode number
    Sharing sharing = Sharing::unknown;  // the tallies of one measurement agree; merge() keeps this one's

    bool operator==(const Tally&) const = default;

    void merge(const Tally& other);
    // Own bytes, plus each family and each inode whose every user lies inside the tree.
    int64_t freed() const;
};

// Called once per folder before it is read, with the regular files counted so far.
using Progress = std::function<void(const std::string& folder, int64_t files)>;

struct Options {
    // Ask the file system who uses each shared extent where this process may (Btrfs, as root).
    bool resolveSharing = true;
    Progress progress;
    // When set, a subfolder that cannot be read is handed here and left out, and the rest is
    // measured: what the tree frees is then at least the figure given. Unset, it fails the whole
    // measurement.
    std::function<void(const SystemError&)> unreadable;
};

// Throws the directory reader's SystemError for the folder or for any subfolder that cannot be
// read: a partial tree would understate what deleting the folder frees.
FolderSize measure(const std::string& path, const Options& options = {});
std::pair<FolderSize, Tally> measureWithTally(const std::string& path, const Options& options = {});

}  // namespace TrueSize

}  // namespace dedup
