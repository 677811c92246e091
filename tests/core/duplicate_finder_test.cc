#include "duplicate_finder.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "hash_cache.h"
#include "hasher.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

std::vector<std::string> pathsOf(const DuplicateGroup& group) {
    std::vector<std::string> paths;
    for (const auto& file : group.files) paths.push_back(file.path);
    return paths;
}

ScanResult scan(const std::string& root, HashCache* cache = nullptr, int64_t minimumSize = 1) {
    DuplicateFinder finder;
    finder.options.minimumSize = minimumSize;
    finder.cache = cache;
    return finder.scan({root}, nullptr, nullptr);
}

class FinderOnVolume : public ::testing::TestWithParam<LoopVolume::Kind> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam());
        volume_ = test::sharedVolume(GetParam());
        root_ = test::freshFolder(volume_, "finder");
    }
    std::string at(const std::string& relative) const { return root_ + "/" + relative; }

    LoopVolume* volume_ = nullptr;
    std::string root_;
};

TEST_P(FinderOnVolume, CloneFamilyIsOneUnitAndAThirdCopyMakesAGroupOfThree) {
    test::writeRandomFile(at("a.jpg"), 300000, 1);
    test::reflinkCopy(at("a.jpg"), at("b.jpg"));
    // Files that already share every block are not duplicates of each other.
    EXPECT_TRUE(scan(root_).groups.empty());

    test::writeRandomFile(at("c.jpg"), 300000, 1);
    auto result = scan(root_);
    ASSERT_EQ(result.groups.size(), 1u);
    const auto& group = result.groups[0];
    // The larger family stands first, so it is kept and only the independent copy frees space.
    EXPECT_EQ(pathsOf(group), (std::vector<std::string>{at("a.jpg"), at("b.jpg"), at("c.jpg")}));
    EXPECT_EQ(group.reclaimableBytes, 300000);
    ASSERT_TRUE(group.files[0].clones && group.files[1].clones);
    EXPECT_EQ(group.files[0].clones->cloneID, group.files[1].clones->cloneID);
    EXPECT_EQ(group.files[0].clones->privateSize, 0);
    ASSERT_TRUE(group.files[2].clones);
    EXPECT_EQ(group.files[2].clones->privateSize, 300000);
}

TEST_P(FinderOnVolume, HardLinksAndForeignOwnersGiveNoGroup) {
    test::writeRandomFile(at("one"), 200000, 2);
    ASSERT_EQ(::link(at("one").c_str(), at("two").c_str()), 0);
    EXPECT_TRUE(scan(root_).groups.empty());

    if (::geteuid() == 0) {
        // Nobody may replace another user's files, so such a set is never shown.
        test::writeRandomFile(at("x"), 200000, 3);
        test::writeRandomFile(at("y"), 200000, 3);
        ASSERT_EQ(::chown(at("x").c_str(), 4242, 4242), 0);
        ASSERT_EQ(::chown(at("y").c_str(), 4242, 4242), 0);
        EXPECT_TRUE(scan(root_).groups.empty());
        // One replaceable copy is enough to show the set; the copies that cannot be replaced
        // stand first, so one of them is the copy kept.
        test::writeRandomFile(at("z"), 200000, 3);
        auto result = scan(root_);
        ASSERT_EQ(result.groups.size(), 1u);
        EXPECT_EQ(pathsOf(result.groups[0]), (std::vector<std::string>{at("x"), at("y"), at("z")}));
    }
}

TEST_P(FinderOnVolume, PrefixBoundaryDecidesWhetherTheWholeFileIsRead) {
    // Equal 64 KiB files need only the prefix digest, which is their whole digest.
    std::string exact = test::randomBytes(65536, 4);
    test::writeFile(at("e1"), exact);
    test::writeFile(at("e2"), exact);
    // One byte more, differing only in that last byte: the prefix agrees, the whole file does not.
    std::string longer = test::randomBytes(65537, 5);
    test::writeFile(at("l1"), longer);
    longer.back() ^= 0x5A;
    test::writeFile(at("l2"), longer);

    auto result = scan(root_);
    ASSERT_EQ(result.groups.size(), 1u);
    EXPECT_EQ(pathsOf(result.groups[0]), (std::vector<std::string>{at("e1"), at("e2")}));
    EXPECT_EQ(result.groups[0].digest, digestText(ContentHash::sha256(at("e1"), ContentHash::fullLimit)));
    // Prefixes of all four, and the whole of the two longer ones.
    EXPECT_EQ(result.bytesRead, 4 * 65536 + 2 * 65537);
}

TEST_P(FinderOnVolume, CacheIsReusedInvalidatedAndPruned) {
    test::TempDir data;
    HashCache cache(data.path("hashes.sqlite"));
    for (int i = 0; i < 3; ++i) test::writeRandomFile(at("p" + std::to_string(i)), 150000, 6);
    test::writeRandomFile(at("gone"), 150001, 7);
    test::writeRandomFile(at("gone2"), 150001, 7);

    auto first = scan(root_, &cache);
    ASSERT_EQ(first.groups.size(), 2u);
    EXPECT_GT(first.bytesRead, 0);

    // Nothing changed: no file content is read at all, and the findings are the same.
    auto second = scan(root_, &cache);
    EXPECT_EQ(second.bytesRead, 0);
    EXPECT_EQ(second.groups, first.groups);

    // A new modification time, a chmod and a new hard link each make the file a new version.
    struct timespec times[2] = {{0, UTIME_OMIT}, {1234567, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, at("p0").c_str(), times, 0), 0);
    auto touched = scan(root_, &cache);
    EXPECT_EQ(touched.bytesRead, 150000 + 65536);

    ASSERT_EQ(::chmod(at("p1").c_str(), 0600), 0);
    EXPECT_EQ(scan(root_, &cache).bytesRead, 150000 + 65536);

    ASSERT_EQ(::link(at("p2").c_str(), at("p2-link").c_str()), 0);
    EXPECT_EQ(scan(root_, &cache).bytesRead, 150000 + 65536);
    ASSERT_EQ(::unlink(at("p2-link").c_str()), 0);
    scan(root_, &cache);

    // Records of files that vanished below the root are pruned: a new file that happens to get
    // the same inode number must not inherit a digest.
    const ScannedFile vanished{at("gone2"), FileStatus::read(at("gone2")), {}};
    ASSERT_TRUE(cache.digest(HashCache::Kind::full, vanished));
    ASSERT_EQ(::unlink(at("gone2").c_str()), 0);
    scan(root_, &cache);
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, vanished));
    EXPECT_FALSE(cache.digest(HashCache::Kind::partial, vanished));
    // The file that is still there keeps its record.
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, ScannedFile{at("gone"), FileStatus::read(at("gone")), {}}));
}

TEST_P(FinderOnVolume, CancelledScanReportsSoAndLeavesTheCacheAlone) {
    test::TempDir data;
    HashCache cache(data.path("hashes.sqlite"));
    std::filesystem::create_directories(at("sub"));
    test::writeRandomFile(at("sub/a"), 100000, 8);
    test::writeRandomFile(at("sub/b"), 100000, 8);
    auto complete = scan(root_, &cache);
    ASSERT_EQ(complete.groups.size(), 1u);
    const ScannedFile kept = complete.groups[0].files[0];

    // Stop after the root folder: "sub" is never read, so its files are not seen this time.
    DuplicateFinder finder;
    finder.options.minimumSize = 1;
    finder.cache = &cache;
    int folders = 0;
    auto result = finder.scan({root_}, [&](const ScanProgress& p) {
        if (p.phase == ScanProgress::Phase::walking) ++folders;
    }, [&] { return folders >= 1; });
    EXPECT_TRUE(result.cancelled);
    EXPECT_TRUE(result.groups.empty());
    EXPECT_EQ(result.filesSeen, 0);
    // A cancelled scan did not see every file, so it must not prune what it missed.
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, kept));
}

TEST_P(FinderOnVolume, GroupsAreOrderedByWhatTheyFree) {
    test::writeRandomFile(at("small1"), 100000, 9);
    test::writeRandomFile(at("small2"), 100000, 9);
    test::writeRandomFile(at("big1"), 400000, 10);
    test::writeRandomFile(at("big2"), 400000, 10);
    test::writeRandomFile(at("mid1"), 150000, 11);
    test::writeRandomFile(at("mid2"), 150000, 11);
    test::writeRandomFile(at("mid3"), 150000, 11);
    // Same size, different content: no group.
    test::writeRandomFile(at("odd1"), 100000, 12);

    auto result = scan(root_);
    ASSERT_EQ(result.groups.size(), 3u);
    EXPECT_EQ(result.groups[0].reclaimableBytes, 400000);
    EXPECT_EQ(result.groups[1].reclaimableBytes, 300000);
    EXPECT_EQ(result.groups[2].reclaimableBytes, 100000);
    EXPECT_EQ(result.filesSeen, 8);
}

INSTANTIATE_TEST_SUITE_P(Volumes, FinderOnVolume,
                         ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

TEST(FinderTest, FileThatVanishedAfterTheWalkDropsOut) {
    test::TempDir dir;
    test::writeRandomFile(dir.path("a"), 70000, 13);
    test::writeRandomFile(dir.path("b"), 70000, 13);
    DuplicateFinder finder;
    std::vector<ScannedFile> files = {{dir.path("a"), FileStatus::read(dir.path("a")), {}},
                                      {dir.path("b"), FileStatus::read(dir.path("b")), {}},
                                      {dir.path("c"), FileStatus::read(dir.path("b")), {}}};
    files[2].status.inode += 1;
    auto grouping = finder.groups(files, false, nullptr, nullptr);
    ASSERT_EQ(grouping.groups.size(), 1u);
    EXPECT_EQ(pathsOf(grouping.groups[0]), (std::vector<std::string>{dir.path("a"), dir.path("b")}));
    EXPECT_FALSE(grouping.cancelled);
}

TEST(FinderTest, UnreadableFolderIsListedAndTheRestStillScanned) {
    if (::geteuid() == 0) GTEST_SKIP() << "root reads every folder";
    test::TempDir dir;
    test::writeRandomFile(dir.path("a"), 70000, 13);
    test::writeRandomFile(dir.path("b"), 70000, 13);
    std::filesystem::create_directories(dir.path("locked"));
    ASSERT_EQ(::chmod(dir.path("locked").c_str(), 0), 0);
    auto result = scan(dir.path());
    ::chmod(dir.path("locked").c_str(), 0700);
    EXPECT_EQ(result.unreadableFolders, std::vector<std::string>{dir.path("locked")});
    EXPECT_EQ(result.groups.size(), 1u);
}

}  // namespace
}  // namespace dedup
