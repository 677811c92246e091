// What the digest cache keeps of a file's blocks: served only for the very version of the file it
// was read from and only while the journal of reclaims has not moved since.
#include "hash_cache.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

class HashCacheBlocksTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
        root_ = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "blocks");
        test::writeFile(root_ + "/real", "content");
        real_ = {root_ + "/real", FileStatus::read(root_ + "/real"), {}};
    }
    std::string journal() const { return data_.path("journal.jsonl"); }
    // A made-up file of the test's volume: the cache knows files only by volume and inode.
    ScannedFile madeUp(uint64_t inode) const {
        ScannedFile f = real_;
        f.status.inode = inode;
        return f;
    }
    static HashCache::Blocks shared(uint64_t cloneID) {
        return {CloneInfo{0, cloneID, 2, false, false}};
    }

    test::TempDir data_;
    std::string root_;
    ScannedFile real_;
};

TEST_F(HashCacheBlocksTest, KeptFactsServeOnlyTheirVersionUnderTheirStamp) {
    HashCache cache(data_.path("hashes.sqlite"), journal());
    EXPECT_EQ(cache.replacementStamp(), 0) << "no journal yet";
    std::ofstream(journal()) << "{}\n";
    const int64_t stamp = cache.replacementStamp();
    EXPECT_NE(stamp, 0);

    // Enough files for the lookup in one pass, with every kind of answer among them.
    std::vector<ScannedFile> files;
    for (uint64_t i = 0; i < 200; ++i) files.push_back(madeUp(5000 + 3 * i));
    const HashCache::Blocks privateBlocks{CloneInfo{4096, 77, 1, false, false}};
    const HashCache::Blocks highID = shared(0xF000000000000001ull);  // above the largest signed integer
    const HashCache::Blocks unknownToTheDisk{std::nullopt};
    const HashCache::Blocks inlineData{CloneInfo{0, 9, 0, true, false}};
    const HashCache::Blocks holes{CloneInfo{0, 0, 0, false, true}};
    const std::vector<HashCache::Blocks> kinds = {privateBlocks, highID, unknownToTheDisk, inlineData, holes};
    for (size_t i = 0; i < files.size(); ++i) {
        if (i % 7 == 6) continue;  // no record
        cache.storeBlocks(files[i], kinds[i % kinds.size()], stamp);
    }
    std::vector<const ScannedFile*> asked;
    for (const auto& f : files) asked.push_back(&f);
    auto known = cache.blocks(asked, stamp);
    ASSERT_EQ(known.size(), files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        if (i % 7 == 6) {
            EXPECT_FALSE(known[i]) << i;
        } else {
            ASSERT_TRUE(known[i]) << i;
            EXPECT_EQ(*known[i], kinds[i % kinds.size()]) << i;
        }
    }
    // A few asked among many records: searched one by one, same answers.
    EXPECT_EQ(cache.blocks({asked[1], asked[6]}, stamp), (std::vector<std::optional<HashCache::Blocks>>{highID, std::nullopt}));

    // Under another stamp (a reclaim wrote to the journal) nothing is served.
    std::ofstream(journal(), std::ios::app) << "{}\n";
    EXPECT_NE(cache.replacementStamp(), stamp);
    EXPECT_FALSE(cache.blocks({asked[0]}, cache.replacementStamp())[0]);

    // Size and modification time kept but the change time moved (content written, then the date
    // put back): another version, whose blocks must be read again.
    ScannedFile rewritten = files[0];
    rewritten.status.changed.nanoseconds += 1;
    EXPECT_FALSE(cache.blocks({&rewritten}, stamp)[0]);
    // A digest of that new version drops the old version's facts; one of the same version keeps them.
    cache.store("d", HashCache::Kind::partial, files[1]);
    EXPECT_TRUE(cache.blocks({&files[1]}, stamp)[0]);
    cache.store("d", HashCache::Kind::partial, rewritten);
    EXPECT_FALSE(cache.blocks({&files[0]}, stamp)[0]);
    EXPECT_FALSE(cache.blocks({&rewritten}, stamp)[0]);
    // And facts of a new version drop the old version's digests, but keep those of their own.
    cache.store("full of 2", HashCache::Kind::full, files[2]);
    cache.storeBlocks(files[2], privateBlocks, stamp);
    EXPECT_EQ(cache.digest(HashCache::Kind::full, files[2]), "full of 2");
    ScannedFile touched = files[2];
    touched.status.modified.seconds += 1;
    cache.storeBlocks(touched, privateBlocks, stamp);
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, touched));
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, files[2]));

    // Whoever shares blocks without the journal forgets the facts first.
    ASSERT_TRUE(cache.blocks({&files[3]}, stamp)[0]);
    cache.forgetBlocks({files[3]});
    EXPECT_FALSE(cache.blocks({&files[3]}, stamp)[0]);
}

// The answers given from what remember() read must be the database's own: for that very version of
// the file, on that volume only, and gone with the facts whoever changes blocks forgets.
TEST_F(HashCacheBlocksTest, RememberedRecordsAnswerAsTheDatabaseForTheirVersionAndVolumeOnly) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::btrfs);
    HashCache cache(data_.path("hashes.sqlite"), journal());
    std::ofstream(journal()) << "{}\n";
    const int64_t stamp = cache.replacementStamp();
    auto hex = [](uint64_t n) {
        std::string text(64, '0');
        for (size_t i = 0; n; ++i, n >>= 4) text[63 - i] = "0123456789abcdef"[n & 0xF];
        return text;
    };
    // The same inode numbers on another volume, with records of their own.
    const std::string other = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::btrfs), "other");
    test::writeFile(other + "/real", "content");
    ScannedFile elsewhere{other + "/real", FileStatus::read(other + "/real"), {}};
    ASSERT_NE(elsewhere.status.device, real_.status.device);

    std::vector<ScannedFile> files, foreign;
    for (uint64_t i = 0; i < 300; ++i) {
        files.push_back(madeUp(9000 + 2 * i));
        ScannedFile f = elsewhere;
        f.status.inode = files.back().status.inode;
        foreign.push_back(f);
        if (i % 5 == 4) continue;  // no record
        cache.store(hex(i), HashCache::Kind::partial, files[i]);
        // Texts other than 64 hexadecimal digits are served as they were stored, too.
        const std::string odd = i % 4 == 1 ? "odd text" : std::string(63, '0') + "Z";
        if (i % 3 == 0) cache.store(i % 2 ? odd : hex(1000 + i), HashCache::Kind::full, files[i]);
        if (i % 4 != 3) cache.storeBlocks(files[i], shared(i + 1), stamp);
        cache.store(hex(5000 + i), HashCache::Kind::full, foreign[i]);
    }
    // Saved over in place with the same size and dates but a moved change time, after the cache read it.
    ScannedFile rewritten = files[6];
    rewritten.status.changed.nanoseconds += 1;

    std::vector<const ScannedFile*> all;
    std::vector<HashCache::Lookup> lookups;
    for (size_t i = 0; i < files.size(); ++i) {
        all.push_back(&files[i]);
        lookups.push_back({HashCache::Kind::partial, &files[i]});
        lookups.push_back({HashCache::Kind::full, &files[i]});
        lookups.push_back({HashCache::Kind::full, &foreign[i]});
    }
    lookups.push_back({HashCache::Kind::partial, &rewritten});
    const auto digests = cache.digests(lookups);
    const auto blocks = cache.blocks(all, stamp);
    ASSERT_TRUE(digests[0] && digests[1] && blocks[0]);
    EXPECT_EQ(*digests[2], hex(5000));
    EXPECT_EQ(digests[3 * 3 + 1], std::string(63, '0') + "Z");
    EXPECT_EQ(digests[3 * 21 + 1], "odd text");
    EXPECT_FALSE(digests.back());

    cache.remember(all);
    EXPECT_EQ(cache.digests(lookups), digests);
    EXPECT_EQ(cache.blocks(all, stamp), blocks);
    // Asked one at a time, as the side-by-side reading asks, and about a file never remembered.
    for (size_t i : {0, 3, 6, 298}) {
        EXPECT_EQ(cache.digests({{HashCache::Kind::full, &files[i]}})[0], digests[3 * i + 1]) << i;
        EXPECT_EQ(cache.digests({{HashCache::Kind::full, &foreign[i]}})[0], hex(5000 + i)) << i;
    }
    EXPECT_FALSE(cache.digests({{HashCache::Kind::partial, &rewritten}})[0]);
    EXPECT_FALSE(cache.blocks({&rewritten}, stamp)[0]);
    EXPECT_FALSE(cache.blocks({&files[0]}, stamp + 2)[0]) << "another stamp";

    // Blocks shared without the journal: what was remembered of them goes too.
    cache.forgetBlocks({files[0]});
    EXPECT_FALSE(cache.blocks({&files[0]}, stamp)[0]);
    EXPECT_EQ(cache.blocks({&files[1]}, stamp)[0], blocks[1]);
    cache.forgetRemembered();
    EXPECT_EQ(cache.digests(lookups), digests);
}

TEST_F(HashCacheBlocksTest, DatabaseFromBeforeKeptBlocksGetsTheirColumnsAndKeepsItsDigests) {
    const std::string path = data_.path("old.sqlite");
    {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
        const char* old =
            "CREATE TABLE hashes (volume TEXT NOT NULL, inode INTEGER NOT NULL, path TEXT NOT NULL,"
            " size INTEGER NOT NULL, mtime INTEGER NOT NULL, mtime_ns INTEGER NOT NULL,"
            " ctime INTEGER NOT NULL, ctime_ns INTEGER NOT NULL, partial TEXT, full TEXT,"
            " PRIMARY KEY (volume, inode));";
        ASSERT_EQ(sqlite3_exec(db, old, nullptr, nullptr, nullptr), SQLITE_OK);
        sqlite3_close(db);
    }
    {
        HashCache cache(path, journal());
        cache.store("kept", HashCache::Kind::full, real_);
    }
    HashCache cache(path, journal());
    EXPECT_FALSE(cache.blocks({&real_}, 0)[0]);
    cache.storeBlocks(real_, shared(5), 0);
    EXPECT_EQ(cache.blocks({&real_}, 0)[0], shared(5));
    EXPECT_EQ(cache.digest(HashCache::Kind::full, real_), "kept");
    // And its records were moved into key order, so that one pass over a volume's records is a walk
    // through one tree.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    sqlite3_stmt* made = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT sql FROM sqlite_master WHERE name = 'hashes'", -1, &made, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(made), SQLITE_ROW);
    EXPECT_NE(std::string(reinterpret_cast<const char*>(sqlite3_column_text(made, 0))).find("WITHOUT ROWID"), std::string::npos);
    sqlite3_finalize(made);
    sqlite3_close(db);
}

TEST_F(HashCacheBlocksTest, WritesGatheredOutOfOrderKeepEachFilesOrderAndAreSeenAtOnce) {
    HashCache cache(data_.path("hashes.sqlite"), journal());
    // Files stored in falling inode order, more than one batch of them, each stored twice: its
    // partial digest, then the whole digest of a newer version, which must drop the partial one.
    std::vector<ScannedFile> files;
    for (uint64_t i = 0; i < 5000; ++i) files.push_back(madeUp(900000 - 7 * i));
    for (const auto& file : files) {
        ScannedFile newer = file;
        newer.status.modified.nanoseconds += 1;
        cache.store("old " + std::to_string(file.status.inode), HashCache::Kind::partial, file);
        cache.store("new " + std::to_string(file.status.inode), HashCache::Kind::full, newer);
    }
    // Asked at once, without a flush: what is still waiting to be written must answer too.
    for (size_t i : {size_t{0}, size_t{2500}, size_t{4999}}) {
        ScannedFile newer = files[i];
        newer.status.modified.nanoseconds += 1;
        std::string inode = std::to_string(files[i].status.inode);
        EXPECT_EQ(cache.digest(HashCache::Kind::full, newer), "new " + inode);
        EXPECT_FALSE(cache.digest(HashCache::Kind::partial, newer)) << "the older version's digest survived";
        EXPECT_FALSE(cache.digest(HashCache::Kind::partial, files[i]));
    }
    // Facts of blocks stored after a digest of the same version keep the digest.
    ScannedFile last = files.back();
    last.status.modified.nanoseconds += 1;
    cache.storeBlocks(last, shared(11), 0);
    EXPECT_EQ(cache.blocks({&last}, 0)[0], shared(11));
    EXPECT_EQ(cache.digest(HashCache::Kind::full, last), "new " + std::to_string(last.status.inode));

    // Another connection sees them once they were flushed.
    cache.store("late", HashCache::Kind::partial, real_);
    cache.flush();
    HashCache other(data_.path("hashes.sqlite"), journal());
    EXPECT_EQ(other.digest(HashCache::Kind::partial, real_), "late");
}

}  // namespace
}  // namespace dedup
