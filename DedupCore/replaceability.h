// Whether a copy may be touched at all. Every refusal is a SkipReason, journalled and shown to the
// user in one phrase; the file is left exactly as it was. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_set>

#include "file_records.h"
#include "skip_reason.h"
#include "walk.h"

namespace dedup {

// The reason no later check can cure, or none: not a regular file, hard-linked, immutable,
// append-only, another user's, or in a folder this process may not change.
std::optional<SkipReason> neverReplaceable(const std::string& path, const FileStatus& status);

// The fuller test made right before a replacement; throws Skip with the first reason that applies.
// A failure to read the source's status propagates as SystemError.
void checkReplaceable(const std::string& target, const FileStatus& targetStatus, const std::string& folder,
                      const std::string& source, const FileStatus& expected);

// A snapshot of the files other processes hold open, have mapped, or use as working or root folder.
// Processes that cannot be inspected contribute nothing.
struct OpenFiles {
    std::unordered_set<InodeKey, InodeKeyHash> files;

    static OpenFiles now();
    bool contains(const FileStatus& status) const { return files.contains({status.device, status.inode}); }
};

// Whether a photo carries edits of a photo catalog, in a sidecar beside it or in its own packet.
struct XMPStatus {
    std::optional<std::string> sidecar;
    bool hasEdits = false;

    bool belongsToACatalog() const { return sidecar.has_value() || hasEdits; }
    static XMPStatus inspect(const std::string& path);
    static bool hasEmbeddedEdits(const std::string& path);
};

}  // namespace dedup
