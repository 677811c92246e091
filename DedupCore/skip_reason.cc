#include "skip_reason.h"

#include <array>
#include <utility>

namespace dedup {

namespace {
constexpr std::array<std::pair<std::string_view, std::string_view>, 20> table = {{
    {"notARegularFile", "not a regular file"},
    {"differentVolume", "on another disk"},
    {"unreadable", "could not be read"},
    {"hardLinked", "has more than one name (hard link)"},
    {"locked", "locked"},
    {"appendOnly", "may only grow"},
    {"onlyInCloud", "only in the cloud"},
    {"notOwned", "belongs to another user"},
    {"deleteDenied", "protected against deletion"},
    {"folderNotWritable", "in a folder that cannot be changed"},
    {"alreadyShared", "already a clone"},
    {"inUse", "open in another app"},
    {"changedSinceScan", "changed since the scan"},
    {"contentDiffers", "no longer identical"},
    {"changedDuringReplace", "written to while being replaced"},
    {"coordinationTimedOut", "another app did not let go"},
    {"volumeCannotClone", "the disk cannot make clones"},
    // Linux has no download mark; what the process cannot set is a security label.
    {"quarantineCannotBeKept", "the system would give it another security label"},
    // chattr +C: Btrfs never lets such a file share blocks with another.
    {"noCopyOnWrite", "marked never to share its blocks (chattr +C)"},
    // The disk clones but cannot share blocks in place; exchanging files is done only when asked for.
    {"cloneAndSwapNotAsked", "the disk can share blocks only by exchanging files, which must be asked for"},
}};
}  // namespace

std::string_view rawValue(SkipReason reason) { return table[static_cast<size_t>(reason)].first; }
std::string_view phrase(SkipReason reason) { return table[static_cast<size_t>(reason)].second; }

std::optional<SkipReason> skipReasonNamed(std::string_view raw) {
    for (size_t i = 0; i < table.size(); ++i) {
        if (table[i].first == raw) return static_cast<SkipReason>(i);
    }
    return std::nullopt;
}

}  // namespace dedup
