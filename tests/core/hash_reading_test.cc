// Reading for digests in bulk: many cache lookups answered in one pass, and sets of likely copies
// read side by side, each file once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "hash_cache.h"
#include "hasher.h"
#include "locked.h"
#include "platform/file_io.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using Kind = HashCache::Kind;

class HashCacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
        root_ = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "cache");
        cache_ = std::make_unique<HashCache>(data_.path("hashes.sqlite"));
    }
    ScannedFile file(const std::string& name) {
        std::string path = root_ + "/" + name;
        if (!std::filesystem::exists(path)) test::writeFile(path, "content");
        return {path, FileStatus::read(path), {}};
    }

    test::TempDir data_;
    std::string root_;
    std::unique_ptr<HashCache> cache_;
};

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

TEST(HasherTest, FilesReadSideBySideGetTheirOwnDigestsWhereverTheyDiffer) {
    test::TempDir dir;
    constexpr int64_t chunk = static_cast<int64_t>(ContentHash::chunkSize);
    std::string content = test::randomBytes(3 * chunk + 1000, 33);
    auto changed = [&](int64_t at) {
        std::string copy = content;
        copy[static_cast<size_t>(at)] ^= 0x40;
        return copy;
    };
    // Copies, and files that part from the first in its first chunk, inside a later chunk, at a
    // chunk's edge and in the last byte; two that part at the same place but agree with each other
    // (they must still match); one shorter and one longer.
    std::vector<std::pair<std::string, std::string>> made = {
        {"first", content},          {"copy", content},
        {"at0", changed(0)},         {"middle", changed(chunk + 77)},
        {"edge", changed(2 * chunk)}, {"last", changed(static_cast<int64_t>(content.size()) - 1)},
        {"twin1", changed(chunk + 5)}, {"twin2", changed(chunk + 5)},
        {"copy2", content},          {"shorter", content.substr(0, content.size() - 1)},
        {"longer", content + "x"}};
    std::vector<ScannedFile> files;
    int64_t total = 0;
    for (const auto& [name, bytes] : made) {
        test::writeFile(dir.path(name), bytes);
        files.push_back({dir.path(name), FileStatus::read(dir.path(name)), {}});
        total += static_cast<int64_t>(bytes.size());
    }
    files.insert(files.begin(), {dir.path("vanished"), files[0].status, {}});
    std::vector<const ScannedFile*> pointers;
    for (const auto& file : files) pointers.push_back(&file);

    Locked<int64_t> bytes{0};
    auto digests = Hasher::digestsSideBySide(pointers, nullptr, bytes, nullptr, nullptr, chunk);
    ASSERT_EQ(digests.size(), files.size());
    EXPECT_FALSE(digests[0]);  // an unreadable first file leaves the others to go on without it
    for (size_t i = 1; i < files.size(); ++i) {
        ASSERT_TRUE(digests[i]) << files[i].path;
        EXPECT_EQ(*digests[i], digestText(ContentHash::sha256(files[i].path, ContentHash::fullLimit))) << files[i].path;
    }
    // Each file is read once, whatever it shares.
    EXPECT_EQ(bytes.get(), total);
}

TEST(HasherTest, SideBySideServesCachedDigestsAndReadsOnlyTheRest) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    std::string root = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "side-by-side");
    test::TempDir data;
    HashCache cache(data.path("hashes.sqlite"));
    std::vector<ScannedFile> files;
    for (const char* name : {"a", "b", "c"}) {
        test::writeRandomFile(root + "/" + name, 300000, 34);
        files.push_back({root + "/" + name, FileStatus::read(root + "/" + name), {}});
    }
    cache.store("known", HashCache::Kind::full, files[0]);
    Locked<int64_t> bytes{0};
    auto digests = Hasher::digestsSideBySide({&files[0], &files[1], &files[2]}, &cache, bytes, nullptr, nullptr);
    std::string real = digestText(ContentHash::sha256(files[1].path, ContentHash::fullLimit));
    EXPECT_EQ(digests, (std::vector<std::optional<std::string>>{"known", real, real}));
    EXPECT_EQ(bytes.get(), 2 * 300000);
    // The digests read are cached for the next time.
    EXPECT_EQ(cache.digest(HashCache::Kind::full, files[2]), real);
}

TEST(HasherTest, FileThatGrewOrShrankSinceItWasListedIsDigestedAsItIsNow) {
    test::TempDir dir;
    std::string content = test::randomBytes(70000, 35);
    // (bytes on disk, size the listing saw): unchanged, grown by a byte and by much, shrunk, and
    // grown past the prefix limit from just below it.
    const std::vector<std::pair<size_t, int64_t>> cases = {
        {100, 100}, {101, 100}, {5000, 100}, {60, 100}, {70000, 65535}, {65536, 65535}, {1, 0}};
    std::vector<ScannedFile> files;
    for (size_t k = 0; k < cases.size(); ++k) {
        std::string path = dir.path("f" + std::to_string(k));
        test::writeFile(path, std::string_view(content).substr(0, cases[k].first));
        files.push_back({path, FileStatus::read(path), {}});
        files.back().status.size = cases[k].second;
    }
    for (int64_t limit : {ContentHash::partialLimit, ContentHash::fullLimit}) {
        Locked<int64_t> bytes{0};
        auto digests = Hasher::digests(files, limit, false, nullptr, bytes, nullptr, nullptr);
        for (size_t k = 0; k < files.size(); ++k) {
            ASSERT_TRUE(digests[k]) << k;
            EXPECT_EQ(*digests[k], digestText(ContentHash::sha256(files[k].path, limit)))
                << "file of " << cases[k].first << " bytes listed with " << cases[k].second << ", limit " << limit;
        }
    }
    // The same read side by side from the start, where a file listed within the first step is
    // asked for a byte more than its listed size too.
    for (size_t k = 0; k < files.size(); ++k) {
        Locked<int64_t> bytes{0};
        std::vector<std::optional<std::string>> prefixes;
        auto digests = Hasher::digestsFromStart({&files[k]}, nullptr, bytes, nullptr, 0,
                                                [](const std::vector<size_t>&) { return true; }, prefixes);
        EXPECT_EQ(digests.front(), digestText(ContentHash::sha256(files[k].path, ContentHash::fullLimit)))
            << "file of " << cases[k].first << " bytes listed with " << cases[k].second;
    }
}

TEST(HasherTest, ReadFromTheStartEachFileOnceForBothDigestsAndStopsWhereTheCallerLosesInterest) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    std::string root = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "from-start");
    test::TempDir data;
    HashCache cache(data.path("hashes.sqlite"));
    constexpr size_t size = 600000;
    std::string a = test::randomBytes(size, 40);
    std::string b = a;
    b.front() = static_cast<char>(b.front() ^ 1);
    std::string c = a;
    c.back() = static_cast<char>(c.back() ^ 1);
    std::string d = test::randomBytes(size, 41);
    // b1 and b2 each differ from the first file read, and split from it apart: they must still be
    // found to be one set. d is alone, so is read no further than its prefix.
    std::vector<std::pair<std::string, std::string>> made = {{"a", a}, {"b1", b}, {"c", c}, {"d", d}, {"b2", b}};
    std::vector<ScannedFile> files;
    for (const auto& [name, bytes] : made) {
        test::writeFile(root + "/" + name, bytes);
        files.push_back({root + "/" + name, FileStatus::read(root + "/" + name), {}});
    }
    std::vector<const ScannedFile*> pointers;
    for (const auto& file : files) pointers.push_back(&file);
    std::vector<std::vector<size_t>> asked;
    auto goOn = [&](const std::vector<size_t>& agree) {
        asked.push_back(agree);
        std::sort(asked.back().begin(), asked.back().end());
        return agree.size() >= 2;
    };
    Locked<int64_t> bytes{0};
    std::vector<std::optional<std::string>> prefixes;
    auto digests = Hasher::digestsFromStart(pointers, &cache, bytes, nullptr, int64_t{4} << 20, goOn, prefixes);

    std::sort(asked.begin(), asked.end());
    EXPECT_EQ(asked, (std::vector<std::vector<size_t>>{{0, 2}, {1, 4}, {3}}));
    auto whole = [&](size_t i) { return digestText(ContentHash::sha256(files[i].path, ContentHash::fullLimit)); };
    auto prefix = [&](size_t i) { return digestText(ContentHash::sha256(files[i].path, ContentHash::partialLimit)); };
    EXPECT_EQ(digests, (std::vector<std::optional<std::string>>{whole(0), whole(1), whole(2), std::nullopt, whole(1)}));
    EXPECT_NE(whole(0), whole(2));
    for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(prefixes[i], prefix(i)) << files[i].path;
        EXPECT_EQ(cache.digest(Kind::partial, files[i]), prefix(i)) << files[i].path;
        EXPECT_EQ(cache.digest(Kind::full, files[i]), digests[i]) << files[i].path;
    }
    EXPECT_EQ(bytes.get(), 4 * static_cast<int64_t>(size) + ContentHash::partialLimit);

    // Files whose whole is within the first step: no prefix of their own, nothing to ask.
    asked.clear();
    std::vector<ScannedFile> small;
    for (size_t length : {size_t{0}, size_t{1000}, size_t{65536}}) {
        for (const char* copy : {"x", "y"}) {
            std::string path = root + "/" + copy + std::to_string(length);
            test::writeFile(path, std::string_view(a).substr(0, length));
            small.push_back({path, FileStatus::read(path), {}});
        }
    }
    for (size_t k = 0; k < small.size(); k += 2) {
        auto twins = Hasher::digestsFromStart({&small[k], &small[k + 1]}, nullptr, bytes, nullptr, 0, goOn, prefixes);
        std::string expected = digestText(ContentHash::sha256(small[k].path, ContentHash::fullLimit));
        EXPECT_EQ(twins, (std::vector<std::optional<std::string>>{expected, expected})) << small[k].path;
        EXPECT_EQ(prefixes, (std::vector<std::optional<std::string>>(2))) << small[k].path;
    }
    EXPECT_TRUE(asked.empty());
}

TEST(HasherTest, ReadAheadIsAskedOnlyForWhatIsNotInMemory) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    std::string root = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "in-memory");
    std::string path = root + "/file";
    test::writeRandomFile(path, 1 << 20, 36);
    platform::syncFile(path);
    auto fd = platform::openForReading(path);
    // Just written: in memory, and so is anything past the end (there is nothing to wait for).
    EXPECT_TRUE(platform::isInMemory(fd, 0));
    EXPECT_TRUE(platform::isInMemory(fd, (1 << 20) - 1));
    EXPECT_TRUE(platform::isInMemory(fd, 5 << 20));
    // Dropped from memory: the disk would have to be read, so read-ahead is worth asking for.
    ASSERT_EQ(::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED), 0);
    EXPECT_FALSE(platform::isInMemory(fd, (1 << 20) - 1));
    std::string bytes(4096, '\0');
    ASSERT_EQ(::pread(fd.get(), bytes.data(), bytes.size(), 0), 4096);
    EXPECT_TRUE(platform::isInMemory(fd, 0));
}

}  // namespace
}  // namespace dedup
