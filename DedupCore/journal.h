// The durable, append-only record of everything the engine does to a user's files. A replacement
// is announced ("started") before anything is created on disk and closed by exactly one later
// entry with the same id; an announced replacement that was never closed is put right by
// recoverInterrupted().
//
// The file is JSON Lines: one entry per line, keys sorted, whole-second UTC dates, upper-case
// UUIDs; each line is written with a single write(2) so lines never interleave. A damaged line
// (cut short by a crash, or foreign) is skipped when reading and hides nothing else.
//
// Journal owns the path of its file and one lock around each file access; any thread may call it.
// Failures are SystemError (open/read/write) or nlohmann's encoding error.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "file_records.h"

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

    bool operator==(const JournalEntry&) const = default;

    // A fresh id and the current time.
    static JournalEntry make(Event event, std::string target);
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

    const std::string& path() const { return path_; }

    void append(const JournalEntry& entry);
    std::vector<JournalEntry> entries() const;
    // "started" entries that no other entry with the same id closes, in file order.
    std::vector<JournalEntry> interrupted() const;
    // Puts every interrupted replacement right with `recoverLeftover` (given the temporary path,
    // answers the outcome's name: "removed", "restored", "kept") and journals a "recovered" entry
    // for each. Stops at the first error, keeping what was recorded before it.
    std::vector<JournalEntry> recoverInterrupted(const std::function<std::string(const std::string&)>& recoverLeftover);
    // One finding per "replaced" entry, in file order. Throws when a file cannot be hashed.
    std::vector<std::pair<JournalEntry, Finding>> verify() const;

private:
    std::string path_;
    mutable std::mutex lock_;
};

// "as reclaimed", "changed since", "another file now", "gone".
std::string_view label(Journal::Finding finding);

}  // namespace dedup
