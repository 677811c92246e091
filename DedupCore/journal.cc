#include "journal.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

#include "hasher.h"
#include "metadata.h"
#include "path_names.h"
#include "platform/file_io.h"
#include "platform/lock.h"
#include "path_text.h"
#include "platform/metadata.h"
#include "platform/system.h"
#include "skip_reason.h"
#include "temporary_name.h"

namespace dedup {

namespace {

constexpr std::array<std::string_view, 6> eventNames = {"started", "replaced", "skipped",
                                                        "failed",  "recovered", "trashed"};

// The journal's strings escape the solidus, as JSON writers commonly do; nlohmann does not. A
// solidus can only stand inside a string of the dumped text, and none of nlohmann's own escapes
// contains one, so every byte 0x2F is a character of some string.
std::string escapeSolidus(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size() + static_cast<size_t>(std::count(text.begin(), text.end(), '/')));
    for (char c : text) {
        if (c == '/') escaped += '\\';
        escaped += c;
    }
    return escaped;
}

bool isHexDigit(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The canonical upper-case form of a UUID's text; absent when the text is no UUID.
std::optional<std::string> canonicalUUID(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::string result(text);
    for (size_t i = 0; i < result.size(); ++i) {
        bool hyphen = i == 8 || i == 13 || i == 18 || i == 23;
        if (hyphen ? result[i] != '-' : !isHexDigit(result[i])) return std::nullopt;
        result[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(result[i])));
    }
    return result;
}

template <typename T>
void readOptional(const nlohmann::json& j, const char* key, std::optional<T>& field) {
    field.reset();
    if (auto it = j.find(key); it != j.end() && !it->is_null()) field = it->get<T>();
}

template <typename T>
void writeOptional(nlohmann::json& j, const char* key, const std::optional<T>& field) {
    if (field) j[key] = *field;
}

// Paths, attribute names and error texts (which name paths) are bytes that need not be UTF-8;
// they are written in the form of path_text.h, so every name comes back exactly.
void writeText(nlohmann::json& j, const char* key, const std::optional<std::string>& field) {
    if (field) j[key] = pathText(*field);
}

void readText(const nlohmann::json& j, const char* key, std::optional<std::string>& field) {
    readOptional(j, key, field);
    if (field) field = pathFromText(*field);
}

}  // namespace

Snapshot Snapshot::take(const std::string& path) {
    Snapshot snapshot;
    snapshot.status = FileStatus::read(path);
    snapshot.times = FileTimes::read(path);
    snapshot.attributeNames = XAttr::names(path);
    std::sort(snapshot.attributeNames.begin(), snapshot.attributeNames.end());
    snapshot.acl = ACL::text(path);
    return snapshot;
}

JournalEntry JournalEntry::make(Event event, std::string target) {
    JournalEntry entry;
    entry.id = makeUUID();
    entry.time = std::time(nullptr);
    entry.event = event;
    entry.target = std::move(target);
    return entry;
}

std::string JournalEntry::label() const {
    switch (event) {
        case Event::started: return "started";
        case Event::replaced: return "clone";
        case Event::skipped: {
            std::string explanation = detail.value_or("");
            if (auto reason = skipReasonNamed(explanation)) explanation = phrase(*reason);
            return "left alone: " + explanation;
        }
        case Event::failed: return "failed";
        case Event::recovered: return "put right";
        case Event::trashed: return "to the Trash";
    }
    return "";
}

std::string_view rawValue(JournalEntry::Event event) { return eventNames[static_cast<size_t>(event)]; }

std::optional<JournalEntry::Event> journalEventNamed(std::string_view raw) {
    for (size_t i = 0; i < eventNames.size(); ++i) {
        if (eventNames[i] == raw) return static_cast<JournalEntry::Event>(i);
    }
    return std::nullopt;
}

std::string makeUUID() {
    std::array<std::byte, 16> bytes;
    platform::randomBytes(bytes);
    bytes[6] = (bytes[6] & std::byte{0x0F}) | std::byte{0x40};  // version 4: random
    bytes[8] = (bytes[8] & std::byte{0x3F}) | std::byte{0x80};  // the RFC 4122 variant
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        auto value = std::to_integer<unsigned>(bytes[i]);
        text += digits[value >> 4];
        text += digits[value & 0xF];
    }
    return text;
}

std::string isoDate(std::time_t time) {
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(text, length);
}

std::optional<std::time_t> parseIsoDate(const std::string& text) {
    static constexpr std::string_view shape = "0000-00-00T00:00:00Z";
    if (text.size() != shape.size()) return std::nullopt;
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (shape[i] == '0' ? !digit : text[i] != shape[i]) return std::nullopt;
    }
    auto number = [&](size_t at, size_t length) { return std::stoi(text.substr(at, length)); };
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(5, 2) - 1;
    parts.tm_mday = number(8, 2);
    parts.tm_hour = number(11, 2);
    parts.tm_min = number(14, 2);
    parts.tm_sec = number(17, 2);
    std::tm wanted = parts;
    std::time_t time = timegm(&parts);
    // timegm rolls 31 April over into May; a date that does not come back unchanged was no date.
    if (parts.tm_year != wanted.tm_year || parts.tm_mon != wanted.tm_mon || parts.tm_mday != wanted.tm_mday ||
        parts.tm_hour != wanted.tm_hour || parts.tm_min != wanted.tm_min || parts.tm_sec != wanted.tm_sec) {
        return std::nullopt;
    }
    return time;
}

void to_json(nlohmann::json& j, const Snapshot& s) {
    j = {{"status", s.status}, {"times", s.times}, {"attributeNames", pathTexts(s.attributeNames)}};
    writeText(j, "acl", s.acl);
}

void from_json(const nlohmann::json& j, Snapshot& s) {
    j.at("status").get_to(s.status);
    j.at("times").get_to(s.times);
    s.attributeNames = pathsFromTexts(j.at("attributeNames").get<std::vector<std::string>>());
    readText(j, "acl", s.acl);
}

void to_json(nlohmann::json& j, const JournalEntry& e) {
    j = {{"id", e.id}, {"time", isoDate(e.time)}, {"event", rawValue(e.event)}, {"target", pathText(e.target)}};
    writeText(j, "source", e.source);
    writeText(j, "temporary", e.temporary);
    writeOptional(j, "digest", e.digest);
    writeOptional(j, "before", e.before);
    writeOptional(j, "after", e.after);
    writeOptional(j, "freedBytes", e.freedBytes);
    writeText(j, "detail", e.detail);
    writeOptional(j, "owner", e.owner);
}

void from_json(const nlohmann::json& j, JournalEntry& e) {
    auto id = canonicalUUID(j.at("id").get<std::string>());
    if (!id) throw std::invalid_argument("journal entry: id is no UUID");
    auto time = parseIsoDate(j.at("time").get<std::string>());
    if (!time) throw std::invalid_argument("journal entry: time is no whole-second UTC date");
    auto event = journalEventNamed(j.at("event").get<std::string>());
    if (!event) throw std::invalid_argument("journal entry: unknown event");
    auto freed = j.find("freedBytes");
    if (freed != j.end() && !freed->is_null() && !freed->is_number_integer()) {
        throw std::invalid_argument("journal entry: freedBytes is no integer");
    }
    e.id = *id;
    e.time = *time;
    e.event = *event;
    e.target = pathFromText(j.at("target").get<std::string>());
    readText(j, "source", e.source);
    readText(j, "temporary", e.temporary);
    readOptional(j, "digest", e.digest);
    readOptional(j, "before", e.before);
    readOptional(j, "after", e.after);
    readOptional(j, "freedBytes", e.freedBytes);
    readText(j, "detail", e.detail);
    readOptional(j, "owner", e.owner);
}

Journal::Journal(std::string path) : path_(std::move(path)) {
    std::string folder = std::filesystem::path(path_).parent_path().string();
    if (folder.empty()) folder = ".";
    bool folderExisted = platform::pathExists(folder);
    platform::makeDirectories(folder);
    bool existed = platform::pathExists(path_);
    try {
        platform::appendToFile(path_, "");
        // A new file's name lives in its folder: without syncing the folder a power cut could take
        // the whole journal with it, however well its lines were synced.
        if (!existed) {
            platform::syncFolder(folder);
            if (!folderExisted) platform::syncFolder(std::filesystem::path(folder).parent_path().string());
        }
    } catch (const SystemError&) {
        // The first append or read reports it, where the caller can tell what was being done.
    }
}

Journal::~Journal() {
    // Going away in order: nothing of ours is under way any more, so the lock file has done its job.
    // (After a crash the next recovery removes it instead.)
    std::error_code ignored;
    if (ownerLock_) std::filesystem::remove(runningFolder() + "/" + owner_ + ".lock", ignored);
}

std::string Journal::runningFolder() const { return parentOf(path_) + "/running"; }

std::string Journal::ownerName() {
    std::lock_guard guard(ownerMutex_);
    if (!ownerLock_) {
        std::string name = makeUUID();
        platform::makeDirectories(runningFolder());
        // Held before any entry names it, so no recovery can ever find it free while we live.
        ownerLock_ = platform::createHeldLock(runningFolder() + "/" + name + ".lock");
        owner_ = name;
    }
    return owner_;
}

void Journal::append(const JournalEntry& entry) { append(std::vector<JournalEntry>{entry}); }

void Journal::append(const std::vector<JournalEntry>& entries) {
    if (entries.empty()) return;
    bool starts = std::any_of(entries.begin(), entries.end(),
                              [](const JournalEntry& e) { return e.event == JournalEntry::Event::started; });
    std::string owner = starts ? ownerName() : std::string();
    // Encoded before the lock: an entry that cannot be written never holds up the others.
    std::string lines;
    for (const auto& entry : entries) {
        if (entry.event == JournalEntry::Event::started && !entry.owner) {
            JournalEntry stamped = entry;
            stamped.owner = owner;
            lines += escapeSolidus(nlohmann::json(stamped).dump()) + "\n";
        } else {
            lines += escapeSolidus(nlohmann::json(entry).dump()) + "\n";
        }
    }
    std::lock_guard guard(lock_);
    // A started entry announces a change on disk: it must outlive a power cut that the change does.
    platform::appendToFile(path_, lines, starts);
}

std::vector<JournalEntry> Journal::entries() const {
    std::string content;
    {
        std::lock_guard guard(lock_);
        content = platform::readWholeFile(path_);
    }
    std::vector<JournalEntry> result;
    size_t start = 0;
    while (start < content.size()) {
        size_t end = content.find('\n', start);
        if (end == std::string::npos) end = content.size();
        std::string_view line(content.data() + start, end - start);
        start = end + 1;
        if (line.empty()) continue;
        // A line that does not decode (cut short by a crash, written by someone else) is passed
        // over in silence, so that it never hides the rest of the journal.
        auto json = nlohmann::json::parse(line, nullptr, false);
        if (json.is_discarded()) continue;
        try {
            result.push_back(json.get<JournalEntry>());
        } catch (const std::exception&) {
        }
    }
    return result;
}

void Journal::openEntries(std::vector<JournalEntry>* gone, std::vector<JournalEntry>* alive) const {
    std::vector<JournalEntry> all = entries();
    std::set<std::string> closed;
    for (const auto& entry : all) {
        if (entry.event != JournalEntry::Event::started) closed.insert(entry.id);
    }
    // A replacement may be announced again with more of what it knows (the clone's identity, once
    // the clone has one): the last announcement counts.
    std::map<std::string, size_t> latest;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i].event == JournalEntry::Event::started) latest[all[i].id] = i;
    }
    std::map<std::string, bool> living;  // owner -> its lock is held
    for (size_t i = 0; i < all.size(); ++i) {
        auto& entry = all[i];
        if (entry.event != JournalEntry::Event::started || closed.contains(entry.id) || latest[entry.id] != i) {
            continue;
        }
        bool live = false;
        // An entry without an owner was written before owners were recorded: nobody can be doing it.
        if (entry.owner) {
            auto known = living.find(*entry.owner);
            if (known == living.end()) {
                // Only a name we gave can name a lock file: anything else must not reach outside.
                bool ours = isUUIDText(*entry.owner);
                auto state = ours ? platform::probeLock(runningFolder() + "/" + *entry.owner + ".lock")
                                  : platform::LockState::absent;
                known = living.emplace(*entry.owner, state == platform::LockState::held).first;
            }
            live = known->second;
        }
        auto* into = live ? alive : gone;
        if (into) into->push_back(std::move(entry));
    }
}

std::vector<JournalEntry> Journal::interrupted() const {
    std::vector<JournalEntry> gone;
    openEntries(&gone, nullptr);
    return gone;
}

std::vector<JournalEntry> Journal::underway() const {
    std::vector<JournalEntry> alive;
    openEntries(nullptr, &alive);
    return alive;
}

std::shared_ptr<void> Journal::lockRecovery() const {
    auto held = std::make_shared<platform::FileDescriptor>(
        platform::waitForLock(parentOf(path_) + "/recovery.lock"));
    return held;
}

Journal::Recovery Journal::recover(const std::function<std::string(const std::string&)>& recoverLeftover) {
    // Read only once no other recovery runs: what it put right is closed by then, never done twice.
    auto held = lockRecovery();
    Recovery result;
    std::vector<JournalEntry> gone, alive;
    openEntries(&gone, &alive);
    result.underway = alive.size();
    for (const auto& entry : gone) {
        // Closing it here would lose where the copy went: the Trash's own recovery finds it.
        if (entry.isTrashMove()) continue;
        JournalEntry closing = entry;
        closing.time = std::time(nullptr);
        closing.event = JournalEntry::Event::recovered;
        try {
            if (entry.temporary && platform::pathResolves(*entry.temporary)) {
                closing.detail = recoverLeftover(*entry.temporary);
            } else {
                closing.detail = "nothing left over";
            }
        } catch (const std::exception& error) {
            // One leftover that cannot be put right (a folder made read-only, a disk gone) must not
            // hold up every later reclaim: it stays open and is tried again next time.
            result.stuck.emplace_back(entry, error.what());
            continue;
        }
        // Same id as the started entry: once written, the operation is no longer interrupted.
        append(closing);
        result.recovered.push_back(std::move(closing));
    }
    // The lock files of processes that died: a free lock names nobody alive, and a missing one
    // reads just the same, so removing them changes no answer.
    std::error_code error;
    for (const auto& item : std::filesystem::directory_iterator(runningFolder(), error)) {
        std::string name = item.path().filename().string();
        if (name.ends_with(".lock") && isUUIDText(name.substr(0, name.size() - 5))) {
            platform::removeFreeLock(item.path().string());
        }
    }
    return result;
}

std::vector<std::pair<JournalEntry, Journal::Finding>> Journal::verify() const {
    std::vector<std::pair<JournalEntry, Finding>> findings;
    for (auto& entry : entries()) {
        if (entry.event != JournalEntry::Event::replaced) continue;
        Finding finding;
        std::optional<FileStatus> status;
        try {
            status = FileStatus::read(entry.target);
        } catch (const SystemError&) {
        }
        if (!status) {
            finding = Finding::missing;
        } else if (!entry.after || status->inode != entry.after->status.inode) {
            finding = Finding::replacedSince;
        } else if (!entry.digest) {
            // Nothing to compare with: the file cannot be shown to be as it was.
            finding = Finding::contentChanged;
        } else {
            std::string digest = digestText(ContentHash::sha256(entry.target, ContentHash::fullLimit));
            finding = digest == *entry.digest ? Finding::intact : Finding::contentChanged;
        }
        findings.emplace_back(std::move(entry), finding);
    }
    return findings;
}

std::string_view label(Journal::Finding finding) {
    switch (finding) {
        case Journal::Finding::intact: return "as reclaimed";
        case Journal::Finding::contentChanged: return "changed since";
        case Journal::Finding::replacedSince: return "another file now";
        case Journal::Finding::missing: return "gone";
    }
    return "";
}

}  // namespace dedup
