#include "duplicate_finder.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "hash_cache.h"
#include "hasher.h"
#include "platform/clone.h"
#include "platform/system.h"
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
    ScannedFile file(const std::string& name) {
        if (!std::filesystem::exists(at(name))) test::writeFile(at(name), "content");
        return {at(name), FileStatus::read(at(name)), {}};
    }
    std::string database() const { return data_.path("nested/folder/hashes.sqlite"); }

    test::TempDir data_;
    LoopVolume* volume_ = nullptr;
    std::string root_;
};

TEST_P(FinderOnVolume, CloneFamilyIsOneUnitUntilWrittenAndAThirdCopyMakesAGroupOfThree) {
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
    EXPECT_NE(group.files[0].clones->cloneID, 0u);

    // Overwriting the start of one clone gives those blocks back to it alone; the extent map must be read
    // after the write reached the disk, or it would still show the old sharing.
    FILE* f = std::fopen(at("b.jpg").c_str(), "r+");
    ASSERT_NE(f, nullptr);
    std::fwrite(std::string(65536, 'z').data(), 1, 65536, f);
    std::fclose(f);
    auto changed = CloneInfo::read(at("b.jpg"));
    ASSERT_TRUE(changed);
    EXPECT_GE(changed->privateSize, 65536);
    EXPECT_NE(changed->cloneID, group.files[0].clones->cloneID);
    EXPECT_EQ(VolumeInfo::of(root_),
              (VolumeInfo{volume_->mountPoint(), volume_->device(), std::string(LoopVolume::kindName(GetParam()))}));
}

TEST_P(FinderOnVolume, HardLinksAndForeignOwnersGiveNoGroup) {
    test::writeRandomFile(at("one"), 200000, 2);
    ASSERT_EQ(::link(at("one").c_str(), at("two").c_str()), 0);
    EXPECT_TRUE(scan(root_).groups.empty());

    // Nobody may replace another user's files, so such a set is never shown. (With one copy of the
    // user's own it is: dedup reclaim proves that.)
    if (::geteuid() == 0) {
        test::writeRandomFile(at("x"), 200000, 3);
        test::writeRandomFile(at("y"), 200000, 3);
        ASSERT_EQ(::chown(at("x").c_str(), 4242, 4242), 0);
        ASSERT_EQ(::chown(at("y").c_str(), 4242, 4242), 0);
        EXPECT_TRUE(scan(root_).groups.empty());

        // One copy of the user's own: the set is shown, another user's copy stands first and is
        // kept, and only the user's copy counts as freed.
        test::writeRandomFile(at("z"), 200000, 3);
        auto result = scan(root_);
        ASSERT_EQ(result.groups.size(), 1u);
        EXPECT_EQ(pathsOf(result.groups[0]), (std::vector<std::string>{at("x"), at("y"), at("z")}));
        EXPECT_EQ(result.groups[0].reclaimableBytes, 200000);
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
    HashCache cache(database());
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

    // A scan that leaves the files out by their size has not seen them vanish: the next full scan
    // still reads nothing.
    EXPECT_TRUE(scan(root_, &cache, 1 << 20).groups.empty());
    EXPECT_EQ(scan(root_, &cache).bytesRead, 0);
}

// A program saves over a file in place with bytes of the same length and puts its modification
// time back: only the change time tells. The second scan, which answers from the records it read
// in one pass, must read that file again and no longer take it for a copy; names need not be UTF-8.
TEST_P(FinderOnVolume, FileRewrittenInPlaceWithItsSizeAndDateIsReadAgain) {
    HashCache cache(database());
    for (const char* name : {"small\xff", "small copy\xfe"}) test::writeRandomFile(at(name), 3000, 1);
    for (const char* name : {"large\xff", "large copy\xfe"}) test::writeRandomFile(at(name), 150000, 2);
    ASSERT_EQ(scan(root_, &cache).groups.size(), 2u);
    auto second = scan(root_, &cache);
    EXPECT_EQ(second.bytesRead, 0);
    ASSERT_EQ(second.groups.size(), 2u);

    for (const char* name : {"small copy\xfe", "large copy\xfe"}) {
        const FileStatus before = FileStatus::read(at(name));
        int fd = ::open(at(name).c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, "changed", 7, 1000), 7);
        ::close(fd);
        struct timespec times[2] = {{0, UTIME_OMIT}, {before.modified.seconds, before.modified.nanoseconds}};
        ASSERT_EQ(::utimensat(AT_FDCWD, at(name).c_str(), times, 0), 0);
        const FileStatus after = FileStatus::read(at(name));
        ASSERT_EQ(after.size, before.size);
        ASSERT_EQ(after.modified, before.modified);
        ASSERT_EQ(after.inode, before.inode);
    }
    auto rewritten = scan(root_, &cache);
    EXPECT_TRUE(rewritten.groups.empty());
    EXPECT_EQ(rewritten.bytesRead, 3000 + 65536) << "the two rewritten files, and only they";
}

TEST_P(FinderOnVolume, KeptBlocksServeUntilAReclaimIsJournalledAFullCheckOrANewVersion) {
    const std::string journal = data_.path("journal.jsonl");
    HashCache cache(database(), journal);
    auto scanned = [&](bool fullCheck = false) {
        DuplicateFinder finder;
        finder.options.minimumSize = 1;
        finder.cache = &cache;
        finder.fullCheck = fullCheck;
        return finder.scan({root_}, nullptr, nullptr);
    };
    auto shareInPlace = [&](const std::string& kept, const std::string& copy) {
        FileStatus before = FileStatus::read(at(copy));
        auto source = platform::openForReading(at(kept));
        auto target = platform::openForReading(at(copy));
        ASSERT_EQ(platform::shareInPlace(source, target, before.size, at(copy)), platform::ShareOutcome::shared);
        // Sharing changes neither size nor times: only the journal or a full check can tell.
        ASSERT_TRUE(FileStatus::read(at(copy)).isSameVersion(before));
    };
    std::ofstream(journal) << "{}\n";  // an earlier reclaim's
    test::writeRandomFile(at("a"), 300000, 3);
    test::writeRandomFile(at("b"), 300000, 3);
    test::writeRandomFile(at("c"), 200000, 4);
    test::writeRandomFile(at("d"), 200000, 4);
    ASSERT_EQ(scanned().groups.size(), 2u);

    // Blocks shared behind the engine's back: the kept facts still count the copies apart, so
    // the report errs on the side of work left to do, until a full check reads the maps again.
    shareInPlace("a", "b");
    EXPECT_EQ(scanned().groups.size(), 2u);
    auto checked = scanned(true);
    ASSERT_EQ(checked.groups.size(), 1u);
    EXPECT_EQ(pathsOf(checked.groups[0]), (std::vector<std::string>{at("c"), at("d")}));
    EXPECT_EQ(scanned().groups.size(), 1u) << "what the full check read is kept";

    // A reclaim writes to the journal around every change: the next scan reads the maps again.
    shareInPlace("c", "d");
    std::ofstream(journal, std::ios::app) << "{}\n";
    EXPECT_TRUE(scanned().groups.empty());

    // A copy saved again with the same bytes and its old date put back holds blocks of its own
    // once more; only its change time tells, and that is enough for it to be read again.
    FileStatus old = FileStatus::read(at("b"));
    test::writeRandomFile(at("b"), 300000, 3);
    struct timespec times[2] = {{0, UTIME_OMIT}, {old.modified.seconds, old.modified.nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, at("b").c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    FileStatus now = FileStatus::read(at("b"));
    ASSERT_EQ(now.modified, old.modified);
    ASSERT_EQ(now.size, old.size);
    auto again = scanned();
    ASSERT_EQ(again.groups.size(), 1u);
    EXPECT_EQ(pathsOf(again.groups[0]), (std::vector<std::string>{at("a"), at("b")}));
    EXPECT_EQ(again.groups[0].reclaimableBytes, 300000);
}

TEST_P(FinderOnVolume, CancelledScanReportsSoAndLeavesTheCacheAlone) {
    HashCache cache(database());
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

TEST_P(FinderOnVolume, FilesOfHolesAloneAreNeverGroupedOrCounted) {
    // Four files that all read as a MiB of zeros: two never written, two written.
    constexpr int64_t size = 1 << 20;
    for (const char* name : {"holes1", "holes2"}) {
        test::writeFile(at(name), "");
        std::filesystem::resize_file(at(name), size);
    }
    test::writeFile(at("zeros1"), std::string(size, '\0'));
    test::writeFile(at("zeros2"), std::string(size, '\0'));
    auto result = scan(root_);
    ASSERT_EQ(result.groups.size(), 1u);
    EXPECT_EQ(pathsOf(result.groups[0]), (std::vector<std::string>{at("zeros1"), at("zeros2")}));
    EXPECT_EQ(result.groups[0].reclaimableBytes, size);
    EXPECT_TRUE(CloneInfo::read(at("holes1"))->noBlocks);
    EXPECT_FALSE(CloneInfo::read(at("zeros1"))->noBlocks);

    // Holes beside one written copy: nothing to share.
    std::filesystem::remove(at("zeros2"));
    EXPECT_TRUE(scan(root_).groups.empty());
}

// The identifier as a user who is not root sees it, asked in a child that takes on a made-up id.
std::string volumeIdentifierAsUser(const std::string& path) {
    int answer[2];
    if (::pipe2(answer, O_CLOEXEC) != 0) return "pipe failed";
    pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(54321, 54321, 54321) != 0 || ::setresuid(54321, 54321, 54321) != 0) ::_exit(1);
        std::string text = platform::volumeIdentifier(path, true).value_or("none");
        ::_exit(::write(answer[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    ::close(answer[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = ::read(answer[0], buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
    ::close(answer[0]);
    ::waitpid(child, nullptr, 0);
    return text;
}

TEST_P(FinderOnVolume, CacheKnowsTheDiskWhateverTheFirstFileAskedAbout) {
    // The first file asked about went away after the listing: the disk is still known.
    HashCache cache(database());
    ScannedFile gone = file("gone");
    std::filesystem::remove(at("gone"));
    ScannedFile present = file("present");
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, gone));
    cache.store("d", HashCache::Kind::full, present);
    EXPECT_EQ(cache.digest(HashCache::Kind::full, present), "d");

    // A file its user cannot open: the disk is known by its mount point, as for anyone else.
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to take on another user's id";
    ASSERT_EQ(::chmod(volume_->folder().c_str(), 0755), 0);
    ScannedFile closed = file("private");
    ASSERT_EQ(::chmod(at("private").c_str(), 0600), 0);
    auto expected = platform::volumeIdentifier(at("present"), true);
    ASSERT_TRUE(expected);
    EXPECT_EQ(volumeIdentifierAsUser(at("private")), *expected);
}

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

TEST(FinderTest, ScanCancelledAtAnyPointGroupsOnlyIdenticalFiles) {
    test::TempDir dir;
    // One size and the same first 64 KiB: only the whole files tell these apart.
    const std::string same = test::randomBytes(100000, 21);
    for (int i = 0; i < 4; ++i) {
        std::string bytes = same;
        bytes.back() = static_cast<char>(bytes.back() ^ (i + 1));
        test::writeFile(dir.path("differs" + std::to_string(i)), bytes);
    }
    test::writeFile(dir.path("same1"), same);
    test::writeFile(dir.path("same2"), same);
    // Stop at every point the scan asks, one after the other, until it is no longer stopped.
    for (int stopAt = 0;; ++stopAt) {
        ASSERT_LT(stopAt, 100000);
        std::atomic<int> asked{0};
        DuplicateFinder finder;
        finder.options.minimumSize = 1;
        auto result = finder.scan({dir.path()}, nullptr, [&] { return ++asked > stopAt; });
        for (const auto& group : result.groups) {
            for (const auto& file : group.files) {
                EXPECT_EQ(test::readFile(file.path), same) << file.path << " stopped at " << stopAt;
            }
        }
        if (!result.cancelled) {
            ASSERT_EQ(result.groups.size(), 1u);
            break;
        }
    }
}

TEST(HasherTest, DigestsOfKnownContentAndPrefixesAcrossChunks) {
    test::TempDir dir;
    test::writeFile(dir.path("abcdef"), "abcdef");
    EXPECT_EQ(digestText(ContentHash::sha256(dir.path("abcdef"), 3)),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");  // SHA-256 of "abc"
    // A file of 2.5 MiB read with a prefix limit that ends inside the second chunk.
    std::string big = test::randomBytes(5 << 19, 31);
    test::writeFile(dir.path("big"), big);
    test::writeFile(dir.path("big-prefix"), big.substr(0, 1500000));
    EXPECT_EQ(ContentHash::sha256(dir.path("big"), 1500000),
              ContentHash::sha256(dir.path("big-prefix"), ContentHash::fullLimit));
    // The comparison before a swap looks past the first chunk too.
    big[(2 << 20) + 17] ^= 1;
    test::writeFile(dir.path("big-changed"), big);
    EXPECT_FALSE(sameContent(dir.path("big"), dir.path("big-changed")));
    EXPECT_TRUE(sameContent(dir.path("big"), dir.path("big")));
}

// The finder hashes serially on rotating disks, which the loop devices of the volume tests may claim
// to be: the parallel path is proven here.
TEST(HasherTest, ManyFilesInParallelMatchOneByOneCountBytesAndStopWhenCancelled) {
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
    EXPECT_EQ(parallel, Hasher::digests(files, 65536, true, nullptr, serialBytes, nullptr, nullptr));
    EXPECT_FALSE(parallel.back());  // a file that vanished has no digest, and is no error
    int64_t expected = 0;
    for (size_t i = 0; i + 1 < files.size(); ++i) {
        expected += std::min<int64_t>(files[i].status.size, 65536);
        EXPECT_EQ(*parallel[i], digestText(ContentHash::sha256(files[i].path, 65536)));
    }
    EXPECT_EQ(parallelBytes.get(), expected);

    // Cancelled after the fourth file: those four have digests and none after them.
    std::atomic<int> read{0};
    auto cancelled = Hasher::digests(files, 65536, true, nullptr, serialBytes, [&](const std::string&) { ++read; },
                                     [&] { return read >= 4; });
    EXPECT_EQ(std::count_if(cancelled.begin(), cancelled.end(), [](const auto& d) { return d.has_value(); }), 4);
    EXPECT_TRUE(cancelled[3] && !cancelled[4]);
}

TEST_P(FinderOnVolume, CacheKeepsBothDigestsOfOneVersionSurvivesReopeningAndBearsALock) {
    ScannedFile f = file("a"), bigger = f;
    bigger.status.size += 1;
    {
        HashCache cache(database());
        cache.store("p1", HashCache::Kind::partial, f);
        cache.store("f1", HashCache::Kind::full, f);
        EXPECT_EQ(cache.digest(HashCache::Kind::partial, f), "p1");
        EXPECT_EQ(cache.digest(HashCache::Kind::full, f), "f1");
        // Storing for a newer version drops the older digest of the other kind.
        EXPECT_FALSE(cache.digest(HashCache::Kind::partial, bigger));
        cache.store("f2", HashCache::Kind::full, bigger);
        EXPECT_FALSE(cache.digest(HashCache::Kind::partial, bigger));
        EXPECT_FALSE(cache.digest(HashCache::Kind::full, f));
    }
    HashCache reopened(database());
    EXPECT_EQ(reopened.digest(HashCache::Kind::full, bigger), "f2");

    // Another program holding the database locked never stops the work: writes are dropped and
    // reads still answer from what is committed.
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(database().c_str(), &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
    for (int i = 0; i < 50; ++i) reopened.store("during", HashCache::Kind::partial, bigger);
    EXPECT_EQ(reopened.digest(HashCache::Kind::full, bigger), "f2");
    sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr);
    sqlite3_close(other);
}

TEST_P(FinderOnVolume, CachePruneRemovesOnlyUnseenFilesUnderTheRoots) {
    HashCache cache(database());
    ScannedFile seen = file("in/seen");
    ScannedFile unseen = file("in/unseen");
    ScannedFile sibling = file("inner/other");  // "/in" must not prune "/inner"
    for (const auto& f : {seen, unseen, sibling}) cache.store("d", HashCache::Kind::full, f);

    cache.prune({}, {seen});
    cache.prune({root_ + "/does-not-exist"}, {});
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, unseen));

    // Not seen but still there, as a file the scan's filters left out is: kept.
    ScannedFile leftOut = file("in/left-out");
    cache.store("d", HashCache::Kind::full, leftOut);
    std::filesystem::remove(unseen.path);
    cache.prune({root_ + "/in"}, {seen});
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, seen));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, leftOut));
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, unseen));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, sibling));

    // Many records of files elsewhere on the volume, which no scan of this root sees: they stay,
    // and an unseen file under the root still goes.
    ScannedFile again = file("in/again");
    cache.store("d", HashCache::Kind::full, again);
    std::vector<ScannedFile> elsewhere;
    for (int i = 0; i < 1500; ++i) {
        ScannedFile f = seen;
        f.path = root_ + "/elsewhere/" + std::to_string(i);
        f.status.inode = 500000 + static_cast<uint64_t>(i);
        cache.store("e", HashCache::Kind::full, f);
        elsewhere.push_back(f);
    }
    std::filesystem::remove(again.path);
    cache.prune({root_ + "/in"}, {seen});
    EXPECT_FALSE(cache.digest(HashCache::Kind::full, again));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, leftOut));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, seen));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, elsewhere.front()));
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, elsewhere.back()));

    // Below a root with non-ASCII characters only the root itself is matched: records there are
    // kept rather than wrongly dropped.
    ScannedFile accented = file("Fotos é/x");
    cache.store("d", HashCache::Kind::full, accented);
    cache.prune({root_ + "/Fotos é"}, {});
    EXPECT_TRUE(cache.digest(HashCache::Kind::full, accented));
}

TEST(FileRecordsTest, NoExtentMapMeansUnknownNotUnshared) {
    // tmpfs keeps no extent map: were its files given facts, they would all look like one family.
    std::string path = "/dev/shm/dedup-clone-info-" + std::to_string(::getpid());
    if (!std::filesystem::exists("/dev/shm")) GTEST_SKIP() << "no tmpfs at /dev/shm";
    test::writeFile(path, "data");
    EXPECT_FALSE(CloneInfo::read(path));
    ::unlink(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Volumes, FinderOnVolume,
                         ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

}  // namespace
}  // namespace dedup
