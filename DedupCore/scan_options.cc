#include "scan_options.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>

#include <nlohmann/json.hpp>

#include "file_records.h"
#include "path_names.h"
#include "path_text.h"
#include "platform/clone_probe.h"
#include "platform/file_io.h"
#include "platform/system.h"

namespace dedup {

ScanOptions::ScanOptions() : homeFolder(platform::homeDirectory()) {}

ScanOptions ScanOptions::recommended() {
    ScanOptions options;
    options.minimumSize = recommendedMinimumSize;
    return options;
}

// Paths are written in the escaped form of path_text.h: a folder whose name is not UTF-8 would
// otherwise make the whole file unwritable.
void to_json(nlohmann::json& j, const ScanOptions& o) {
    j = {{"minimumSize", o.minimumSize},         {"excludedPaths", pathTexts(o.excludedPaths)},
         {"includePackages", o.includePackages}, {"includeLibrary", o.includeLibrary},
         {"includeCloudFiles", o.includeCloudFiles}, {"homeFolder", pathText(o.homeFolder)}};
    if (o.allowedExtensions) j["allowedExtensions"] = *o.allowedExtensions;
}

void from_json(const nlohmann::json& j, ScanOptions& o) {
    j.at("minimumSize").get_to(o.minimumSize);
    o.allowedExtensions.reset();
    if (auto it = j.find("allowedExtensions"); it != j.end() && !it->is_null()) {
        o.allowedExtensions = it->get<std::set<std::string>>();
    }
    o.excludedPaths = pathsFromTexts(j.at("excludedPaths").get<std::vector<std::string>>());
    j.at("includePackages").get_to(o.includePackages);
    j.at("includeLibrary").get_to(o.includeLibrary);
    j.at("includeCloudFiles").get_to(o.includeCloudFiles);
    o.homeFolder = pathFromText(j.at("homeFolder").get<std::string>());
}

std::string toString(Profile::Kind kind) {
    switch (kind) {
        case Profile::Kind::developer: return "developer";
        case Profile::Kind::photo: return "photo";
        case Profile::Kind::home: return "home";
    }
    return "";
}

std::optional<Profile::Kind> profileKind(const std::string& name) {
    for (auto kind : Profile::allKinds) {
        if (toString(kind) == name) return kind;
    }
    return std::nullopt;
}

Profile::Profile(Kind kind_, const std::string& home, const std::vector<std::string>& volumes) : kind(kind_) {
    std::vector<std::string> candidates;
    switch (kind) {
        // The cache folder is named as a root of its own: a root is always entered, while the
        // walk's rule keeps it out of a scan of the home folder.
        case Kind::developer: candidates = {home, home + "/.cache"}; break;
        case Kind::photo:
            candidates = {home + "/Pictures"};
            candidates.insert(candidates.end(), volumes.begin(), volumes.end());
            break;
        case Kind::home: candidates = {home}; break;
    }
    for (auto& candidate : candidates) {
        if (platform::pathExists(candidate)) roots.push_back(candidate);
    }
    options.minimumSize = ScanOptions::recommendedMinimumSize;
    options.includePackages = kind == Kind::photo;
    options.homeFolder = home;
}

namespace {

// The backup-disk watcher asks every 30 seconds: each mount is tried once. A mount is the same one
// while its point, device, type and file system identifier stay; another disk plugged in where
// one was gets tried anew.
bool sharesBlocks(const platform::Mount& mount) {
    using Key = std::tuple<std::string, uint64_t, std::string, std::string>;
    static std::mutex mutex;
    static std::map<Key, bool> known;
    Key key{mount.mountPoint, mount.device, mount.fileSystem,
            platform::volumeIdentifier(mount.mountPoint, false).value_or("")};
    {
        std::lock_guard lock(mutex);
        if (auto it = known.find(key); it != known.end()) return it->second;
    }
    bool shares = cloneAbility(mount.mountPoint).canShare;
    std::lock_guard lock(mutex);
    known[key] = shares;
    return shares;
}

}  // namespace

bool canShareBlocks(const std::string& fileSystem) {
    static const std::set<std::string> cloning = {"btrfs", "xfs", "bcachefs", "ocfs2", "zfs"};
    return cloning.contains(fileSystem);
}

CloneAbility cloneAbility(const std::string& path) {
    CloneAbility ability;
    auto volume = VolumeInfo::of(path);
    if (!volume) return ability;
    ability.fileSystem = volume->fileSystem;
    std::string folder = path;
    try {
        if (!FileStatus::read(path).isDirectory()) folder = parentOf(path);
    } catch (const SystemError&) {
        return ability;
    }
    for (const auto& place : {folder, volume->mountPoint}) {
        // Only a place on the same volume says anything about it.
        auto there = VolumeInfo::of(place);
        if (!there || there->mountPoint != volume->mountPoint) continue;
        if (auto works = platform::cloneWorksIn(place)) {
            ability.canShare = *works;
            ability.probed = true;
            return ability;
        }
    }
    ability.canShare = canShareBlocks(volume->fileSystem);
    return ability;
}

std::vector<std::string> Profile::externalCloneVolumes() {
    auto mounts = platform::mounts();
    // Other subvolumes of the root file system (a Btrfs /home, say) are the system disk too.
    std::string rootSource;
    for (const auto& mount : mounts) {
        if (mount.mountPoint == "/") rootSource = mount.source;
    }
    std::vector<std::string> result;
    std::set<std::pair<std::string, uint64_t>> seen;  // a volume mounted twice is offered once
    for (const auto& mount : mounts) {
        if (mount.mountPoint == "/" || mount.readOnly) continue;
        if (!mount.source.starts_with("/dev/") || mount.source == rootSource) continue;  // local disks only
        if (!seen.insert({mount.source, mount.device}).second) continue;
        if (!sharesBlocks(mount)) continue;
        result.push_back(mount.mountPoint);
    }
    return result;
}

SourceSet SourceSet::make(std::string name, const std::vector<std::string>& folders, ScanOptions options) {
    return SourceSet{std::move(name), folders, std::move(options)};
}

std::vector<std::string> SourceSet::resolve() const { return bookmarks; }

void to_json(nlohmann::json& j, const SourceSet& s) {
    j = {{"name", s.name}, {"bookmarks", pathTexts(s.bookmarks)}, {"options", s.options}};
}
void from_json(const nlohmann::json& j, SourceSet& s) {
    j.at("name").get_to(s.name);
    s.bookmarks = pathsFromTexts(j.at("bookmarks").get<std::vector<std::string>>());
    j.at("options").get_to(s.options);
}

void SourceSet::save(const std::string& path) const {
    // nlohmann's object keeps its keys sorted, so the file is stable from one save to the next.
    platform::writeFileAtomically(path, nlohmann::json(*this).dump(2) + "\n");
}

SourceSet SourceSet::load(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw SystemError("open", path, errno);
    return nlohmann::json::parse(in).get<SourceSet>();
}

namespace Locations {

namespace {
std::string xdgFolder(const char* variable, const char* fallback) {
    if (const char* value = std::getenv(variable); value && value[0] == '/') return value;
    return platform::homeDirectory() + fallback;
}
}  // namespace

std::optional<std::string> override() {
    if (const char* value = std::getenv("DEDUP_DATA_DIR"); value && *value) return std::string(value);
    return std::nullopt;
}

std::string data() {
    if (auto o = override()) return *o;
    return xdgFolder("XDG_DATA_HOME", "/.local/share") + "/VELMORA.dedup";
}

std::string cache() {
    if (auto o = override()) return *o;
    return xdgFolder("XDG_CACHE_HOME", "/.cache") + "/VELMORA.dedup";
}

std::string journal() { return data() + "/journal.jsonl"; }
std::string selection() { return data() + "/selection.json"; }
std::string backupDisks() { return data() + "/backup-disks.json"; }
std::string sources() { return data() + "/sources.json"; }
std::string hashes() { return cache() + "/hashes.sqlite"; }

}  // namespace Locations

}  // namespace dedup
