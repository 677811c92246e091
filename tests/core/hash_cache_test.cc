#include "hash_cache.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using Kind = HashCache::Kind;

class HashCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
        volume_ = test::sharedVolume(test::LoopVolume::Kind::xfs);
        root_ = test::freshFolder(volume_, "cache");
        cache_ = std::make_unique<HashCache>(data_.path("nested/folder/hashes.sqlite"));
    }
    ScannedFile file(const std::string& name, const std::string& content = "content") {
        std::string path = root_ + "/" + name;
        if (!std::filesystem::exists(path)) test::writeFile(path, content);
        return {path, FileStatus::read(path), {}};
    }

    test::TempDir data_;
    test::LoopVolume* volume_ = nullptr;
    std::string root_;
    std::unique_ptr<HashCache> cache_;
};

TEST_F(HashCacheTest, DigestsAreServedOnlyForTheSameVersion) {
    ScannedFile f = file("a");
    EXPECT_FALSE(cache_->digest(Kind::partial, f));
    cache_->store("p1", Kind::partial, f);
    cache_->store("f1", Kind::full, f);
    // Both kinds live in one record for an unchanged file.
    EXPECT_EQ(cache_->digest(Kind::partial, f), "p1");
    EXPECT_EQ(cache_->digest(Kind::full, f), "f1");

    // The record is keyed by volume and inode, not by path: the same version under another name
    // is served. (A rename on Linux also moves the change time, so a real move is read again.)
    ScannedFile moved = f;
    moved.path = root_ + "/moved";
    EXPECT_EQ(cache_->digest(Kind::full, moved), "f1");

    // Any change of size or times is a new version; storing for it drops the older digest of the
    // other kind.
    for (auto change : {&FileStatus::modified, &FileStatus::changed}) {
        ScannedFile newer = moved;
        (newer.status.*change).nanoseconds += 1;
        EXPECT_FALSE(cache_->digest(Kind::full, newer));
    }
    ScannedFile bigger = moved;
    bigger.status.size += 1;
    EXPECT_FALSE(cache_->digest(Kind::partial, bigger));
    cache_->store("f2", Kind::full, bigger);
    EXPECT_EQ(cache_->digest(Kind::full, bigger), "f2");
    EXPECT_FALSE(cache_->digest(Kind::partial, bigger));
    EXPECT_FALSE(cache_->digest(Kind::full, moved));
}

TEST_F(HashCacheTest, PruneRemovesOnlyUnseenFilesUnderTheRoots) {
    std::filesystem::create_directories(root_ + "/in");
    std::filesystem::create_directories(root_ + "/inner");
    ScannedFile seen = file("in/seen");
    ScannedFile unseen = file("in/unseen");
    ScannedFile sibling = file("inner/other");  // "/in" must not prune "/inner"
    ScannedFile single = file("single");
    for (const auto& f : {seen, unseen, sibling, single}) cache_->store("d", Kind::full, f);

    cache_->prune({}, {seen});
    EXPECT_TRUE(cache_->digest(Kind::full, unseen));
    cache_->prune({root_ + "/does-not-exist"}, {});
    EXPECT_TRUE(cache_->digest(Kind::full, unseen));

    cache_->prune({root_ + "/in", root_ + "/single"}, {seen});
    EXPECT_TRUE(cache_->digest(Kind::full, seen));
    EXPECT_FALSE(cache_->digest(Kind::full, unseen));
    EXPECT_TRUE(cache_->digest(Kind::full, sibling));
    // A root that is a single file is its own record.
    EXPECT_FALSE(cache_->digest(Kind::full, single));

    // Many records of files elsewhere on the volume, which no scan of this root sees: they stay,
    // and an unseen file under the root still goes.
    ScannedFile again = file("in/again");
    cache_->store("d", Kind::full, again);
    std::vector<ScannedFile> elsewhere;
    for (int i = 0; i < 1500; ++i) {
        ScannedFile f = seen;
        f.path = root_ + "/elsewhere/" + std::to_string(i);
        f.status.inode = 500000 + static_cast<uint64_t>(i);
        cache_->store("e", Kind::full, f);
        elsewhere.push_back(f);
    }
    cache_->prune({root_ + "/in"}, {seen});
    EXPECT_FALSE(cache_->digest(Kind::full, again));
    EXPECT_TRUE(cache_->digest(Kind::full, seen));
    EXPECT_TRUE(cache_->digest(Kind::full, elsewhere.front()));
    EXPECT_TRUE(cache_->digest(Kind::full, elsewhere.back()));

    // Below a root with non-ASCII characters only the root itself is matched: records there are
    // kept rather than wrongly dropped.
    std::filesystem::create_directories(root_ + "/Fotos é");
    ScannedFile accented = file("Fotos é/x");
    cache_->store("d", Kind::full, accented);
    cache_->prune({root_ + "/Fotos é"}, {});
    EXPECT_TRUE(cache_->digest(Kind::full, accented));
}

TEST_F(HashCacheTest, ManyLookupsAtOnceAnswerAsOneByOne) {
    // Records for made-up inodes of this volume: the cache knows files only by volume and inode.
    ScannedFile real = file("real");
    std::vector<ScannedFile> files;
    for (int i = 0; i < 3000; ++i) {
        ScannedFile f = real;
        f.status.inode = 100000 + static_cast<uint64_t>(i) * 7;
        f.status.size = i;
        files.push_back(f);
        if (i % 10 == 9) continue;  // some have no record at all
        cache_->store("p" + std::to_string(i), Kind::partial, f);
        if (i % 3 == 0) cache_->store("f" + std::to_string(i), Kind::full, f);
    }
    // A file that changed since: its record no longer serves it.
    files[42].status.modified.nanoseconds += 1;

    auto check = [&](const std::vector<size_t>& picked) {
        std::vector<HashCache::Lookup> lookups;
        for (size_t i : picked) lookups.push_back({i % 2 ? Kind::partial : Kind::full, &files[i]});
        auto many = cache_->digests(lookups);
        ASSERT_EQ(many.size(), lookups.size());
        for (size_t k = 0; k < lookups.size(); ++k) {
            EXPECT_EQ(many[k], cache_->digest(lookups[k].kind, *lookups[k].file)) << "inode " << lookups[k].file->status.inode;
        }
    };
    // Most of the records, in no particular order: answered in one pass over them.
    std::vector<size_t> most;
    for (size_t i = 0; i < files.size(); i += 2) most.push_back(files.size() - 1 - i);
    most.push_back(42);
    check(most);
    // A few files far apart among many records: the pass gives up early and searches for the rest.
    std::vector<size_t> few;
    for (size_t i = 0; i < files.size(); i += 40) few.push_back(i);
    check(few);
    EXPECT_FALSE(cache_->digests({{Kind::full, &files[42]}})[0]);
}

TEST_F(HashCacheTest, RecordsSurviveReopeningAndAnotherConnection) {
    ScannedFile f = file("kept");
    cache_->store("abc", Kind::full, f);
    cache_.reset();
    HashCache again(data_.path("nested/folder/hashes.sqlite"));
    EXPECT_EQ(again.digest(Kind::full, f), "abc");
}

TEST_F(HashCacheTest, LockedDatabaseNeverStopsTheWork) {
    ScannedFile f = file("locked");
    cache_->store("before", Kind::full, f);
    cache_->flush();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(data_.path("nested/folder/hashes.sqlite").c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    // Writes are dropped and reads still answer from what is committed.
    for (int i = 0; i < 50; ++i) cache_->store("during", Kind::partial, f);
    EXPECT_EQ(cache_->digest(Kind::full, f), "before");
    sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(other);
}

TEST(HashCacheOpenTest, DamagedDatabaseFailsToOpenWithAClearError) {
    test::TempDir dir;
    test::writeFile(dir.path("hashes.sqlite"), std::string(8192, '\x7f'));
    EXPECT_THROW(HashCache(dir.path("hashes.sqlite")), HashCache::Error);
    // A folder where the database should be cannot be opened either.
    std::filesystem::create_directories(dir.path("folder.sqlite"));
    EXPECT_THROW(HashCache(dir.path("folder.sqlite")), HashCache::Error);
}

}  // namespace
}  // namespace dedup
