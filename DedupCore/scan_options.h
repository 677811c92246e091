// The settings of a scan and where they come from: what the walk takes and where it goes
// (ScanOptions), ready-made choices of folders (Profile), a saved set of chosen folders (SourceSet)
// and where the engine keeps its files (Locations). Plain values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace dedup {

struct ScanOptions {
    int64_t minimumSize = 1;  // the walk never takes an empty file, whatever this says
    std::optional<std::set<std::string>> allowedExtensions;  // lower case, no dot; absent: all
    std::vector<std::string> excludedPaths;  // each excludes itself and everything below it
    bool includePackages = false;
    bool includeLibrary = false;     // on Linux: the home folder's ".cache"
    bool includeCloudFiles = false;  // cloud drives are FUSE mounts here: never entered anyway
    std::string homeFolder;

    ScanOptions();
    bool operator==(const ScanOptions&) const = default;

    // What a new user starts with: files of 100 KiB and more.
    static ScanOptions recommended();
    static constexpr int64_t recommendedMinimumSize = 102400;
};

// Decoding requires every key but "allowedExtensions"; a missing one throws nlohmann's error.
void to_json(nlohmann::json& j, const ScanOptions& o);
void from_json(const nlohmann::json& j, ScanOptions& o);

// A suggestion of where duplicates usually are.
struct Profile {
    enum class Kind { developer, photo, home };
    static constexpr Kind allKinds[] = {Kind::developer, Kind::photo, Kind::home};

    Kind kind;
    std::vector<std::string> roots;  // only folders that exist
    ScanOptions options;

    Profile(Kind kind, const std::string& home, const std::vector<std::string>& volumes);

    // Mounted, local, writable volumes other than the root file system that can share blocks, as
    // cloneAbility() finds (once per mount while the process lives): where photo libraries on
    // external disks live, and the disks that can be backup disks.
    static std::vector<std::string> externalCloneVolumes();
};
std::string toString(Profile::Kind kind);

// Whether a file system of this kernel type name is known to share blocks between files. Only a
// guess (XFS formatted without reflink shares nothing; NFS 4.2 and SMB may): cloneAbility() tries.
bool canShareBlocks(const std::string& fileSystem);

// Whether the volume holding `path` can share blocks, found out by making two small files share
// theirs, in `path` (a folder, or a file's folder) or else at the volume's mount point. Where
// nothing there can be written, the file system's name answers and `probed` is false, for the
// caller to say so. Never throws; a path that cannot be found cannot share.
struct CloneAbility {
    bool canShare = false;
    bool probed = false;
    std::string fileSystem;  // the kernel's type name, "" when unknown
};
CloneAbility cloneAbility(const std::string& path);
std::optional<Profile::Kind> profileKind(const std::string& name);

// A named, saved set of chosen folders with their options. On Linux a folder's bookmark is its
// absolute path: nothing grants or revokes access to a folder beyond its permissions.
struct SourceSet {
    std::string name;
    std::vector<std::string> bookmarks;
    ScanOptions options;

    bool operator==(const SourceSet&) const = default;

    static SourceSet make(std::string name, const std::vector<std::string>& folders, ScanOptions options);
    std::vector<std::string> resolve() const;
    // Pretty-printed JSON with sorted keys, written atomically. Throws on failure.
    void save(const std::string& path) const;
    static SourceSet load(const std::string& path);
};
void to_json(nlohmann::json& j, const SourceSet& s);
void from_json(const nlohmann::json& j, SourceSet& s);

// Where the engine keeps its files. Only computes paths; whoever writes creates the folder.
// "DEDUP_DATA_DIR" moves both folders to one place.
namespace Locations {
std::optional<std::string> override();
std::string data();   // $XDG_DATA_HOME/VELMORA.dedup
std::string cache();  // $XDG_CACHE_HOME/VELMORA.dedup
std::string journal();
std::string selection();
std::string backupDisks();
std::string sources();
std::string hashes();
}  // namespace Locations

}  // namespace dedup
