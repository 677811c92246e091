// What else keeps a disk's space taken after a reclaim or after deleting a folder: snapshots that
// still hold the old blocks, and deleted files waiting in the Trash.
//
// A plain value; check() blocks while it lists the snapshots and measures the Trash, so callers
// that must stay responsive run it on a background thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace dedup {

struct SpaceHolders {
    std::vector<std::string> snapshots;  // Btrfs snapshots of the file system, in its own order
    int64_t trashBytes = 0;              // allocated to everything in the user's Trash on the volume

    bool operator==(const SpaceHolders&) const = default;

    // For the volume holding `path`. Never fails: whatever cannot be found counts as nothing.
    static SpaceHolders check(const std::string& path);

    // Where deleted files of the volume mounted at `mountPoint` wait: the home Trash when it lies
    // on that volume, else the volume's own Trash folder for this user (which may not exist).
    static std::string trashFolder(const std::string& mountPoint);
};
void to_json(nlohmann::json& j, const SpaceHolders& h);
void from_json(const nlohmann::json& j, SpaceHolders& h);

}  // namespace dedup
