// The freedesktop.org Trash, through GIO: the home Trash for items on the home folder's disk, else
// the disk's own "$topdir/.Trash/$uid" or "$topdir/.Trash-$uid". Nothing here deletes anything.
#pragma once

#include <string>

namespace dedup::platform {

struct TrashMove {
    bool moved = false;
    std::string location;  // where the item now lies in the Trash (moved only)
    std::string reason;    // why it stayed where it was (not moved only)
};

// The home Trash: "$XDG_DATA_HOME/Trash", else "$HOME/.local/share/Trash", as GIO places it.
std::string homeTrashFolder();

// Moves the file or folder (not following a final link) to the Trash of its own disk and finds
// where it went, by its inode. Never throws.
TrashMove moveToTrashOfItsDisk(const std::string& path);

// Puts an item back from the Trash at `original`, which must not exist, and removes its
// ".trashinfo" record. Empty on success, else why it stayed in the Trash. Never throws.
std::string restoreFromTrash(const std::string& location, const std::string& original);

}  // namespace dedup::platform
