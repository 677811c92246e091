#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "across_volumes.h"
#include "core/volumes.h"
#include "duplicate_finder.h"
#include "hash_cache.h"
#include "hasher.h"
#include "journal.h"
#include "path_names.h"
#include "platform/file_io.h"
#include "support/test_files.h"
#include "platform/trash.h"
#include "trash_mover.h"
#include "walk.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

// A folder on a Btrfs and one on an XFS: two disks, as the search sees them.
struct TwoDisks {
    std::string left, right;
    LoopVolume* leftVolume = nullptr;
    LoopVolume* rightVolume = nullptr;
};

TwoDisks twoDisks(const std::string& name) {
    TwoDisks disks;
    disks.leftVolume = test::sharedVolume(LoopVolume::Kind::btrfs);
    disks.rightVolume = test::sharedVolume(LoopVolume::Kind::xfs);
    disks.left = test::freshFolder(disks.leftVolume, name);
    disks.right = test::freshFolder(disks.rightVolume, name);
    return disks;
}

// A small photo library with everything a tree can hold: nested folders, an empty file, an empty
// folder and a symbolic link.
void makeLibrary(const std::string& top) {
    test::writeRandomFile(top + "/2024/beach.jpg", 300000, 1);
    test::writeRandomFile(top + "/2024/trip/hill.jpg", 70000, 2);
    test::writeFile(top + "/2024/trip/notes.txt", "hill at dawn");
    test::writeFile(top + "/empty.txt", "");
    fs::create_directories(top + "/to-sort");
    fs::create_symlink("2024/beach.jpg", top + "/cover.jpg");
}

AcrossResult search(const std::vector<std::string>& roots, bool folders, HashCache* cache = nullptr) {
    AcrossOptions options;
    options.folders = folders;
    options.cache = cache;
    return AcrossVolumes::find(roots, options, nullptr, [] { return false; });
}

bool reportsTree(const AcrossResult& result, const std::string& a, const std::string& b) {
    for (const auto& tree : result.trees) {
        auto has = [&](const std::string& p) { return std::find(tree.folders.begin(), tree.folders.end(), p) != tree.folders.end(); };
        if (has(a) && has(b)) return true;
    }
    return false;
}

#define REQUIRE_TWO_DISKS()                            \
    do {                                               \
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs); \
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);   \
    } while (0)

TEST(AcrossVolumesTest, IdenticalTreeIsReportedOnceNotAgainAsItsSubfoldersOrFiles) {
    REQUIRE_TWO_DISKS();
    auto disks = twoDisks("across-tree");
    makeLibrary(disks.left + "/Photos");
    makeLibrary(disks.right + "/Backup/Photos");
    test::writeRandomFile(disks.left + "/only-here.bin", 5000, 3);
    // The same file twice on one disk and nowhere else: the scan's business, not this search's.
    test::writeRandomFile(disks.left + "/a.bin", 9000, 4);
    test::writeRandomFile(disks.left + "/b.bin", 9000, 4);
    // A loose file copied to both disks.
    test::writeRandomFile(disks.left + "/movie.mkv", 900000, 5);
    test::writeRandomFile(disks.right + "/movie.mkv", 900000, 5);

    // A copy already in the home Trash is no copy to find again.
    std::string data = disks.left + "/home/.local/share";
    test::writeRandomFile(data + "/Trash/files/movie.mkv", 900000, 5);
    std::string saved = std::getenv("XDG_DATA_HOME") ? std::getenv("XDG_DATA_HOME") : "";
    ::setenv("XDG_DATA_HOME", data.c_str(), 1);
    auto result = search({disks.left, disks.right}, true);
    if (saved.empty()) {
        ::unsetenv("XDG_DATA_HOME");
    } else {
        ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
    }
    ASSERT_EQ(result.trees.size(), 1u);
    const auto& tree = result.trees.front();
    EXPECT_EQ(tree.folders, (std::vector<std::string>{disks.left + "/Photos", disks.right + "/Backup/Photos"}));
    EXPECT_NE(tree.volumes[0], tree.volumes[1]);
    EXPECT_EQ(tree.bytes, 300000 + 70000 + 12);
    EXPECT_EQ(tree.fileCount, 4);

    // Only the loose copy is left to say, and it frees more than the tree, so it comes first.
    ASSERT_EQ(result.files.size(), 1u);
    EXPECT_EQ(result.files[0].files.size(), 2u);
    EXPECT_EQ(result.files[0].files[0].path, disks.left + "/movie.mkv");
    EXPECT_EQ(result.files[0].size, 900000);

    // Without --folders the photos are files like any other, ordered by what they free.
    auto files = search({disks.left, disks.right}, false);
    EXPECT_TRUE(files.trees.empty());
    ASSERT_EQ(files.files.size(), 4u);
    EXPECT_EQ(files.files[0].size, 900000);
    EXPECT_EQ(files.files[1].size, 300000);
    EXPECT_EQ(files.files[3].size, 12);
    EXPECT_GE(files.files[0].freedBytes, files.files[1].freedBytes);
}

// Paths of each set of identical files by its digest.
using SetsByDigest = std::map<std::string, std::vector<std::string>>;

SetsByDigest setsOf(const AcrossResult& result) {
    SetsByDigest sets;
    for (const auto& group : result.files) {
        for (const auto& file : group.files) sets[group.digest].push_back(file.path);
    }
    return sets;
}

TEST(AcrossVolumesTest, BothDisksReadAtOnceGroupExactlyAsTheScansGroupingAndAsOneReader) {
    REQUIRE_TWO_DISKS();
    auto disks = twoDisks("across-groups");
    // Enough sets of every kind that the readers of the two disks run side by side a while.
    for (int k = 0; k < 40; ++k) {
        std::string n = std::to_string(k);
        auto seed = static_cast<uint64_t>(k);
        int64_t small = 1000 + k * 37;
        int64_t large = 70000 + k * 1013;
        test::writeRandomFile(disks.left + "/both/s" + n, small, seed);
        test::writeRandomFile(disks.right + "/both/s" + n, small, seed);
        test::writeRandomFile(disks.left + "/both/l" + n, large, 100 + seed);
        test::writeRandomFile(disks.right + "/copy/l" + n, large, 100 + seed);
        // A third copy, or a third file of the size that is no copy.
        if (k % 3 == 0) test::writeRandomFile(disks.right + "/third/l" + n, large, 100 + seed);
        if (k % 4 == 0) test::writeRandomFile(disks.left + "/other/l" + n, large, 700 + seed);
        // A second set of that size: whichever file is read first, its copies differ from it on
        // each disk apart, and must still be found to be one set.
        if (k % 5 == 0) {
            test::writeRandomFile(disks.left + "/second/l" + n, large, 800 + seed);
            test::writeRandomFile(disks.right + "/second/l" + n, large, 800 + seed);
        }
        // One size on both disks, other bytes: from the first byte, and in the last byte only.
        test::writeRandomFile(disks.left + "/differs/start" + n, 200000 + k * 7, 300 + seed);
        test::writeRandomFile(disks.right + "/differs/start" + n, 200000 + k * 7, 400 + seed);
        std::string bytes = test::randomBytes(150000 + k * 5, 500 + seed);
        test::writeFile(disks.left + "/differs/end" + n, bytes);
        bytes.back() = static_cast<char>(bytes.back() ^ 1);
        test::writeFile(disks.right + "/differs/end" + n, bytes);
        // Copies on one disk only: the scan's business.
        test::writeRandomFile(disks.left + "/here/a" + n, small + 5000, 600 + seed);
        test::writeRandomFile(disks.left + "/here/b" + n, small + 5000, 600 + seed);
        // More small files of one size than are read side by side, each copy under another name,
        // so that most sets are read in different turns; one in eight has no copy.
        std::string mirrored = std::to_string(100 + 39 - k);
        test::writeRandomFile(disks.left + "/crowd/a" + std::to_string(100 + k), 4000, 900 + seed);
        test::writeRandomFile(disks.right + "/crowd/z" + mirrored, 4000, k % 8 == 0 ? 1900 + seed : 900 + seed);
    }

    Walk walk;
    walk.visit(disks.left);
    walk.visit(disks.right);
    auto grouping = DuplicateFinder{}.groups(walk.files, true, nullptr, [] { return false; });
    SetsByDigest expected;
    for (const auto& group : grouping.groups) {
        std::set<std::string> volumes;
        std::vector<std::string> paths;
        for (const auto& file : group.files) {
            volumes.insert(AcrossVolumes::volumeOf(file.path, file.status.device));
            paths.push_back(file.path);
        }
        std::sort(paths.begin(), paths.end());
        if (volumes.size() >= 2) expected[group.digest] = paths;
    }
    ASSERT_EQ(expected.size(), 88u + 35u);

    auto atOnce = search({disks.left, disks.right}, false);
    EXPECT_EQ(setsOf(atOnce), expected);
    AcrossOptions oneByOne;
    oneByOne.threads = 1;
    auto oneReader = AcrossVolumes::find({disks.left, disks.right}, oneByOne, nullptr, [] { return false; });
    EXPECT_EQ(setsOf(oneReader), expected);
    for (const auto& group : atOnce.files) {
        EXPECT_EQ(group.freedBytes, group.size) << group.files.front().path;
        EXPECT_NE(group.volumes.front(), group.volumes.back());
    }
    // Not in memory, the small files are read the other way, each disk in its own order.
    ::sync();
    for (const auto& file : walk.files) {
        auto fd = platform::openForReading(file.path);
        ASSERT_EQ(::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED), 0);
    }
    EXPECT_EQ(setsOf(search({disks.left, disks.right}, false)), expected);
}

TEST(AcrossVolumesTest, WhatRemovingACopyFreesStaysExactWhereCopiesShareBlocks) {
    REQUIRE_TWO_DISKS();
    auto disks = twoDisks("across-freed");
    // Each copy of the tree shares the blocks of one of its files with a file outside it, a
    // larger one on the left than on the right: removing the right copy frees the most.
    for (const auto& top : {disks.left + "/Album", disks.right + "/Album"}) {
        test::writeRandomFile(top + "/big.raw", 200000, 31);
        test::writeRandomFile(top + "/small.raw", 100000, 32);
        test::writeRandomFile(top + "/rest.raw", 50000, 33);
    }
    test::reflinkCopy(disks.left + "/Album/big.raw", disks.left + "/big-clone.raw");
    test::reflinkCopy(disks.right + "/Album/small.raw", disks.right + "/small-clone.raw");
    // A loose file whose every copy shares its blocks on its own disk: removing any frees nothing.
    test::writeRandomFile(disks.left + "/shared.bin", 300000, 34);
    test::writeRandomFile(disks.right + "/shared.bin", 300000, 34);
    test::reflinkCopy(disks.left + "/shared.bin", disks.left + "/shared-clone.bin");
    test::reflinkCopy(disks.right + "/shared.bin", disks.right + "/shared-clone.bin");

    auto result = search({disks.left, disks.right}, true);
    ASSERT_TRUE(reportsTree(result, disks.left + "/Album", disks.right + "/Album")) << nlohmann::json(result).dump();
    EXPECT_EQ(result.trees.front().bytes, 350000);
    EXPECT_EQ(result.trees.front().freedBytes, 250000);
    auto loose = std::find_if(result.files.begin(), result.files.end(),
                              [](const AcrossFileGroup& g) { return g.size == 300000; });
    ASSERT_NE(loose, result.files.end());
    EXPECT_EQ(loose->files.size(), 4u);
    EXPECT_EQ(loose->freedBytes, 0);
    // Without folders, the copies of small.raw: the left one is all its own.
    auto files = search({disks.left, disks.right}, false);
    auto small = std::find_if(files.files.begin(), files.files.end(),
                              [](const AcrossFileGroup& g) { return g.size == 100000; });
    ASSERT_NE(small, files.files.end());
    EXPECT_EQ(small->freedBytes, 100000);
    // And of big.raw, whose extent maps are read while the copies are open for their digests: the
    // right one, all its own, frees its size though the left ones share their blocks.
    auto big = std::find_if(files.files.begin(), files.files.end(),
                            [](const AcrossFileGroup& g) { return g.size == 200000; });
    ASSERT_NE(big, files.files.end());
    EXPECT_EQ(big->freedBytes, 200000);
}

TEST(AcrossVolumesTest, TreeDiffersByOneByteOneEntryOrOneNameOrLinkTargetAndSaysWhat) {
    REQUIRE_TWO_DISKS();
    using Change = std::function<void(const std::string&)>;
    std::vector<std::pair<std::string, Change>> changes = {
        {"one byte", [](const std::string& t) { test::writeFile(t + "/2024/trip/notes.txt", "hill at dusk"); }},
        {"extra empty file", [](const std::string& t) { test::writeFile(t + "/2024/new.txt", ""); }},
        {"extra empty folder", [](const std::string& t) { fs::create_directories(t + "/2024/trip/more"); }},
        {"renamed file", [](const std::string& t) { fs::rename(t + "/2024/beach.jpg", t + "/2024/Beach.jpg"); }},
        {"file for folder", [](const std::string& t) {
             fs::remove(t + "/to-sort");
             test::writeFile(t + "/to-sort", "");
         }},
        {"folder for file", [](const std::string& t) {
             fs::remove(t + "/2024/trip/notes.txt");
             test::writeFile(t + "/2024/trip/notes.txt/dawn.txt", "hill at dawn");
         }},
        {"link target", [](const std::string& t) {
             fs::remove(t + "/cover.jpg");
             fs::create_symlink("2024/trip/hill.jpg", t + "/cover.jpg");
         }},
    };
    for (const auto& [what, apply] : changes) {
        SCOPED_TRACE(what);
        auto disks = twoDisks("across-near");
        makeLibrary(disks.left + "/Photos");
        makeLibrary(disks.right + "/Photos");
        apply(disks.right + "/Photos");
        auto result = search({disks.left, disks.right}, true);
        EXPECT_FALSE(reportsTree(result, disks.left + "/Photos", disks.right + "/Photos"));
        if (what == "one byte" || what == "extra empty file" || what == "renamed file" || what == "folder for file") {
            // Mostly the same: said as nearly identical, with what differs.
            ASSERT_EQ(result.nearlyIdentical.size(), 1u);
            const auto& near = result.nearlyIdentical.front();
            EXPECT_EQ(near.folders, (std::vector<std::string>{disks.left + "/Photos", disks.right + "/Photos"}));
            using Paths = std::vector<std::string>;
            if (what == "one byte") {
                EXPECT_EQ(near.changed, Paths{"2024/trip/notes.txt"});
            }
            if (what == "extra empty file") {
                EXPECT_EQ(near.onlyInSecond, Paths{"2024/new.txt"});
            }
            if (what == "renamed file") {
                EXPECT_EQ(near.onlyInFirst, Paths{"2024/beach.jpg"});
                EXPECT_EQ(near.onlyInSecond, Paths{"2024/Beach.jpg"});
            }
            if (what == "folder for file") {
                EXPECT_EQ(near.onlyInFirst, Paths{"2024/trip/notes.txt"});
                EXPECT_EQ(near.onlyInSecond, Paths{"2024/trip/notes.txt/dawn.txt"});
                EXPECT_EQ(near.sameFiles, 3);
            }
        }
    }
    // Identical trees are not nearly identical too.
    auto disks = twoDisks("across-near");
    makeLibrary(disks.left + "/Photos");
    makeLibrary(disks.right + "/Photos");
    test::writeFile(disks.left + "/elsewhere.txt", "only here");
    auto same = search({disks.left, disks.right}, true);
    EXPECT_TRUE(reportsTree(same, disks.left + "/Photos", disks.right + "/Photos"));
    EXPECT_TRUE(same.nearlyIdentical.empty()) << nlohmann::json(same).dump();
}

TEST(AcrossVolumesTest, SecondSearchOfUnchangedTreesReadsNoContent) {
    REQUIRE_TWO_DISKS();
    auto disks = twoDisks("across-cache");
    makeLibrary(disks.left + "/Photos");
    makeLibrary(disks.right + "/Photos");
    test::TempDir cacheFolder;
    HashCache cache(cacheFolder.path("hashes.sqlite"));
    auto first = search({disks.left, disks.right}, true, &cache);
    EXPECT_GT(first.bytesRead, 0);
    auto second = search({disks.left, disks.right}, true, &cache);
    EXPECT_EQ(second.bytesRead, 0);
    EXPECT_EQ(second.trees, first.trees);
    EXPECT_EQ(second.trees.size(), 1u);
}

class TrashMoverTest : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_TWO_DISKS();
        disks = twoDisks("across-trash");
        journal = std::make_unique<Journal>(journalFolder.path("journal.jsonl"));
    }
    std::string trashFiles(LoopVolume* volume) const { return volume->mountPoint() + "/.Trash-" + std::to_string(::geteuid()) + "/files"; }

    TwoDisks disks;
    test::TempDir journalFolder;
    std::unique_ptr<Journal> journal;
};

TEST_F(TrashMoverTest, CopyGoesToItsOwnDisksTrashIsJournalledAndComesBack) {
    test::writeRandomFile(disks.left + "/movie.mkv", 500000, 7);
    test::writeRandomFile(disks.right + "/movie.mkv", 500000, 7);
    makeLibrary(disks.left + "/Photos");
    makeLibrary(disks.right + "/Photos");

    auto file = TrashMover::moveCopy(disks.right + "/movie.mkv", disks.left + "/movie.mkv", *journal);
    ASSERT_EQ(file.result, TrashOutcome::Result::moved) << file.reason;
    EXPECT_FALSE(fs::exists(disks.right + "/movie.mkv"));
    EXPECT_TRUE(fs::exists(disks.left + "/movie.mkv"));
    EXPECT_EQ(parentOf(file.location), trashFiles(disks.rightVolume));
    EXPECT_EQ(test::readFile(file.location), test::randomBytes(500000, 7));

    auto tree = TrashMover::moveCopy(disks.left + "/Photos", disks.right + "/Photos", *journal);
    ASSERT_EQ(tree.result, TrashOutcome::Result::moved) << tree.reason;
    EXPECT_EQ(parentOf(tree.location), trashFiles(disks.leftVolume));
    EXPECT_TRUE(fs::is_symlink(tree.location + "/cover.jpg"));

    auto entries = journal->entries();
    ASSERT_EQ(entries.size(), 4u);
    const auto& moved = entries[1];
    EXPECT_EQ(moved.event, JournalEntry::Event::trashed);
    EXPECT_EQ(moved.id, entries[0].id);
    EXPECT_EQ(moved.target, disks.right + "/movie.mkv");
    EXPECT_EQ(moved.source, disks.left + "/movie.mkv");
    EXPECT_EQ(moved.detail, file.location);
    EXPECT_EQ(moved.digest, digestText(ContentHash::sha256(disks.left + "/movie.mkv", ContentHash::fullLimit)));
    EXPECT_TRUE(journal->interrupted().empty());

    auto back = TrashMover::restore(*journal, disks.right + "/movie.mkv");
    ASSERT_TRUE(back.restored) << back.reason;
    EXPECT_EQ(test::readFile(disks.right + "/movie.mkv"), test::randomBytes(500000, 7));
    EXPECT_FALSE(fs::exists(file.location));
    EXPECT_FALSE(TrashMover::restore(*journal, disks.right + "/movie.mkv").restored);

    // Something new at the old place is never overwritten: the tree stays in the Trash.
    test::writeFile(disks.left + "/Photos", "new");
    auto blocked = TrashMover::restore(*journal, tree.journalId);
    EXPECT_FALSE(blocked.restored);
    EXPECT_NE(blocked.reason.find("something else"), std::string::npos) << blocked.reason;
    EXPECT_TRUE(fs::exists(tree.location + "/2024/beach.jpg"));
}

TEST_F(TrashMoverTest, ChangedCopiesAndUnsafePairsStayWhereTheyAre) {
    test::writeRandomFile(disks.left + "/a.bin", 200000, 8);
    test::writeRandomFile(disks.right + "/a.bin", 200000, 8);
    // A program saved over the copy after the search found it.
    std::string changed = test::randomBytes(200000, 8);
    changed[150000] ^= 1;
    test::writeFile(disks.right + "/a.bin", changed);
    auto outcome = TrashMover::moveCopy(disks.right + "/a.bin", disks.left + "/a.bin", *journal);
    EXPECT_EQ(outcome.result, TrashOutcome::Result::changed);
    ASSERT_EQ(outcome.changes.size(), 1u);
    EXPECT_NE(outcome.changes[0].find("byte"), std::string::npos) << outcome.changes[0];

    makeLibrary(disks.left + "/Photos");
    makeLibrary(disks.right + "/Photos");
    test::writeFile(disks.right + "/Photos/2024/added.txt", "");
    fs::remove(disks.right + "/Photos/empty.txt");
    auto tree = TrashMover::moveCopy(disks.right + "/Photos", disks.left + "/Photos", *journal);
    EXPECT_EQ(tree.result, TrashOutcome::Result::changed);
    EXPECT_EQ(tree.changes.size(), 2u);

    // One copy inside the other, a link standing for a copy, or one file under two names.
    fs::create_symlink(disks.left + "/Photos", disks.right + "/link");
    EXPECT_EQ(TrashMover::moveCopy(disks.left + "/Photos/2024", disks.left + "/Photos", *journal).result,
              TrashOutcome::Result::refused);
    EXPECT_EQ(TrashMover::moveCopy(disks.right + "/link", disks.left + "/Photos", *journal).result,
              TrashOutcome::Result::refused);
    fs::create_hard_link(disks.left + "/a.bin", disks.left + "/a-too.bin");
    EXPECT_EQ(TrashMover::moveCopy(disks.left + "/a-too.bin", disks.left + "/a.bin", *journal).result,
              TrashOutcome::Result::refused);

    EXPECT_TRUE(fs::exists(disks.right + "/a.bin"));
    EXPECT_TRUE(fs::exists(disks.right + "/Photos/2024/beach.jpg"));
    EXPECT_TRUE(fs::exists(disks.left + "/Photos/2024"));
    EXPECT_TRUE(journal->entries().empty());
}

// A move killed between announcing itself and recording where the copy went, at each point GIO
// can be stopped: before anything, after the Trash record only, after the rename, and after the
// rename with the record lost. The next recovery says where the copy is, and restore brings back
// whatever reached the Trash.
TEST_F(TrashMoverTest, MoveCutShortAtEachStepIsFoundAndPutRight) {
    const std::string trash = parentOf(trashFiles(disks.rightVolume));
    enum class Step { announced, recordWritten, renamed, renamedRecordLost };
    for (Step step : {Step::announced, Step::recordWritten, Step::renamed, Step::renamedRecordLost}) {
        const std::string name = "cut-" + std::to_string(static_cast<int>(step)) + ".bin";
        const std::string copy = disks.right + "/" + name;
        test::writeRandomFile(copy, 100000, 20);
        test::writeRandomFile(disks.left + "/" + name, 100000, 20);
        // What moveCopy announces, by a process that is gone (its lock names nobody).
        JournalEntry started = JournalEntry::make(JournalEntry::Event::started, copy);
        started.detail = std::string(JournalEntry::trashMove);
        started.source = disks.left + "/" + name;
        started.before = Snapshot::take(copy);
        started.owner = makeUUID();
        journal->append(started);

        std::string location;
        if (step == Step::recordWritten) {
            fs::create_directories(trash + "/info");  // GIO makes the Trash before its record
            ASSERT_TRUE(platform::ensureTrashInfo(trash + "/files/" + name, copy));
        } else if (step != Step::announced) {
            location = platform::moveToTrashOfItsDisk(copy).location;
            ASSERT_EQ(location, trash + "/files/" + name);
            if (step == Step::renamedRecordLost) fs::remove(trash + "/info/" + name + ".trashinfo");
        }
        // Replacements' recovery leaves the move to the Trash's own.
        EXPECT_TRUE(journal->recover([](const std::string&) { return std::string("removed"); }).recovered.empty());

        auto found = TrashMover::recoverInterrupted(*journal);
        ASSERT_EQ(found.size(), 1u);
        EXPECT_TRUE(journal->interrupted().empty());
        EXPECT_TRUE(TrashMover::recoverInterrupted(*journal).empty());  // closed once, not again
        if (step == Step::announced || step == Step::recordWritten) {
            EXPECT_EQ(found[0].found, TrashRecovery::Found::inPlace);
            EXPECT_EQ(test::readFile(copy), test::randomBytes(100000, 20));
            EXPECT_FALSE(fs::exists(trash + "/info/" + name + ".trashinfo"));
            EXPECT_FALSE(TrashMover::restore(*journal, copy).restored);
            continue;
        }
        EXPECT_EQ(found[0].found, TrashRecovery::Found::inTrash);
        EXPECT_EQ(found[0].location, location);
        EXPECT_NE(found[0].describe().find("dedup journal restore"), std::string::npos) << found[0].describe();
        // The Trash lists it with its original place, so a file manager can put it back too.
        std::string record = test::readFile(trash + "/info/" + name + ".trashinfo");
        // Named from the top of its disk, as GIO names what it puts in a disk's Trash.
        EXPECT_NE(record.find("Path=" + nameOf(disks.right) + "/" + name + "\n"), std::string::npos) << record;
        auto back = TrashMover::restore(*journal, copy);
        ASSERT_TRUE(back.restored) << back.reason;
        EXPECT_EQ(test::readFile(copy), test::randomBytes(100000, 20));
        EXPECT_FALSE(fs::exists(trash + "/info/" + name + ".trashinfo"));
    }

    // Killed after the rename, with restore the first thing run afterwards: it finds the move itself.
    const std::string copy = disks.right + "/late.bin";
    test::writeRandomFile(copy, 5000, 21);
    JournalEntry started = JournalEntry::make(JournalEntry::Event::started, copy);
    started.detail = std::string(JournalEntry::trashMove);
    started.before = Snapshot::take(copy);
    started.owner = makeUUID();
    journal->append(started);
    ASSERT_TRUE(platform::moveToTrashOfItsDisk(copy).moved);
    auto back = TrashMover::restore(*journal, copy);
    ASSERT_TRUE(back.restored) << back.reason;
    EXPECT_EQ(test::readFile(copy), test::randomBytes(5000, 21));
}

}  // namespace
}  // namespace dedup
