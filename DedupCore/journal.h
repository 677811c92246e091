// The durable, append-only record of everything the engine does to a user's files. A replacement
// is announced ("started") before anything is created on disk and closed by exactly one later
// entry with the same id; an announced replacement that was never closed is put right by
// recoverInterrupted().
//
// The file is JSON Lines: one entry per line, keys sorted, whole-second UTC dates, upper-case
// UUIDs; each line is written with a single write(2) so lines never interleave. A damaged line
// (cut short by a crash, or foreign) is skipped when reading and hides nothing else.
//
// Durability: a "started" entry is on the storage device before append() returns, so that a power
// cut after the engine's first change still finds it; a batch's started entries share one sync.
// Closing entries are not synced: losing one only makes recovery look at a finished replacement
// again, which finds nothing to do.
//
// Several processes may use one journal at once (a reclaim, `dedup auto`, a recovery). Each
// process that starts replacements holds an flock on a lock file of its own in the "running"
// folder beside the journal, and stamps its started entries with that file's name (`owner`). The
// kernel drops the lock when the process dies, so an open entry whose owner's lock can still be
// taken was interrupted, and one whose owner holds it is under way and never touched. Recoveries
// take "recovery.lock" beside the journal, so two of them never work on the same leftover.
//
// Journal owns the path of its file, its process's owner lock and one mutex around each file
// access; any thread may call it. Failures are SystemError (open/read/write/sync) or nlohmann's
// encoding error.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "file_records.h"
#include "platform/file_io.h"

namespace dedup {

// A file's metadata at one moment.
struct Snapshot {
    FileStatus status;
    FileTimes times;
    std::vector<std::string> attributeNames;  // sorted
    std::optional<std::string> acl;

    bool operator==(const Snapshot&) const = default;

    // Throws the first read that fails.
    static Snapshot take(const std::string& path);
};

struct JournalEntry {
    enum class Event { started, replaced, skipped, failed, recovered, trashed };

    std::string id;  // canonical upper-case UUID text
    std::time_t time = 0;  // whole seconds, UTC
    Event event = Event::started;
    std::string target;
    std::optional<std::string> source;
    std::optional<std::string> temporary;
    std::optional<std::string> digest;
    std::optional<Snapshot> before;
    std::optional<Snapshot> after;
    std::optional<int64_t> freedBytes;
    std::optional<std::string> detail;
    // Started entries: the lock file name of the process doing the replacement, while it lives.
    std::optional<std::string> owner;

    bool operator==(const JournalEntry&) const = default;

    // A fresh id and the current time.
    static JournalEntry make(Event event, std::string target);
    // The `detail` of a started entry that moves a copy to the Trash rather than replacing it:
    // such a move is put right by TrashMover::recoverInterrupted, not by Journal::recover.
    static constexpr std::string_view trashMove = "move to the Trash";
    bool isTrashMove() const { return event == Event::started && detail == trashMove; }
    // What the journal list shows: "clone", "left alone: open in another app", "put right", ...
    std::string label() const;
};

std::string_view rawValue(JournalEntry::Event event);
std::optional<JournalEntry::Event> journalEventNamed(std::string_view raw);

// A fresh random UUID in its canonical upper-case text form.
std::string makeUUID();
// "2025-03-01T14:07:55Z"; parsing accepts that form only.
std::string isoDate(std::time_t time);
std::optional<std::time_t> parseIsoDate(const std::string& text);

void to_json(nlohmann::json& j, const Snapshot& s);
void from_json(const nlohmann::json& j, Snapshot& s);
void to_json(nlohmann::json& j, const JournalEntry& e);
void from_json(const nlohmann::json& j, JournalEntry& e);

class Journal {
public:
    enum class Finding { intact, contentChanged, replacedSince, missing };

    // Makes the folder and an empty file when there is none. Throws when the folder cannot be made.
    explicit Journal(std::string path);

    ~Journal();
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    const std::string& path() const { return path_; }

    // A started entry is stamped with this process's owner and synced before this returns.
    void append(const JournalEntry& entry);
    // Several entries in one write and at most one sync: what a batch announces before it acts.
    void append(const std::vector<JournalEntry>& entries);
    std::vector<JournalEntry> entries() const;
    // "started" entries that no other entry with the same id closes and whose process is gone, in
    // file order.
    std::vector<JournalEntry> interrupted() const;
    // Open "started" entries whose process is alive: replacements under way elsewhere right now.
    std::vector<JournalEntry> underway() const;

    struct Recovery {
        std::vector<JournalEntry> recovered;  // the "recovered" entries written, in order
        // Interrupted entries whose leftover could not be put right, with the error's text. They
        // stay open, so the next recovery tries them again.
        std::vector<std::pair<JournalEntry, std::string>> stuck;
        size_t underway = 0;  // left alone: a live process is doing them
    };
    // Puts every interrupted replacement right with `recoverLeftover` (given the temporary path,
    // answers the outcome's name: "removed", "restored", "kept") and journals a "recovered" entry
    // for each. Moves to the Trash are left to TrashMover::recoverInterrupted. One leftover that cannot be put right is reported and passed over; an entry that
    // cannot be written stops it (with the error) as nothing could then be recorded.
    Recovery recover(const std::function<std::string(const std::string&)>& recoverLeftover);
    std::vector<JournalEntry> recoverInterrupted(const std::function<std::string(const std::string&)>& recoverLeftover) {
        return recover(recoverLeftover).recovered;
    }
    // One finding per "replaced" entry, in file order. Throws when a file cannot be hashed.
    std::vector<std::pair<JournalEntry, Finding>> verify() const;

    // Blocks until no other process or thread recovers; released when the result is destroyed.
    // recover() takes it; whoever puts right leftovers found outside the journal takes it too.
    std::shared_ptr<void> lockRecovery() const;

private:
    std::string runningFolder() const;
    std::string ownerName();
    // Open started entries, split by whether their process is alive.
    void openEntries(std::vector<JournalEntry>* gone, std::vector<JournalEntry>* alive) const;

    std::string path_;
    mutable std::mutex lock_;
    std::mutex ownerMutex_;
    std::string owner_;  // empty until this process first starts a replacement
    platform::FileDescriptor ownerLock_;
};

// "as reclaimed", "changed since", "another file now", "gone".
std::string_view label(Journal::Finding finding);

}  // namespace dedup
