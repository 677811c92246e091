#include "hash_cache.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "hasher.h"
#include "platform/file_io.h"
#include "platform/system.h"
#include "scan_options.h"

namespace dedup {

namespace {
constexpr int operationsPerTransaction = 512;
// A database locked by another process is waited for briefly; past that the cache steps aside for
// a while rather than slowing every file of the scan.
constexpr int busyTimeoutMs = 200;
constexpr int writesSkippedWhenLocked = 2048;
// Writes made together, in the order of their records. A scan's stores come in the order the files
// were read, and the facts of blocks and the whole-file digests of copies land on records all over
// the table: made one by one in transactions of a few hundred, they wrote the same pages to the
// log again and again (a hundred thousand page writes for a tree of a hundred thousand files).
constexpr size_t writesTogether = 512;
}  // namespace

const char* columnName(HashCache::Kind kind) { return kind == HashCache::Kind::partial ? "partial" : "full"; }

HashCache::HashCache(const std::string& path, std::string journal)
    : path_(path), journal_(journal.empty() ? Locations::journal() : std::move(journal)) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    // Every use of the connection holds lock_, so SQLite's own lock around each call, a dozen of
    // them per record read, would only be paid for twice.
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(db_);
        db_ = nullptr;
        throw Error("open " + path);
    }
    sqlite3_busy_timeout(db_, busyTimeoutMs);
    if (sqlite3_exec(db_, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::string message = sqlite3_errmsg(db_);
        sqlite3_close(db_);
        db_ = nullptr;
        throw Error(message);
    }
    // A lost transaction costs only a re-read; an fsync per commit would cost far more.
    sqlite3_exec(db_, "PRAGMA synchronous = NORMAL;", nullptr, nullptr, nullptr);
    // Closing would fold the write-ahead log into the database and wait for the disk twice, which
    // a scan that changed a few records pays in full. The log stays valid beside the database and
    // is folded in when it grows large, by whichever scan writes then.
    sqlite3_db_config(db_, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    addMissingColumns();
    keepInKeyOrder();
}

// A database made before the facts of blocks were kept gets their columns; its records have none
// yet, which reads as "not known".
void HashCache::addMissingColumns() {
    std::vector<std::string> present;
    sqlite3_stmt* info = nullptr;
    if (sqlite3_prepare_v2(db_, "PRAGMA table_info(hashes)", -1, &info, nullptr) == SQLITE_OK) {
        while (sqlite3_step(info) == SQLITE_ROW) {
            if (const auto* name = sqlite3_column_text(info, 1)) present.emplace_back(reinterpret_cast<const char*>(name));
        }
    }
    sqlite3_finalize(info);
    for (const char* column : {"blocks_stamp", "clone_kind", "private_size", "clone_id", "clone_refs"}) {
        if (std::find(present.begin(), present.end(), column) != present.end()) continue;
        std::string sql = std::string("ALTER TABLE hashes ADD COLUMN ") + column + " INTEGER";
        // Another process may add it at the same moment; what matters is that it is there.
        sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr);
    }
}

// Records kept in key order (volume, inode) are read in one pass over a volume's records, each
// step a record; a table with a separate key index costs a second search per record on top, and
// the index's own copy of every key.
void HashCache::keepInKeyOrder() {
    std::string made;
    sqlite3_stmt* info = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT sql FROM sqlite_master WHERE type = 'table' AND name = 'hashes'", -1, &info,
                           nullptr) == SQLITE_OK &&
        sqlite3_step(info) == SQLITE_ROW) {
        if (const auto* text = sqlite3_column_text(info, 0)) made = reinterpret_cast<const char*>(text);
    }
    sqlite3_finalize(info);
    if (made.empty() || made.find("WITHOUT ROWID") != std::string::npos) return;
    std::string create(schema);
    create.erase(0, create.find("CREATE TABLE"));
    create.replace(create.find("hashes ("), 6, "hashes_keyed");
    const std::string columns =
        "volume, inode, path, size, mtime, mtime_ns, ctime, ctime_ns, partial, full, blocks_stamp, clone_kind, "
        "private_size, clone_id, clone_refs";
    // One transaction: another process sees the old table or the new one, never neither.
    const std::string move = "BEGIN IMMEDIATE;" + create + "INSERT INTO hashes_keyed (" + columns + ") SELECT " +
                             columns + " FROM hashes; DROP TABLE hashes; ALTER TABLE hashes_keyed RENAME TO hashes; COMMIT;";
    if (sqlite3_exec(db_, move.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        sqlite3_exec(db_, "ROLLBACK;", nullptr, nullptr, nullptr);
    }
}

HashCache::~HashCache() {
    {
        std::lock_guard guard(lock_);
        writePending();
        commit();
        for (auto& [text, statement] : statements_) sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
}

std::vector<std::vector<HashCache::Value>> HashCache::query(const std::string& sql,
                                                            const std::vector<Value>& parameters) {
    std::vector<std::vector<Value>> rows;
    // The same few statements run for every file: preparing them once spares most of the cost.
    sqlite3_stmt* statement = prepared(sql);
    if (!statement) return rows;
    for (size_t i = 0; i < parameters.size(); ++i) {
        int index = static_cast<int>(i + 1);
        if (auto* n = std::get_if<int64_t>(&parameters[i])) {
            sqlite3_bind_int64(statement, index, *n);
        } else if (auto* s = std::get_if<std::string>(&parameters[i])) {
            sqlite3_bind_text(statement, index, s->c_str(), -1, SQLITE_TRANSIENT);
        } else {
            sqlite3_bind_null(statement, index);
        }
    }
    while ((lastStep_ = sqlite3_step(statement)) == SQLITE_ROW) {
        int columns = sqlite3_column_count(statement);
        std::vector<Value> row;
        row.reserve(static_cast<size_t>(columns));
        for (int c = 0; c < columns; ++c) {
            switch (sqlite3_column_type(statement, c)) {
                case SQLITE_INTEGER: row.emplace_back(static_cast<int64_t>(sqlite3_column_int64(statement, c))); break;
                case SQLITE_TEXT:
                    row.emplace_back(std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, c))));
                    break;
                default: row.emplace_back(std::monostate{}); break;
            }
        }
        rows.push_back(std::move(row));
    }
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    return rows;
}

std::optional<std::string> HashCache::volumeOf(uint64_t device, const std::string& path) {
    // The answer is kept per device even when there is none: asking again for every file of a
    // volume without an identifier would cost more than the scan.
    if (auto it = volumes_.find(device); it != volumes_.end()) return it->second;
    auto volume = platform::volumeIdentifier(path, true);
    // A file that went away since it was listed says nothing about its disk: the next file asks
    // again, or the cache would be off for the whole disk.
    if (volume || platform::pathExists(path)) volumes_[device] = volume;
    return volume;
}

// Lookups and stores run inside transactions of a few hundred operations: outside one, SQLite
// takes and drops its file locks around every single statement, which costs more than the lookup.
void HashCache::begin() {
    if (inTransaction_) return;
    inTransaction_ = sqlite3_exec(db_, "BEGIN;", nullptr, nullptr, nullptr) == SQLITE_OK;
}

void HashCache::counted() {
    if (++pendingOperations_ >= operationsPerTransaction) commit();
}

void HashCache::commit() {
    if (!inTransaction_) return;
    if (sqlite3_exec(db_, "COMMIT;", nullptr, nullptr, nullptr) != SQLITE_OK) {
        sqlite3_exec(db_, "ROLLBACK;", nullptr, nullptr, nullptr);
    }
    inTransaction_ = false;
    pendingOperations_ = 0;
}

void HashCache::flush() {
    std::lock_guard guard(lock_);
    writePending();
    commit();
}

namespace {

// The columns every lookup reads, after the inode: the version a record was made for, both digests
// and the facts of blocks. A record serves a file only while the file has exactly that size and
// those times.
constexpr const char* recordColumns =
    "size, mtime, mtime_ns, ctime, ctime_ns, partial, full, blocks_stamp, clone_kind, private_size, clone_id, "
    "clone_refs";

// What a Record holds. A digest whose text is not the usual 64 hexadecimal characters is not kept
// in memory: `odd` sends its lookup back to the database.
constexpr uint8_t recordFound = 1, versioned = 2, hasPartial = 4, hasFull = 8, oddPartial = 16, oddFull = 32,
                  hasStamp = 64, hasCloneKind = 128;

// The value of each lower-case hexadecimal digit; 16 for any other character. A table, as two
// digests of every remembered record go through it.
constexpr std::array<unsigned char, 256> hexValues = [] {
    std::array<unsigned char, 256> values{};
    values.fill(16);
    for (int c = 0; c < 10; ++c) values['0' + c] = static_cast<unsigned char>(c);
    for (int c = 0; c < 6; ++c) values['a' + c] = static_cast<unsigned char>(10 + c);
    return values;
}();

bool fromHex(sqlite3_stmt* row, int column, std::array<unsigned char, 32>& bytes) {
    const auto* text = sqlite3_column_text(row, column);
    if (!text || sqlite3_column_bytes(row, column) != 64) return false;
    unsigned char invalid = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        unsigned char high = hexValues[text[2 * i]], low = hexValues[text[2 * i + 1]];
        invalid |= (high | low) & 16;
        bytes[i] = static_cast<unsigned char>(high << 4 | (low & 15));
    }
    return invalid == 0;
}

bool isInteger(sqlite3_stmt* row, int column) { return sqlite3_column_type(row, column) == SQLITE_INTEGER; }

// A row of `SELECT inode, recordColumns`.
HashCache::Record decoded(sqlite3_stmt* row) {
    HashCache::Record r;
    r.inode = sqlite3_column_int64(row, 0);
    r.facts = recordFound | versioned;
    for (int i = 0; i < 5; ++i) {
        if (!isInteger(row, 1 + i)) r.facts &= static_cast<uint8_t>(~versioned);
        r.version[i] = sqlite3_column_int64(row, 1 + i);
    }
    if (fromHex(row, 6, r.partial)) {
        r.facts |= hasPartial;
    } else if (sqlite3_column_type(row, 6) != SQLITE_NULL) {
        r.facts |= oddPartial;
    }
    if (fromHex(row, 7, r.full)) {
        r.facts |= hasFull;
    } else if (sqlite3_column_type(row, 7) != SQLITE_NULL) {
        r.facts |= oddFull;
    }
    if (isInteger(row, 8)) {
        r.facts |= hasStamp;
        r.blocksStamp = sqlite3_column_int64(row, 8);
    }
    if (isInteger(row, 9)) {
        r.facts |= hasCloneKind;
        r.cloneKind = static_cast<uint8_t>(sqlite3_column_int64(row, 9));
        r.privateSize = sqlite3_column_int64(row, 10);
        r.cloneID = static_cast<uint64_t>(sqlite3_column_int64(row, 11));
        r.references = static_cast<uint32_t>(sqlite3_column_int64(row, 12));
    }
    return r;
}

// Whether the record was made for this version of the file.
bool sameVersion(const HashCache::Record& r, const FileStatus& s) {
    return (r.facts & recordFound) && (r.facts & versioned) && r.version[0] == s.size &&
           r.version[1] == s.modified.seconds && r.version[2] == s.modified.nanoseconds &&
           r.version[3] == s.changed.seconds && r.version[4] == s.changed.nanoseconds;
}

// The record of `inode` among `records` (in inode order), searched from `at` on: the files of one
// lookup come in inode order too. A search, not a step per record, as many lookups ask about a
// few files each.
const HashCache::Record* seek(const std::vector<HashCache::Record>& records, size_t& at, int64_t inode) {
    auto it = std::lower_bound(records.begin() + static_cast<ptrdiff_t>(at), records.end(), inode,
                               [](const HashCache::Record& r, int64_t wanted) { return r.inode < wanted; });
    at = static_cast<size_t>(it - records.begin());
    return it != records.end() && it->inode == inode ? &*it : nullptr;
}

// Below this many files of one volume, one search per file; from there on, one pass in inode order
// over the records, which costs a step per record instead of a search per file.
constexpr size_t filesForOnePass = 64;

}  // namespace

sqlite3_stmt* HashCache::prepared(const std::string& sql) {
    sqlite3_stmt*& statement = statements_[sql];
    if (!statement && sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
                          SQLITE_OK) {
        statement = nullptr;
    }
    return statement;
}

std::optional<std::string> HashCache::lookUp(const std::string& volume, Kind kind, const FileStatus& status) {
    static const std::string sql = "SELECT partial, full FROM hashes WHERE volume = ? AND inode = ? AND size = ? AND "
                                   "mtime = ? AND mtime_ns = ? AND ctime = ? AND ctime_ns = ?";
    sqlite3_stmt* statement = prepared(sql);
    if (!statement) return std::nullopt;
    sqlite3_bind_text(statement, 1, volume.c_str(), static_cast<int>(volume.size()), SQLITE_STATIC);
    const int64_t key[6] = {static_cast<int64_t>(status.inode), status.size, status.modified.seconds,
                            status.modified.nanoseconds, status.changed.seconds, status.changed.nanoseconds};
    for (int i = 0; i < 6; ++i) sqlite3_bind_int64(statement, 2 + i, key[i]);
    std::optional<std::string> digest;
    const int column = kind == Kind::full ? 1 : 0;
    if (sqlite3_step(statement) == SQLITE_ROW) {
        if (const auto* text = sqlite3_column_text(statement, column)) {
            digest.emplace(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(statement, column)));
        }
    }
    sqlite3_reset(statement);
    return digest;
}

std::optional<std::string> HashCache::digest(Kind kind, const ScannedFile& file) {
    std::lock_guard guard(lock_);
    auto volume = volumeOf(file.status.device, file.path);
    if (!volume) return std::nullopt;
    writePending();
    begin();
    counted();
    return lookUp(*volume, kind, file.status);
}

template <typename Found>
void HashCache::eachRecord(const std::string& volume, const std::vector<int64_t>& inodes, const std::string& columns,
                           Found found) {
    size_t next = 0;
    sqlite3_stmt* pass = nullptr;
    if (inodes.size() >= filesForOnePass) {
        pass = prepared("SELECT inode, " + columns + " FROM hashes WHERE volume = ? AND inode BETWEEN ? AND ? ORDER BY inode");
    }
    if (pass) {
        sqlite3_bind_text(pass, 1, volume.c_str(), static_cast<int>(volume.size()), SQLITE_STATIC);
        sqlite3_bind_int64(pass, 2, inodes.front());
        sqlite3_bind_int64(pass, 3, inodes.back());
        // Records of files not asked about cost a step each; past a few times the files asked,
        // searching for the rest one by one is cheaper.
        size_t budget = 4 * inodes.size() + 1024;
        bool exhausted = false;
        for (size_t rows = 0; next < inodes.size() && rows < budget; ++rows) {
            if (sqlite3_step(pass) != SQLITE_ROW) {
                exhausted = true;
                break;
            }
            int64_t recorded = sqlite3_column_int64(pass, 0);
            while (next < inodes.size() && inodes[next] < recorded) ++next;
            for (; next < inodes.size() && inodes[next] == recorded; ++next) found(next, pass);
        }
        sqlite3_reset(pass);
        // The pass saw every record in the range: the files not met have none.
        if (exhausted) return;
    }
    sqlite3_stmt* one = prepared("SELECT inode, " + columns + " FROM hashes WHERE volume = ? AND inode = ?");
    if (!one) return;
    for (; next < inodes.size(); ++next) {
        sqlite3_bind_text(one, 1, volume.c_str(), static_cast<int>(volume.size()), SQLITE_STATIC);
        sqlite3_bind_int64(one, 2, inodes[next]);
        if (sqlite3_step(one) == SQLITE_ROW) found(next, one);
        sqlite3_reset(one);
    }
}

template <typename InodeOf, typename Answer>
void HashCache::eachKept(const std::string& volume, std::vector<size_t>& asked, InodeOf inodeOf, Answer answer) {
    std::stable_sort(asked.begin(), asked.end(), [&](size_t a, size_t b) { return inodeOf(a) < inodeOf(b); });
    std::vector<size_t> unknown;
    if (const auto* records = remembered(volume)) {
        size_t at = 0;
        for (size_t i : asked) {
            if (const Record* r = seek(*records, at, inodeOf(i))) {
                answer(i, *r);
            } else {
                unknown.push_back(i);
            }
        }
    } else {
        unknown = std::move(asked);
    }
    std::vector<int64_t> inodes;
    inodes.reserve(unknown.size());
    for (size_t i : unknown) inodes.push_back(inodeOf(i));
    eachRecord(volume, inodes, recordColumns, [&](size_t k, sqlite3_stmt* row) { answer(unknown[k], decoded(row)); });
}

std::vector<HashCache::Record>* HashCache::remembered(const std::string& volume) {
    auto it = remembered_.find(volume);
    return it == remembered_.end() ? nullptr : &it->second;
}

void HashCache::remember(const std::vector<const ScannedFile*>& files) {
    std::lock_guard guard(lock_);
    std::map<std::string, std::vector<int64_t>> byVolume;
    for (const ScannedFile* file : files) {
        if (auto volume = volumeOf(file->status.device, file->path)) {
            byVolume[*volume].push_back(static_cast<int64_t>(file->status.inode));
        }
    }
    if (byVolume.empty()) return;
    // What is remembered is read from the database: writes still waiting must be in it first.
    writePending();
    begin();
    counted();
    for (auto& [volume, inodes] : byVolume) {
        std::sort(inodes.begin(), inodes.end());
        inodes.erase(std::unique(inodes.begin(), inodes.end()), inodes.end());
        // Only the records found: a first scan, which finds none, holds nothing more than before,
        // and a file not among them is asked of the database as before. They come in inode order.
        std::vector<Record> records;
        eachRecord(volume, inodes, recordColumns, [&](size_t, sqlite3_stmt* row) { records.push_back(decoded(row)); });
        records.shrink_to_fit();
        remembered_[volume] = std::move(records);
    }
}

void HashCache::readAhead(std::stop_token stop) const {
    // Beyond this much the database would push out of memory what the scan reads itself.
    constexpr int64_t atMost = int64_t{256} << 20;
    // The kernel reads ahead at most a few megabytes per request, whatever length it is given.
    constexpr int64_t step = int64_t{2} << 20;
    for (const std::string& file : {path_, path_ + "-wal"}) {
        try {
            platform::FileDescriptor fd = platform::openForReading(file);
            const int64_t size = std::min(atMost, FileStatus::read(file).size);
            for (int64_t offset = 0; offset < size && !stop.stop_requested(); offset += step) {
                platform::readAhead(fd, offset, step);
            }
        } catch (const SystemError&) {
        }
    }
}

void HashCache::forgetRemembered() {
    std::lock_guard guard(lock_);
    remembered_.clear();
}

std::vector<std::optional<std::string>> HashCache::digests(const std::vector<Lookup>& lookups) {
    std::vector<std::optional<std::string>> result(lookups.size());
    std::lock_guard guard(lock_);
    std::map<std::string, std::vector<size_t>> byVolume;
    for (size_t i = 0; i < lookups.size(); ++i) {
        const ScannedFile& file = *lookups[i].file;
        if (auto volume = volumeOf(file.status.device, file.path)) byVolume[*volume].push_back(i);
    }
    if (byVolume.empty()) return result;
    writePending();
    begin();
    counted();
    auto inode = [&](size_t i) { return static_cast<int64_t>(lookups[i].file->status.inode); };
    auto answer = [&](size_t i, const Record& r, const std::string& volume) {
        const Lookup& lookup = lookups[i];
        if (!sameVersion(r, lookup.file->status)) return;
        const bool full = lookup.kind == Kind::full;
        if (r.facts & (full ? hasFull : hasPartial)) {
            result[i] = digestText(full ? r.full : r.partial);
        } else if (r.facts & (full ? oddFull : oddPartial)) {
            result[i] = lookUp(volume, lookup.kind, lookup.file->status);
        }
    };
    for (auto& [volume, asked] : byVolume) {
        eachKept(volume, asked, inode, [&](size_t i, const Record& r) { answer(i, r, volume); });
    }
    return result;
}

namespace {

// clone_kind: 0, the file system could not tell; otherwise bit 0 set, and the two flags above it.
constexpr int64_t cloneKnown = 1, cloneInline = 2, cloneNoBlocks = 4;

// The first eight parameters of every write: which file, where it was, and which version of it.
void bindRecord(sqlite3_stmt* statement, const std::string& volume, const std::string& path, const FileStatus& s) {
    sqlite3_bind_text(statement, 1, volume.c_str(), static_cast<int>(volume.size()), SQLITE_STATIC);
    sqlite3_bind_int64(statement, 2, static_cast<int64_t>(s.inode));
    sqlite3_bind_text(statement, 3, path.c_str(), static_cast<int>(path.size()), SQLITE_STATIC);
    const int64_t version[5] = {s.size, s.modified.seconds, s.modified.nanoseconds, s.changed.seconds,
                                s.changed.nanoseconds};
    for (int i = 0; i < 5; ++i) sqlite3_bind_int64(statement, 4 + i, version[i]);
}

}  // namespace

int64_t HashCache::replacementStamp() const {
    // Every write to the journal moves its size or its change time; a journal made anew gets
    // another inode. No journal at all is a stamp of its own.
    try {
        FileStatus journal = FileStatus::read(journal_);
        uint64_t mixed = journal.inode * 0x9E3779B97F4A7C15ull;
        for (int64_t part : {journal.size, journal.changed.seconds, journal.changed.nanoseconds,
                             journal.modified.seconds, journal.modified.nanoseconds}) {
            mixed = (mixed ^ static_cast<uint64_t>(part)) * 0xBF58476D1CE4E5B9ull;
            mixed ^= mixed >> 29;
        }
        return static_cast<int64_t>(mixed | 1);
    } catch (const SystemError&) {
        return 0;
    }
}

std::vector<std::optional<HashCache::Blocks>> HashCache::blocks(const std::vector<const ScannedFile*>& files,
                                                                int64_t stamp) {
    std::vector<std::optional<Blocks>> result(files.size());
    std::lock_guard guard(lock_);
    std::map<std::string, std::vector<size_t>> byVolume;
    for (size_t i = 0; i < files.size(); ++i) {
        if (auto volume = volumeOf(files[i]->status.device, files[i]->path)) byVolume[*volume].push_back(i);
    }
    if (byVolume.empty()) return result;
    writePending();
    begin();
    counted();
    auto inode = [&](size_t i) { return static_cast<int64_t>(files[i]->status.inode); };
    auto answer = [&](size_t i, const Record& r) {
        if (!sameVersion(r, files[i]->status)) return;
        if (!(r.facts & hasStamp) || r.blocksStamp != stamp || !(r.facts & hasCloneKind)) return;
        Blocks known;
        if (r.cloneKind & cloneKnown) {
            CloneInfo clones;
            clones.privateSize = r.privateSize;
            clones.cloneID = r.cloneID;
            clones.references = r.references;
            clones.inlineData = (r.cloneKind & cloneInline) != 0;
            clones.noBlocks = (r.cloneKind & cloneNoBlocks) != 0;
            known.clones = clones;
        }
        result[i] = std::move(known);
    };
    for (auto& [volume, asked] : byVolume) eachKept(volume, asked, inode, answer);
    return result;
}

void HashCache::storeBlocks(const ScannedFile& file, const Blocks& blocks, int64_t stamp) {
    std::lock_guard guard(lock_);
    auto volume = writableVolume(file);
    if (!volume) return;
    queue({PendingWrite::What::blocks, file.path, file.status, {}, blocks, stamp});
}

void HashCache::forgetBlocks(const std::vector<ScannedFile>& files) {
    std::lock_guard guard(lock_);
    // What was remembered of these files' blocks is no longer true either.
    remembered_.clear();
    writePending();
    sqlite3_stmt* statement = prepared("UPDATE hashes SET blocks_stamp = NULL WHERE volume = ? AND inode = ?");
    if (!statement) return;
    begin();
    for (const auto& file : files) {
        auto volume = volumeOf(file.status.device, file.path);
        if (!volume) continue;
        sqlite3_bind_text(statement, 1, volume->c_str(), static_cast<int>(volume->size()), SQLITE_STATIC);
        sqlite3_bind_int64(statement, 2, static_cast<int64_t>(file.status.inode));
        sqlite3_step(statement);
        sqlite3_reset(statement);
        counted();
    }
    // Forgetting must not wait for a later commit: whoever asked is about to change the blocks.
    commit();
}

void HashCache::store(const std::string& digest, Kind kind, const ScannedFile& file) {
    std::lock_guard guard(lock_);
    auto volume = writableVolume(file);
    if (!volume) return;
    queue({kind == Kind::full ? PendingWrite::What::full : PendingWrite::What::partial, file.path, file.status, digest,
           {}, 0});
}

void HashCache::queue(PendingWrite write) {
    if (pending_.empty()) pending_.reserve(writesTogether);
    pending_.push_back(std::move(write));
    if (pending_.size() >= writesTogether) writePending();
}

void HashCache::writePending() {
    if (pending_.empty()) return;
    // Stable: two writes of one file are made in the order they were asked for.
    std::stable_sort(pending_.begin(), pending_.end(), [](const PendingWrite& a, const PendingWrite& b) {
        if (a.status.device != b.status.device) return a.status.device < b.status.device;
        return a.status.inode < b.status.inode;
    });
    begin();
    for (size_t k = 0; k < pending_.size(); ++k) {
        // Only files whose device has an identifier were queued, and the answer is kept.
        auto volume = volumes_.find(pending_[k].status.device);
        if (volume == volumes_.end() || !volume->second) continue;
        writeNow(*volume->second, pending_[k]);
        if (skipWrites_ > 0) {
            // Another process holds the database: what is left of the batch counts as left out.
            skipWrites_ = std::max(0, skipWrites_ - static_cast<int>(pending_.size() - k - 1));
            break;
        }
    }
    // Given back, not kept: between batches the memory serves the scan.
    pending_ = {};
    commit();
}

void HashCache::writeNow(const std::string& volume, const PendingWrite& pending) {
    if (pending.what == PendingWrite::What::blocks) {
        // Digests of an older version of the file go with it, as for a digest below.
        static const std::string sameAsStored =
            "size = excluded.size AND mtime = excluded.mtime AND mtime_ns = excluded.mtime_ns AND "
            "ctime = excluded.ctime AND ctime_ns = excluded.ctime_ns";
        static const std::string sql =
            "INSERT INTO hashes (volume, inode, path, size, mtime, mtime_ns, ctime, ctime_ns, blocks_stamp, clone_kind, "
            "private_size, clone_id, clone_refs) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) "
            "ON CONFLICT (volume, inode) DO UPDATE SET partial = CASE WHEN " + sameAsStored + " THEN partial END, "
            "full = CASE WHEN " + sameAsStored + " THEN full END, path = excluded.path, size = excluded.size, "
            "mtime = excluded.mtime, mtime_ns = excluded.mtime_ns, ctime = excluded.ctime, ctime_ns = excluded.ctime_ns, "
            "blocks_stamp = excluded.blocks_stamp, clone_kind = excluded.clone_kind, private_size = excluded.private_size, "
            "clone_id = excluded.clone_id, clone_refs = excluded.clone_refs";
        sqlite3_stmt* statement = prepared(sql);
        if (!statement) return;
        bindRecord(statement, volume, pending.path, pending.status);
        sqlite3_bind_int64(statement, 9, pending.stamp);
        const auto& c = pending.blocks.clones;
        int64_t kind = c ? cloneKnown | (c->inlineData ? cloneInline : 0) | (c->noBlocks ? cloneNoBlocks : 0) : 0;
        sqlite3_bind_int64(statement, 10, kind);
        sqlite3_bind_int64(statement, 11, c ? c->privateSize : 0);
        sqlite3_bind_int64(statement, 12, c ? static_cast<int64_t>(c->cloneID) : 0);
        sqlite3_bind_int64(statement, 13, c ? c->references : 0);
        write(statement);
        return;
    }
    // One statement whether the record is new, of the same version or of an older one. A record of
    // an older version keeps nothing of it: its digest of the other kind is dropped with it.
    auto upsert = [](Kind kind) {
        std::string own = columnName(kind);
        std::string other = columnName(kind == Kind::full ? Kind::partial : Kind::full);
        return "INSERT INTO hashes (volume, inode, path, size, mtime, mtime_ns, ctime, ctime_ns, " + own +
               ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (volume, inode) DO UPDATE SET " + other +
               " = CASE WHEN size = excluded.size AND mtime = excluded.mtime AND mtime_ns = excluded.mtime_ns AND "
               "ctime = excluded.ctime AND ctime_ns = excluded.ctime_ns THEN " + other + " END, "
               "blocks_stamp = CASE WHEN size = excluded.size AND mtime = excluded.mtime AND mtime_ns = excluded.mtime_ns "
               "AND ctime = excluded.ctime AND ctime_ns = excluded.ctime_ns THEN blocks_stamp END, " + own +
               " = excluded." + own +
               ", path = excluded.path, size = excluded.size, mtime = excluded.mtime, mtime_ns = excluded.mtime_ns, "
               "ctime = excluded.ctime, ctime_ns = excluded.ctime_ns";
    };
    static const std::string sql[2] = {upsert(Kind::partial), upsert(Kind::full)};
    sqlite3_stmt* statement = prepared(sql[pending.what == PendingWrite::What::full ? 1 : 0]);
    if (!statement) return;
    bindRecord(statement, volume, pending.path, pending.status);
    sqlite3_bind_text(statement, 9, pending.digest.c_str(), static_cast<int>(pending.digest.size()), SQLITE_STATIC);
    write(statement);
}

std::optional<std::string> HashCache::writableVolume(const ScannedFile& file) {
    if (skipWrites_ > 0) {
        --skipWrites_;
        return std::nullopt;
    }
    return volumeOf(file.status.device, file.path);
}

void HashCache::write(sqlite3_stmt* statement) {
    lastStep_ = sqlite3_step(statement);
    sqlite3_reset(statement);
    // A write refused because another process holds the database: leave the cache alone for a while
    // rather than wait on every file.
    if (sqlite3_get_autocommit(db_) && inTransaction_) {
        inTransaction_ = false;
        pendingOperations_ = 0;
    }
    if ((lastStep_ & 0xFF) == SQLITE_BUSY || (lastStep_ & 0xFF) == SQLITE_LOCKED) {
        commit();
        skipWrites_ = writesSkippedWhenLocked;
    }
}

void HashCache::prune(const std::vector<std::string>& roots, const std::vector<ScannedFile>& seen) {
    std::lock_guard guard(lock_);
    writePending();
    if (roots.empty()) return;
    // Sorted inode numbers per volume: a few bytes a file, where a hash set costs a node each.
    std::map<std::string, std::vector<int64_t>> seenInodes;
    for (const auto& file : seen) {
        if (auto volume = volumeOf(file.status.device, file.path)) {
            seenInodes[*volume].push_back(static_cast<int64_t>(file.status.inode));
        }
    }
    for (auto& [volume, inodes] : seenInodes) std::sort(inodes.begin(), inodes.end());
    for (const auto& root : roots) {
        FileStatus status;
        try {
            status = FileStatus::read(root);
        } catch (const SystemError&) {
            continue;
        }
        auto volume = volumeOf(status.device, root);
        if (!volume) continue;
        // Usually every record of the volume belongs to a file just seen: the index alone tells,
        // and the paths of the few others are read one by one. When many others turn up (records
        // of files outside the roots), one pass over the paths of all is cheaper.
        // substr counts characters and the length counts bytes: under a root with non-ASCII
        // characters only the root itself is pruned. Records kept too long cost nothing but space.
        const auto& kept = seenInodes[*volume];
        auto isKept = [&](int64_t inode) { return std::binary_search(kept.begin(), kept.end(), inode); };
        constexpr size_t searchedAtMost = 1024;
        std::vector<int64_t> unseen;
        bool many = false;
        if (sqlite3_stmt* all = prepared("SELECT inode FROM hashes WHERE volume = ?")) {
            sqlite3_bind_text(all, 1, volume->c_str(), static_cast<int>(volume->size()), SQLITE_STATIC);
            while (!many && sqlite3_step(all) == SQLITE_ROW) {
                int64_t inode = sqlite3_column_int64(all, 0);
                if (!isKept(inode)) unseen.push_back(inode);
                many = unseen.size() > searchedAtMost;
            }
            sqlite3_reset(all);
        }
        std::string prefix = root.ends_with('/') ? root : root + "/";
        const std::string underRoot = "(path = ? OR substr(path, 1, ?) = ?)";
        // The scan does not see every file under its roots: its size floor, its extensions and
        // its excluded folders leave some out. Such a file is still there, under the name its
        // record gives, and its digest will serve the next scan that takes it. Asked as each
        // record comes, so that only the inodes to delete are held, not a path per record.
        std::vector<int64_t> gone;
        auto keepUnlessVanished = [&](int64_t inode, const unsigned char* recordedPath) {
            try {
                FileStatus now = FileStatus::read(recordedPath ? reinterpret_cast<const char*>(recordedPath) : "");
                if (now.device == status.device && static_cast<int64_t>(now.inode) == inode) return;
            } catch (const SystemError&) {
            }
            gone.push_back(inode);
        };
        if (!many) {
            if (sqlite3_stmt* one = prepared("SELECT path FROM hashes WHERE volume = ? AND inode = ? AND " + underRoot)) {
                sqlite3_bind_text(one, 1, volume->c_str(), static_cast<int>(volume->size()), SQLITE_STATIC);
                sqlite3_bind_text(one, 3, root.c_str(), static_cast<int>(root.size()), SQLITE_STATIC);
                sqlite3_bind_int64(one, 4, static_cast<int64_t>(prefix.size()));
                sqlite3_bind_text(one, 5, prefix.c_str(), static_cast<int>(prefix.size()), SQLITE_STATIC);
                for (int64_t inode : unseen) {
                    sqlite3_bind_int64(one, 2, inode);
                    if (sqlite3_step(one) == SQLITE_ROW) keepUnlessVanished(inode, sqlite3_column_text(one, 0));
                    sqlite3_reset(one);
                }
            }
        } else if (sqlite3_stmt* under = prepared("SELECT inode, path FROM hashes WHERE volume = ? AND " + underRoot)) {
            sqlite3_bind_text(under, 1, volume->c_str(), static_cast<int>(volume->size()), SQLITE_STATIC);
            sqlite3_bind_text(under, 2, root.c_str(), static_cast<int>(root.size()), SQLITE_STATIC);
            sqlite3_bind_int64(under, 3, static_cast<int64_t>(prefix.size()));
            sqlite3_bind_text(under, 4, prefix.c_str(), static_cast<int>(prefix.size()), SQLITE_STATIC);
            // Gathered first and deleted after: the records are not changed under a running query.
            while (sqlite3_step(under) == SQLITE_ROW) {
                int64_t inode = sqlite3_column_int64(under, 0);
                if (!isKept(inode)) keepUnlessVanished(inode, sqlite3_column_text(under, 1));
            }
            sqlite3_reset(under);
        }
        for (int64_t inode : gone) {
            begin();
            query("DELETE FROM hashes WHERE volume = ? AND inode = ?", {*volume, inode});
            counted();
        }
    }
    commit();
}

}  // namespace dedup
