#include "hasher.h"

#include <gtest/gtest.h>

#include <atomic>

#include "hash_cache.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

constexpr const char* emptyDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* abcDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(HasherTest, DigestsOfKnownContentAndPrefixes) {
    test::TempDir dir;
    test::writeFile(dir.path("empty"), "");
    test::writeFile(dir.path("abc"), "abc");
    test::writeFile(dir.path("abcdef"), "abcdef");
    EXPECT_EQ(digestText(ContentHash::sha256(dir.path("empty"), ContentHash::fullLimit)), emptyDigest);
    EXPECT_EQ(digestText(ContentHash::sha256(dir.path("abc"), ContentHash::fullLimit)), abcDigest);
    EXPECT_EQ(digestText(ContentHash::sha256(dir.path("abcdef"), 3)), abcDigest);
    EXPECT_EQ(digestText(ContentHash::sha256(dir.path("abcdef"), 0)), emptyDigest);
    // Several chunks: a file of 2.5 MiB read with a prefix limit that ends inside the second chunk.
    std::string big = test::randomBytes(5 << 19, 31);
    test::writeFile(dir.path("big"), big);
    test::writeFile(dir.path("big-prefix"), big.substr(0, 1500000));
    EXPECT_EQ(ContentHash::sha256(dir.path("big"), 1500000),
              ContentHash::sha256(dir.path("big-prefix"), ContentHash::fullLimit));
    EXPECT_THROW(ContentHash::sha256(dir.path("missing"), 10), SystemError);
}

TEST(HasherTest, ManyFilesInParallelMatchOneByOneAndCountBytes) {
    test::TempDir dir;
    std::vector<ScannedFile> files;
    for (int i = 0; i < 40; ++i) {
        std::string path = dir.path("f" + std::to_string(i));
        test::writeRandomFile(path, 1000 + i * 5000, static_cast<uint64_t>(i % 4));
        files.push_back({path, FileStatus::read(path), {}});
    }
    files.push_back({dir.path("vanished"), files[0].status, {}});
    Locked<int64_t> parallelBytes{0}, serialBytes{0};
    auto parallel = Hasher::digests(files, 65536, false, nullptr, parallelBytes, nullptr, nullptr, 4);
    auto serial = Hasher::digests(files, 65536, true, nullptr, serialBytes, nullptr, nullptr);
    EXPECT_EQ(parallel, serial);
    EXPECT_FALSE(parallel.back());  // a file that vanished has no digest, and is no error
    int64_t expected = 0;
    for (size_t i = 0; i + 1 < files.size(); ++i) {
        expected += std::min<int64_t>(files[i].status.size, 65536);
        EXPECT_EQ(*parallel[i], digestText(ContentHash::sha256(files[i].path, 65536)));
    }
    EXPECT_EQ(parallelBytes.get(), expected);
}

TEST(HasherTest, CancellationLeavesTheRestAbsent) {
    test::TempDir dir;
    std::vector<ScannedFile> files;
    for (int i = 0; i < 10; ++i) {
        std::string path = dir.path("f" + std::to_string(i));
        test::writeFile(path, "x" + std::to_string(i));
        files.push_back({path, FileStatus::read(path), {}});
    }
    Locked<int64_t> bytes{0};
    std::atomic<int> read{0};
    auto digests = Hasher::digests(files, ContentHash::fullLimit, true, nullptr, bytes,
                                   [&](const std::string&) { ++read; }, [&] { return read >= 4; });
    EXPECT_EQ(std::count_if(digests.begin(), digests.end(), [](const auto& d) { return d.has_value(); }), 4);
    EXPECT_TRUE(digests[3] && !digests[4]);
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

TEST(HasherTest, SameContentComparesEveryByte) {
    test::TempDir dir;
    std::string content = test::randomBytes(3 << 20, 32);
    test::writeFile(dir.path("a"), content);
    test::writeFile(dir.path("b"), content);
    EXPECT_TRUE(sameContent(dir.path("a"), dir.path("a")));
    EXPECT_TRUE(sameContent(dir.path("a"), dir.path("b")));
    content[(2 << 20) + 17] ^= 1;
    test::writeFile(dir.path("c"), content);
    EXPECT_FALSE(sameContent(dir.path("a"), dir.path("c")));
    test::writeFile(dir.path("short"), content.substr(0, content.size() - 1));
    EXPECT_FALSE(sameContent(dir.path("b"), dir.path("short")));
    EXPECT_THROW(sameContent(dir.path("a"), dir.path("missing")), SystemError);
}

}  // namespace
}  // namespace dedup
