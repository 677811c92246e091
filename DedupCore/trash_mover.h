// Moves one of two identical copies to the Trash of its own disk, after checking both again byte
// for byte, and puts it back on request. The copy is never deleted: it waits in the Trash until
// the user empties it, and the journal says where it went, which copy was kept and its digest.
//
// Plain calls on the caller's thread; the Journal is shared and guards itself. Nothing throws for
// an expected refusal (the copies differ, the Trash refuses): the outcome says why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "file_records.h"
#include "journal.h"

namespace dedup {

// Two copies compared entry by entry and byte by byte.
struct CopyComparison {
    bool identical = false;
    std::vector<std::string> changes;  // what differs, for a person; empty when identical
    std::string digest;                // of the kept copy: content digest, or tree digest of a folder
    int64_t bytes = 0;                 // content bytes of the copy
    // Every entry of both copies as it was read, to see that nothing moved during the comparison.
    std::vector<std::pair<std::string, FileStatus>> seen;

    // Compares `copy` with `kept`: files by size and bytes, folders by their entries' names and
    // kinds all the way down (an entry added or removed is a change), links by their target text.
    static CopyComparison of(const std::string& copy, const std::string& kept);
};

struct TrashOutcome {
    enum class Result { moved, changed, refused };
    Result result = Result::refused;
    std::vector<std::string> changes;  // changed: what is no longer identical
    std::string reason;                // refused: why the copy stays where it is
    std::string location;              // moved: where it lies in the Trash ("" when not found)
    std::string digest;
    int64_t bytes = 0;
    std::string journalId;
};

struct RestoreOutcome {
    bool restored = false;
    std::string reason;  // when not restored
    std::string target;  // the path it went back to
};

// A move to the Trash that was cut short (the process killed, the power gone) between announcing
// it and recording where the copy went, as the next recovery found it.
struct TrashRecovery {
    enum class Found {
        inPlace,  // the copy never left: it stays, and a Trash record left half-made is removed
        inTrash,  // the copy reached the Trash: the move is recorded, so restore can take it back
        nowhere,  // neither at its place nor in a Trash of its disk (moved or emptied since)
    };
    JournalEntry started;
    Found found = Found::nowhere;
    std::string location;  // inTrash: where it lies
    // For a person: what became of the copy.
    std::string describe() const;
};

namespace TrashMover {
// Moves `copy` to the Trash once both it and `kept` have been checked again. Paths are absolute.
TrashOutcome moveCopy(const std::string& copy, const std::string& kept, Journal& journal);

// The Trash folder `path` would go to now (its disk's, or the home Trash), to tell the user before
// the move; "" when `path` is gone.
std::string trashFolderFor(const std::string& path);

// Finds every move to the Trash whose process died before it was recorded, and closes it in the
// journal as it stands: still in place ("recovered"), or in the Trash ("trashed", with its place
// there and a ".trashinfo" written again if the crash lost it). Moves of processes still alive are
// left to them. Takes the journal's recovery lock.
std::vector<TrashRecovery> recoverInterrupted(Journal& journal);

// Puts back the copy a "trashed" entry moved, named by the entry's id or by the path it had (the
// latest such move). Records a "recovered" entry with the same id. A move cut short is found first
// (recoverInterrupted), so a copy the crash left in the Trash comes back too.
RestoreOutcome restore(Journal& journal, const std::string& idOrPath);
}  // namespace TrashMover

}  // namespace dedup
