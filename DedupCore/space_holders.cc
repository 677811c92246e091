#include "space_holders.h"

#include <algorithm>
#include <optional>

#include <nlohmann/json.hpp>

#include "directory_reader.h"
#include "file_records.h"
#include "path_text.h"
#include "platform/space.h"
#include "platform/system.h"
#include "true_size.h"

namespace dedup {

void to_json(nlohmann::json& j, const SpaceHolders& h) {
    j = {{"snapshots", pathTexts(h.snapshots)}, {"trashBytes", h.trashBytes}};
}

void from_json(const nlohmann::json& j, SpaceHolders& h) {
    h.snapshots = pathsFromTexts(j.at("snapshots").get<std::vector<std::string>>());
    j.at("trashBytes").get_to(h.trashBytes);
}

namespace {

std::optional<FileStatus> statusOf(const std::string& path) {
    try {
        return FileStatus::read(path);
    } catch (const SystemError&) {
        return std::nullopt;
    }
}

// The device a path lies on, or would lie on once made: that of its nearest existing folder.
std::optional<FileStatus> statusOfNearest(std::string path) {
    for (;;) {
        if (auto status = statusOf(path)) return status;
        auto slash = path.find_last_of('/');
        if (slash == std::string::npos || path == "/") return std::nullopt;
        path = slash == 0 ? "/" : path.substr(0, slash);
    }
}

bool isNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// snapper keeps snapshot N at "<mount>/.snapshots/N/snapshot"; read this way when the file system
// refuses to list its subvolumes to this user.
std::vector<std::string> snapperSnapshots(const std::string& mountPoint) {
    std::string folder = (mountPoint == "/" ? "" : mountPoint) + "/.snapshots";
    std::vector<std::pair<uint64_t, std::string>> numbered;
    try {
        for (const auto& entry : DirectoryReader::read(folder)) {
            std::string snapshot = folder + "/" + entry.name + "/snapshot";
            if (entry.status.isDirectory() && isNumber(entry.name) && entry.name.size() < 19 &&
                platform::pathExists(snapshot)) {
                numbered.emplace_back(std::stoull(entry.name), snapshot);
            }
        }
    } catch (const SystemError&) {
    }
    std::sort(numbered.begin(), numbered.end());
    std::vector<std::string> result;
    for (auto& [number, path] : numbered) result.push_back(std::move(path));
    return result;
}

}  // namespace

std::string SpaceHolders::trashFolder(const std::string& mountPoint) {
    std::string home = platform::homeTrash();
    auto homeStatus = statusOfNearest(home);
    auto volumeStatus = statusOf(mountPoint);
    if ((homeStatus && volumeStatus && homeStatus->device == volumeStatus->device) || (!homeStatus && !volumeStatus)) {
        return home;
    }
    auto candidates = platform::volumeTrashes(mountPoint);
    for (const auto& candidate : candidates) {
        if (platform::pathExists(candidate)) return candidate;
    }
    return candidates.back();
}

SpaceHolders SpaceHolders::check(const std::string& path) {
    SpaceHolders holders;
    auto volume = VolumeInfo::of(path);
    if (!volume) return holders;
    if (volume->fileSystem == "btrfs") {
        auto listed = platform::btrfsSnapshots(volume->mountPoint);
        holders.snapshots = listed ? std::move(*listed) : snapperSnapshots(volume->mountPoint);
    }
    try {
        // How much the Trash holds on to, not what emptying it would free: that needs no look-up
        // of who else shares its blocks.
        TrueSize::Options options;
        options.resolveSharing = false;
        holders.trashBytes = TrueSize::measure(trashFolder(volume->mountPoint), options).allocated;
    } catch (const std::exception&) {
        holders.trashBytes = 0;
    }
    return holders;
}

}  // namespace dedup
