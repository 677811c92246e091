// What the clone engine's two strategies and its leftover recovery share. Not for other callers.
#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "clone_engine.h"
#include "journal.h"
#include "metadata.h"
#include "platform/file_io.h"
#include "replaceability.h"

namespace dedup {

// Renames `temporaryName` in `folder` to a free, clear name beside the copy `name` ("photo (other
// version).jpg"), never over an existing file, and answers its path. For a version that is not ours
// to remove and not ours to put at the copy's path.
std::string keepBeside(const platform::FileDescriptor& folder, const std::string& folderPath,
                       const std::string& temporaryName, const std::string& name);

// The kept copy of a group, opened once for every copy of the group that follows it in a batch.
// What is learnt of it (its attribute bits, its extent map) is learnt once too.
struct CloneEngine::Kept {
    std::string path;
    platform::FileDescriptor fd;
    FileStatus status;
    int attributeBits = 0;
    bool clonesRead = false;
    std::optional<CloneInfo> clones;  // read on the first copy that needs it
};

// One replacement between its first look and its end. Every file is reached through `folder`, the
// copy's folder opened without following links, so a folder swapped for a link cannot redirect a
// change.
struct CloneEngine::Swapped {
    JournalEntry entry;
    Replacement target;
    std::string temporary;  // empty when the blocks were shared in place: nothing waits for phase two
    std::string temporaryName;
    std::string name;  // the copy's own name in `folder`
    FileStatus original;  // the copy, read on its descriptor at the start
    FileStatus cloneStatus;
    std::optional<FileTimes> folderTimes;
    int64_t freed = 0;
    platform::FileDescriptor folder;
    platform::FileDescriptor held;  // the copy, open for the lease while it is replaced
    std::shared_ptr<Kept> kept;
    platform::FileDescriptor clone;
    Snapshot before;
    // The copy as verified after sharing in place, on its descriptor: what the journal records.
    std::optional<Snapshot> after;
    Attributes attributes;
    bool leases = true;  // the kernel answers whether the copy is open elsewhere
    bool named = false;  // the clone was made under its temporary name (no unnamed files here)
    bool linked = false;  // the clone has its temporary name
    const platform::FileDescriptor& source() const { return kept->fd; }
};

// The list of every process's open files, read only when the kernel cannot answer for one file
// (no lease can be tried on it), and then once per phase of a batch: reading it walks /proc, whose
// cost grows with every process on the machine, not with the work.
struct CloneEngine::OpenList {
    std::optional<OpenFiles> files;
    const OpenFiles& get() {
        if (!files) files = OpenFiles::now();
        return *files;
    }
};

// Replacements that have ended: their closing entries are written to the journal in one go (they
// need no sync: one lost only makes the recovery look at a finished replacement again), then their
// outcomes are reported, in order.
struct CloneEngine::Closings {
    const Done& done;
    std::vector<JournalEntry> entries;
    std::vector<std::pair<Replacement, Outcome>> outcomes;
};

namespace engine {

// A file's metadata read on its open descriptor.
Snapshot snapshotOf(const platform::FileDescriptor& fd, const std::string& path);
// A copy or kept file deleted or moved away since the scan is no failure but a skip.
std::exception_ptr vanishedAsSkip(std::exception_ptr error, const CloneEngine::Replacement& r);
// Every failed call reaches the journal and the caller in a user's words.
std::exception_ptr explained(std::exception_ptr error, const std::string& file);
// The entry closed as skipped or failed with the error's text; none for an undo whose entry must
// stay open for the recovery.
std::optional<JournalEntry> closingOf(JournalEntry entry, std::exception_ptr error);

}  // namespace engine

}  // namespace dedup
