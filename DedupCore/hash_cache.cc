#include "hash_cache.h"

#include <sqlite3.h>

#include <filesystem>
#include <unordered_set>

#include "platform/system.h"

namespace dedup {

namespace {
constexpr int operationsPerTransaction = 512;
// A database locked by another process is waited for briefly; past that the cache steps aside for
// a while rather than slowing every file of the scan.
constexpr int busyTimeoutMs = 200;
constexpr int writesSkippedWhenLocked = 2048;
}  // namespace

const char* columnName(HashCache::Kind kind) { return kind == HashCache::Kind::partial ? "partial" : "full"; }

HashCache::HashCache(const std::string& path) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
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
}

HashCache::~HashCache() {
    {
        std::lock_guard guard(lock_);
        commit();
        for (auto& [text, statement] : statements_) sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
}

std::vector<std::vector<HashCache::Value>> HashCache::query(const std::string& sql,
                                                            const std::vector<Value>& parameters) {
    std::vector<std::vector<Value>> rows;
    // The same few statements run for every file: preparing them once spares most of the cost.
    sqlite3_stmt*& statement = statements_[sql];
    if (!statement && sqlite3_prepare_v3(db_, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
                          SQLITE_OK) {
        statement = nullptr;
        return rows;
    }
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
    volumes_[device] = volume;
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
    commit();
}

std::optional<std::string> HashCache::digest(Kind kind, const ScannedFile& file) {
    std::lock_guard guard(lock_);
    auto volume = volumeOf(file.status.device, file.path);
    if (!volume) return std::nullopt;
    begin();
    counted();
    auto rows = query(std::string("SELECT size, mtime, mtime_ns, ctime, ctime_ns, ") + columnName(kind) +
                          " FROM hashes WHERE volume = ? AND inode = ?",
                      {*volume, static_cast<int64_t>(file.status.inode)});
    if (rows.empty() || rows[0].size() < 6) return std::nullopt;
    const auto& row = rows[0];
    const auto& s = file.status;
    const int64_t expected[5] = {s.size, s.modified.seconds, s.modified.nanoseconds, s.changed.seconds,
                                 s.changed.nanoseconds};
    for (int i = 0; i < 5; ++i) {
        auto* n = std::get_if<int64_t>(&row[static_cast<size_t>(i)]);
        if (!n || *n != expected[i]) return std::nullopt;
    }
    if (auto* text = std::get_if<std::string>(&row[5])) return *text;
    return std::nullopt;
}

void HashCache::store(const std::string& digest, Kind kind, const ScannedFile& file) {
    std::lock_guard guard(lock_);
    if (skipWrites_ > 0) {
        --skipWrites_;
        return;
    }
    auto volume = volumeOf(file.status.device, file.path);
    if (!volume) return;
    begin();
    const auto& s = file.status;
    auto inode = static_cast<int64_t>(s.inode);
    auto same = query(
        "SELECT 1 FROM hashes WHERE volume = ? AND inode = ? AND size = ? AND mtime = ? AND mtime_ns = ? AND "
        "ctime = ? AND ctime_ns = ?",
        {*volume, inode, s.size, s.modified.seconds, s.modified.nanoseconds, s.changed.seconds, s.changed.nanoseconds});
    if (!same.empty()) {
        query(std::string("UPDATE hashes SET ") + columnName(kind) + " = ?, path = ? WHERE volume = ? AND inode = ?",
              {digest, file.path, *volume, inode});
    } else {
        // Replacing the whole record drops a digest of the other kind that belonged to an older
        // version of the file: no stale digest survives a change.
        query(std::string("INSERT OR REPLACE INTO hashes (volume, inode, path, size, mtime, mtime_ns, ctime, "
                          "ctime_ns, ") +
                  columnName(kind) + ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
              {*volume, inode, file.path, s.size, s.modified.seconds, s.modified.nanoseconds, s.changed.seconds,
               s.changed.nanoseconds, digest});
    }
    // A write refused because another process holds the database: leave the cache alone for a while
    // rather than wait on every file.
    if (sqlite3_get_autocommit(db_) && inTransaction_) {
        inTransaction_ = false;
        pendingOperations_ = 0;
    }
    if ((lastStep_ & 0xFF) == SQLITE_BUSY || (lastStep_ & 0xFF) == SQLITE_LOCKED) {
        commit();
        skipWrites_ = writesSkippedWhenLocked;
        return;
    }
    counted();
}

void HashCache::prune(const std::vector<std::string>& roots, const std::vector<ScannedFile>& seen) {
    std::lock_guard guard(lock_);
    std::unordered_map<std::string, std::unordered_set<int64_t>> seenInodes;
    for (const auto& file : seen) {
        if (auto volume = volumeOf(file.status.device, file.path)) {
            seenInodes[*volume].insert(static_cast<int64_t>(file.status.inode));
        }
    }
    if (roots.empty()) return;
    for (const auto& root : roots) {
        FileStatus status;
        try {
            status = FileStatus::read(root);
        } catch (const SystemError&) {
            continue;
        }
        auto volume = volumeOf(status.device, root);
        if (!volume) continue;
        // substr counts characters and the length counts bytes: under a root with non-ASCII
        // characters only the root itself is pruned. Records kept too long cost nothing but space.
        std::string prefix = root.ends_with('/') ? root : root + "/";
        auto rows = query("SELECT inode FROM hashes WHERE volume = ? AND (path = ? OR substr(path, 1, ?) = ?)",
                          {*volume, root, static_cast<int64_t>(prefix.size()), prefix});
        const auto& kept = seenInodes[*volume];
        for (const auto& row : rows) {
            auto* inode = row.empty() ? nullptr : std::get_if<int64_t>(&row[0]);
            if (!inode || kept.contains(*inode)) continue;
            begin();
            query("DELETE FROM hashes WHERE volume = ? AND inode = ?", {*volume, *inode});
            counted();
        }
    }
    commit();
}

}  // namespace dedup
