// The freedesktop.org Trash, through GIO: the home Trash for items on the home folder's disk, else
// the disk's own "$topdir/.Trash/$uid" or "$topdir/.Trash-$uid". Nothing here deletes anything.
#pragma once

#include <cstdint>
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

// The Trash folder an item at `path` would go to now, as GIO chooses it: the home Trash when the
// item lies on the home folder's disk, else the disk's ".Trash/$uid" when the disk offers a sticky
// ".Trash", else its ".Trash-$uid". For telling the user before the move; "" when `path` is gone.
std::string trashFolderFor(const std::string& path);

// Where an item moved to the Trash from `original` lies now, found by its device and inode among
// the items of every Trash that move may have used; "" when none holds it.
std::string findInTrash(const std::string& original, uint64_t device, uint64_t inode);

// Gives the item at `location` (".../files/NAME") its ".trashinfo" record naming `original`, when a
// crash lost it: without one the file manager cannot put the item back. True when it exists now.
bool ensureTrashInfo(const std::string& location, const std::string& original);

// Removes the ".trashinfo" records naming `original` whose item never reached the Trash (a move
// cut short between the record and the rename), so the Trash lists nothing that is not there.
// Returns how many went.
int forgetUnfinishedTrashInfo(const std::string& original, uint64_t device);

}  // namespace dedup::platform
