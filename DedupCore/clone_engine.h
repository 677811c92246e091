// Turns an extra copy into a file that shares its blocks with the copy that is kept, without a
// moment at which the copy's path is missing or holds anything but identical bytes.
//
// Two strategies keep one contract (every step journalled before it happens; every failure undone
// or recoverable):
// - in place: the kernel compares both files under its locks and makes the copy use the kept
//   file's blocks (FIDEDUPERANGE); inode, dates, owner, mode, attributes and ACL all stay.
// - clone and swap: a clone of the kept file is made beside the copy under a temporary name, given
//   the copy's metadata, compared byte for byte, and exchanged with the copy in one atomic rename;
//   the replaced copy is removed (or moved to the Trash) only after the whole batch is swapped in.
// In place is the default. Clone and swap is done only when the caller asks for it: it puts another
// file at the copy's path (new inode and birth time), and a program that held the copy open keeps
// writing to the replaced one. A copy that could be shared only that way is left alone, saying so.
//
// A CloneEngine is a plain value configured from the user's settings; one thread runs a batch at a
// time. It does not own the journal. Expected refusals are thrown as Skip, unexpected failures as
// SystemError or VerificationError; `done` receives each exactly once per replacement.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_records.h"
#include "platform/file_io.h"
#include "skip_reason.h"

namespace dedup {

class Journal;
struct JournalEntry;
struct OpenFiles;

// The file at `path` does not have the metadata it must have after a replacement.
struct VerificationError : std::runtime_error {
    VerificationError(std::string path, std::vector<std::string> differs);
    std::string path;
    std::vector<std::string> differs;  // names of the failed checks: "mode", "xattr user.tag", ...
};

// A system call failed during a replacement. The text says first, in a user's words, what could not
// be done, then which Linux call failed and why:
// "/x/a.jpg: the copy could not be exchanged with its clone (renameat2: Invalid argument)".
struct ReplaceError : SystemError {
    // `file` is the copy being replaced, which the text names first; the call's own path stays in `path`.
    ReplaceError(const SystemError& cause, const std::string& file);
    const char* what() const noexcept override { return text.c_str(); }
    std::string text;
};

struct CloneEngine {
    enum class Strategy { automatic, inPlace, cloneAndSwap };  // automatic is in place
    enum class Step { checked, cloned, metadataCopied, compared, swapped, verified };
    enum class Leftover { removed, restored, kept };

    struct Replacement {
        std::string target;  // the copy to be replaced
        std::string source;  // the copy that is kept
        FileStatus expected;  // the target as the scan saw it
        std::optional<std::string> digest;
        // The kept file as the scan saw it; when present, the file opened as the source must be
        // that very version.
        std::optional<FileStatus> keptExpected;
        // What the scan read of the copy's and the kept file's blocks. Used instead of reading the
        // extent maps again to tell a copy that already shares the kept file's blocks and what
        // sharing frees; read afresh where absent. Blocks shared behind the scan's back at worst
        // make a copy be shared again, which changes nothing, and its freed bytes be counted high.
        std::optional<CloneInfo> clones = std::nullopt;
        std::optional<CloneInfo> keptClones = std::nullopt;
        bool operator==(const Replacement&) const = default;
    };

    // Freed bytes on success, else the error.
    struct Outcome {
        int64_t freed = 0;
        std::exception_ptr error;
    };

    bool moveReplacedToTrash = false;
    bool restoreFolderDates = true;
    bool coordinate = false;  // hold a write lease on each copy while it is replaced
    Journal* journal = nullptr;
    Strategy strategy = Strategy::automatic;
    // Called after each step with the temporary path (empty where there is none); an exception it
    // throws is handled exactly like a failure of that step. For tests.
    std::function<void(Step, const std::string&)> fault;

    // One replacement; returns the freed bytes or throws its error.
    int64_t replace(const std::string& target, const std::string& source, const FileStatus& expected,
                    const std::optional<std::string>& digest = std::nullopt);

    // A batch: every copy is swapped in before any replaced copy is removed. `willStart` answering
    // false starts nothing more; `done` is called once for every replacement that was started.
    void replace(const std::vector<Replacement>& batch, const std::function<bool(const Replacement&)>& willStart,
                 const std::function<void(const Replacement&, const Outcome&)>& done);

    // What the recovery of one leftover did. `keptBeside` names where the other of two versions
    // was put when neither could be proven older: both stay, side by side.
    struct Recovered {
        Leftover outcome = Leftover::kept;
        std::optional<std::string> keptBeside;
        // The journal's detail: the outcome's name, and where the other version is when both stay.
        std::string detail() const;
    };

    // Puts right a temporary file left by an interrupted run: renamed back when the copy is gone,
    // removed when the copy is there and identical, kept otherwise.
    static Leftover recoverLeftover(const std::string& path);
    // The same with what the journal knows of the replacement (the copy's identity before it, the
    // clone's once it was made), so that whichever file a program wrote to last is the one left
    // at the copy's path. Nothing is removed unless it is proven to be the engine's own clone or
    // the untouched replaced copy; in doubt both stay, the other beside under a clear name.
    static Recovered recoverLeftover(const JournalEntry& entry);
    static bool isTemporary(const std::string& path);

    // Copies of one group shared in place by one kernel call, at most: each holds a descriptor
    // until the call.
    static constexpr size_t sharedTogether = 16;

private:
    struct Kept;
    struct Swapped;
    struct OpenList;
    struct Closings;
    using Done = std::function<void(const Replacement&, const Outcome&)>;
    // Whether each volume can clone, found out on its first copy that cannot be shared in place;
    // shared by copies of the engine.
    struct Volumes {
        std::mutex mutex;
        std::map<uint64_t, bool> clones;
    };
    // Checks and opens the copy and its kept file (reusing `kept` when it is the same file) and
    // takes the copy's snapshot: everything before the first change.
    Swapped look(const Replacement& replacement, JournalEntry& entry, OpenList& open, std::shared_ptr<Kept>& kept);
    Swapped swapIn(const Replacement& replacement, JournalEntry& entry, OpenList& open, std::shared_ptr<Kept>& kept);
    void undoSwap(Swapped& swapped);
    // Shares a batch in place: copies of one group go to the kernel together. Answers how many
    // replacements were started.
    size_t shareBatch(const std::vector<Replacement>& batch, std::vector<JournalEntry>& announced,
                      const std::function<bool(const Replacement&)>& willStart, Closings& closings);
    void shareTogether(std::vector<Swapped>& copies, Closings& closings);
    void verifyShared(Swapped& swapped, const std::optional<CloneInfo>& keptClones);
    // Closing entries and outcomes are gathered, then written in one go and reported by flush().
    void recordReplaced(Swapped& swapped, Closings& closings);
    void recordFailed(const Replacement& replacement, const JournalEntry& entry, std::exception_ptr error,
                      Closings& closings, bool vanishedIsSkip = true);
    void flush(Closings& closings);
    void swapByClone(Swapped& swapped, JournalEntry& entry, const Replacement& replacement);
    // Clone and swap in two steps: the clone is made (unnamed where the file system allows),
    // compared and given the copy's metadata; then, once the journal holds its identity, it is
    // named and exchanged with the copy.
    void buildClone(Swapped& swapped, JournalEntry& entry, const Replacement& replacement);
    void placeClone(Swapped& swapped, const Replacement& replacement);
    void removeClone(Swapped& swapped);
    // Clone and swap of a batch with one journal sync for all its clones' identities. Answers how
    // many replacements were started; those exchanged wait in `swapped` for their removal.
    size_t cloneBatch(const std::vector<Replacement>& batch, std::vector<JournalEntry>& announced,
                      const std::function<bool(const Replacement&)>& willStart, OpenList& open,
                      Closings& closings, std::vector<Swapped>& swapped);
    void finish(Swapped& swapped, OpenList& open);
    void step(Step step, const std::string& temporary) const;
    bool canClone(Swapped& swapped) const;
    bool openElsewhere(Swapped& swapped, const platform::FileDescriptor& fd, const FileStatus& status,
                       OpenList& open) const;

    std::shared_ptr<Volumes> volumes_ = std::make_shared<Volumes>();
};

std::string_view rawValue(CloneEngine::Step step);
std::string_view rawValue(CloneEngine::Leftover leftover);

}  // namespace dedup
