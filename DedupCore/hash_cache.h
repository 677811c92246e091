// The persistent digest cache: for every file hashed, its partial and full digests keyed by volume
// and inode, with the size and times it had then. A digest is served only while the file still has
// exactly that size and those times, so a changed file is always read again.
//
// Beside the digests it keeps what the file's extent map said of its blocks, so that a second scan
// opens no unchanged file. Sharing blocks changes neither size nor times, so these facts are also
// tied to the replacement stamp of the journal: every reclaim writes to the journal before and
// after it shares blocks, which moves the stamp and makes every kept fact be read again. Blocks
// shared behind the engine's back (another tool) are seen by the next full check only; the clone
// engine compares the bytes again before it changes anything, so stale facts can mislead a report,
// never a reclaim.
//
// Owns one SQLite connection. Every public operation runs entirely under one lock, so the hashing
// threads may share an instance. Only opening can fail; after that a broken, locked or full
// database behaves like an empty one and never stops a scan. Lookups and stores are grouped into
// transactions committed every few hundred operations, by flush() and on destruction; writes are
// gathered and made a batch at a time, before any lookup that could need them.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "file_records.h"

struct sqlite3;
struct sqlite3_stmt;

namespace dedup {

class HashCache {
public:
    enum class Kind { partial, full };
    using Value = std::variant<std::monostate, int64_t, std::string>;

    struct Error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    static constexpr const char* schema =
        "PRAGMA journal_mode = WAL;\n"
        "CREATE TABLE IF NOT EXISTS hashes (\n"
        "    volume TEXT NOT NULL, inode INTEGER NOT NULL, path TEXT NOT NULL,\n"
        "    size INTEGER NOT NULL, mtime INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,\n"
        "    ctime INTEGER NOT NULL, ctime_ns INTEGER NOT NULL,\n"
        "    partial TEXT, full TEXT,\n"
        "    blocks_stamp INTEGER, clone_kind INTEGER, private_size INTEGER, clone_id INTEGER, clone_refs INTEGER,\n"
        "    PRIMARY KEY (volume, inode)) WITHOUT ROWID;";

    // What the extent map said of one version of a file. `clones` absent: the file system could
    // not tell (no FIEMAP, or no extent at all).
    struct Blocks {
        std::optional<CloneInfo> clones;
        bool operator==(const Blocks&) const = default;
    };

    // Opens or creates the database, making its folder. Throws Error, or std::filesystem's error
    // when the folder cannot be made. `journal` is the reclaims' journal whose changes outdate the
    // kept facts of blocks (by default the one in Locations).
    explicit HashCache(const std::string& path, std::string journal = {});
    ~HashCache();
    HashCache(const HashCache&) = delete;
    HashCache& operator=(const HashCache&) = delete;

    std::optional<std::string> digest(Kind kind, const ScannedFile& file);
    // The digests of many files at once, at the same index; absent where digest() would answer
    // nothing. Far cheaper than a digest() per file when they are many.
    struct Lookup {
        Kind kind;
        const ScannedFile* file;
    };
    std::vector<std::optional<std::string>> digests(const std::vector<Lookup>& lookups);
    void store(const std::string& digest, Kind kind, const ScannedFile& file);
    // Deletes the records of files under `roots` that are not among `seen` and are no longer found
    // under the path their record gives.
    void prune(const std::vector<std::string>& roots, const std::vector<ScannedFile>& seen);
    // Commits the writes made so far.
    void flush();

    // A number that changes whenever the journal is written to, i.e. whenever a reclaim may have
    // shared or unshared blocks. Taken before extent maps are read, and handed to storeBlocks().
    int64_t replacementStamp() const;
    // The kept facts of each file's blocks, at the same index; absent where none are kept for this
    // version of the file or they were read under another stamp.
    std::vector<std::optional<Blocks>> blocks(const std::vector<const ScannedFile*>& files, int64_t stamp);
    void storeBlocks(const ScannedFile& file, const Blocks& blocks, int64_t stamp);
    // Drops the kept facts of these files' blocks: for code that shares or unshares their blocks
    // without writing to the journal.
    void forgetBlocks(const std::vector<ScannedFile>& files);

    // Reads what is kept of each of `files` in one pass over its volume's records and answers
    // digests() and blocks() for them from memory until forgetRemembered(). A grouping asks about
    // the same files three times (prefix digests, blocks, whole digests): one pass instead of
    // three. Every answer is still checked against the file's version as asked; what is written
    // for these files meanwhile is not seen, which only makes such a file be read again.
    void remember(const std::vector<const ScannedFile*>& files);
    // Has the kernel bring the database into memory, so that a scan from a cold cache finds it
    // read by the time it looks anything up; meant for a thread of its own beside the walk, and
    // given up as soon as `stop` is asked (a scan that ended first does not wait for it). May run
    // beside any other call. Never fails.
    void readAhead(std::stop_token stop) const;
    void forgetRemembered();

    // What one record says of one inode, decoded once: what remember() keeps.
    struct Record {
        int64_t inode = 0;
        int64_t version[5] = {};  // size, modification and change times; valid with `versioned`
        int64_t blocksStamp = 0;
        int64_t privateSize = 0;
        uint64_t cloneID = 0;
        uint32_t references = 0;
        uint8_t cloneKind = 0;
        uint8_t facts = 0;  // which of the above the record holds (bits in hash_cache.cc)
        std::array<unsigned char, 32> partial{};
        std::array<unsigned char, 32> full{};
    };

private:
    std::vector<std::vector<Value>> query(const std::string& sql, const std::vector<Value>& parameters);
    // The statement for `sql`, prepared on first use and kept; null when SQLite refuses it.
    sqlite3_stmt* prepared(const std::string& sql);
    std::optional<std::string> lookUp(const std::string& volume, Kind kind, const FileStatus& status);
    std::optional<std::string> volumeOf(uint64_t device, const std::string& path);
    // Steps through the records of `inodes` (sorted) on one volume, calling found(k, statement)
    // for the k-th inode's record, whose columns start with the inode and then `columns`.
    template <typename Found>
    void eachRecord(const std::string& volume, const std::vector<int64_t>& inodes, const std::string& columns,
                    Found found);
    void addMissingColumns();
    // Moves the records of a database made before they were kept in key order into a table that
    // is; left as it is when another process holds the database.
    void keepInKeyOrder();
    // Calls answer(i, record) for each file of `volume` (by its index in `asked`, whose inodes
    // inodeOf gives) that has a record: from the remembered records where they hold it, else from
    // the database. Puts `asked` in inode order.
    template <typename InodeOf, typename Answer>
    void eachKept(const std::string& volume, std::vector<size_t>& asked, InodeOf inodeOf, Answer answer);
    // The remembered records of a volume, in inode order.
    std::vector<Record>* remembered(const std::string& volume);
    // The volume a write of `file` goes to, with a transaction begun; none while writes are left
    // out or the file's disk has no identifier.
    std::optional<std::string> writableVolume(const ScannedFile& file);
    // A write waiting its turn. Writes are gathered and made in the order of their records, one
    // transaction per batch: made as the files come, each would dirty a page of its own, and every
    // commit would write most of those pages to the log again.
    // Held lean, a batch of them being alive through a scan: the volume is found again from the
    // device, whose answer is kept.
    struct PendingWrite {
        enum class What : uint8_t { partial, full, blocks } what;
        std::string path;
        FileStatus status;
        std::string digest;
        Blocks blocks;
        int64_t stamp = 0;
    };
    void queue(PendingWrite write);
    // Makes the gathered writes; every lookup calls it first, so that it sees them.
    void writePending();
    void writeNow(const std::string& volume, const PendingWrite& write);
    // Steps a write and handles a database that another process holds.
    void write(sqlite3_stmt* statement);
    void begin();
    void counted();
    void commit();

    std::mutex lock_;
    const std::string path_;
    std::string journal_;
    sqlite3* db_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt*> statements_;
    std::unordered_map<uint64_t, std::optional<std::string>> volumes_;
    std::map<std::string, std::vector<Record>> remembered_;
    std::vector<PendingWrite> pending_;
    bool inTransaction_ = false;
    int pendingOperations_ = 0;
    int lastStep_ = 0;  // the result of the last statement's final step
    int skipWrites_ = 0;  // stores left out after the database refused a write lock
};

const char* columnName(HashCache::Kind kind);

}  // namespace dedup
