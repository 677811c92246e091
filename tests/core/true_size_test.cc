#include "true_size.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "file_records.h"
#include "space_holders.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;
using TrueSize::Sharing;

const FolderSize& child(const FolderSize& folder, const std::string& name) {
    for (const auto& c : folder.children) {
        if (c.path == folder.path + "/" + name) return c;
    }
    throw std::runtime_error("no child " + name + " in " + folder.path);
}

TEST(TrueSizeTest, HardLinksCountOnceAndOnlyWithAllTheirNames) {
    test::TempDir dir;
    std::string root = dir.path("root");
    fs::create_directories(root + "/empty/deeper");
    test::writeRandomFile(root + "/big/f", 300000, 1);
    test::writeRandomFile(root + "/small/g", 100000, 2);
    test::writeRandomFile(root + "/linked/p", 50000, 3);
    // Its two names are in sibling folders: only their parent holds the whole file.
    ASSERT_EQ(::link((root + "/linked/p").c_str(), (root + "/small/p2").c_str()), 0);
    test::writeRandomFile(root + "/half/q", 20000, 4);
    ASSERT_EQ(::link((root + "/half/q").c_str(), dir.path("q-outside").c_str()), 0);
    fs::create_symlink(root + "/big/f", root + "/big/link");
    using test::allocatedOf;
    int64_t f = allocatedOf(root + "/big/f"), g = allocatedOf(root + "/small/g"), p = allocatedOf(root + "/linked/p"),
            q = allocatedOf(root + "/half/q");

    auto [size, tally] = TrueSize::measureWithTally(root);
    EXPECT_EQ(size.path, root);
    // Every name counts in full in the sizes a file browser shows; the symbolic link adds nothing.
    EXPECT_EQ(size.logical, 300000 + 100000 + 2 * 50000 + 20000);
    EXPECT_EQ(size.allocated, f + g + 2 * p + q);
    EXPECT_EQ(size.freedIfDeleted, f + g + p);
    EXPECT_EQ(size.uncertain, 0);
    EXPECT_EQ(tally.freed(), size.freedIfDeleted);

    ASSERT_EQ(size.children.size(), 5u);
    EXPECT_EQ(size.children[0].path, root + "/big");
    EXPECT_EQ(size.children[1].path, root + "/small");
    EXPECT_EQ(child(size, "small").freedIfDeleted, g);
    EXPECT_EQ(child(size, "small").logical, 100000 + 50000);
    EXPECT_EQ(child(size, "linked").freedIfDeleted, 0);
    EXPECT_EQ(child(size, "half").freedIfDeleted, 0);
    EXPECT_EQ(child(size, "half").allocated, q);
    const FolderSize& empty = child(size, "empty");
    EXPECT_EQ(empty.logical + empty.allocated + empty.freedIfDeleted + empty.uncertain, 0);
    ASSERT_EQ(empty.children.size(), 1u);
    EXPECT_TRUE(empty.children[0].children.empty());
}

struct VolumeCase {
    LoopVolume::Kind kind;
    bool resolve;  // ask the file system who uses each shared extent
    const char* name;
};
void PrintTo(const VolumeCase& c, std::ostream* out) { *out << c.name; }

class TrueSizeOnVolume : public ::testing::TestWithParam<VolumeCase> {};

TEST_P(TrueSizeOnVolume, ClonesAreFreedOnlyWithAllTheirMembers) {
    auto [kind, resolve, name] = GetParam();
    DEDUP_REQUIRE_VOLUME(kind);
    std::string top = test::freshFolder(test::sharedVolume(kind), "true-size");
    std::string tree = top + "/tree";
    constexpr int64_t mib = 1 << 20;
    test::writeRandomFile(tree + "/both/a", mib, 11);
    test::reflinkCopy(tree + "/both/a", tree + "/both/a2");
    test::writeRandomFile(tree + "/one/b", mib, 12);
    test::reflinkCopy(tree + "/one/b", top + "/b-outside");
    test::writeRandomFile(tree + "/pair/left/c", mib, 13);
    test::reflinkCopy(tree + "/pair/left/c", tree + "/pair/right/c2");

    TrueSize::Options options;
    options.resolveSharing = resolve;
    auto [size, tally] = TrueSize::measureWithTally(tree, options);
    const FolderSize& pair = child(size, "pair");
    EXPECT_EQ(size.logical, 5 * mib);
    EXPECT_EQ(size.allocated, 5 * mib);
    if (tally.sharing == Sharing::resolved) {
        EXPECT_EQ(child(size, "both").freedIfDeleted, mib);
        EXPECT_EQ(child(size, "one").freedIfDeleted, 0);
        EXPECT_EQ(child(pair, "left").freedIfDeleted, 0);
        EXPECT_EQ(child(pair, "right").freedIfDeleted, 0);
        EXPECT_EQ(pair.freedIfDeleted, mib);
        EXPECT_EQ(size.freedIfDeleted, 2 * mib);
        EXPECT_EQ(size.uncertain, 0);
        EXPECT_EQ(size.children.front().path, tree + "/both");

        // An extent partly overwritten in one clone stays whole on disk while the other uses it.
        std::string chunk = test::randomBytes(65536, 14);
        FILE* file = std::fopen((tree + "/both/a2").c_str(), "r+");
        ASSERT_NE(file, nullptr);
        std::fwrite(chunk.data(), 1, chunk.size(), file);
        std::fclose(file);
        FolderSize both = TrueSize::measure(tree + "/both", options);
        EXPECT_EQ(both.freedIfDeleted, mib + 65536);
        EXPECT_EQ(TrueSize::measure(tree + "/one", options).freedIfDeleted, 0);
    } else {
        // Where the users of shared blocks cannot be named, none of them count as freed.
        EXPECT_EQ(size.freedIfDeleted, 0);
        EXPECT_EQ(child(size, "both").uncertain, 2 * mib);
        EXPECT_EQ(child(size, "one").uncertain, mib);
        EXPECT_EQ(child(pair, "left").uncertain, mib);
        EXPECT_EQ(size.uncertain, 5 * mib);
    }
    bool canResolve = resolve && kind == LoopVolume::Kind::btrfs && ::geteuid() == 0;
    EXPECT_EQ(tally.sharing, canResolve ? Sharing::resolved : Sharing::unknown);
}

INSTANTIATE_TEST_SUITE_P(Volumes, TrueSizeOnVolume,
                         ::testing::Values(VolumeCase{LoopVolume::Kind::btrfs, true, "btrfs"},
                                           VolumeCase{LoopVolume::Kind::btrfs, false, "btrfsNotAsked"},
                                           VolumeCase{LoopVolume::Kind::xfs, true, "xfs"}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SpaceHoldersTest, AnotherVolumeHasItsOwnTrash) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    auto* volume = test::sharedVolume(LoopVolume::Kind::xfs);
    std::string folder = test::freshFolder(volume, "holders");
    EXPECT_EQ(SpaceHolders::check(folder), SpaceHolders{});

    std::string uid = std::to_string(::getuid());
    std::string dashed = volume->path(".Trash-" + uid);
    std::string shared = volume->path(".Trash/" + uid);
    test::writeRandomFile(dashed + "/files/a", 100000, 2);
    EXPECT_EQ(SpaceHolders::check(folder).trashBytes, test::allocatedOf(dashed + "/files/a"));

    // The volume's shared Trash folder comes first when it has one for this user.
    test::writeRandomFile(shared + "/files/b", 300000, 3);
    EXPECT_EQ(SpaceHolders::check(folder).trashBytes, test::allocatedOf(shared + "/files/b"));
    EXPECT_EQ(SpaceHolders::check(folder).snapshots, std::vector<std::string>{});
    fs::remove_all(dashed);
    fs::remove_all(volume->path(".Trash"));
}

TEST(SpaceHoldersTest, BtrfsSnapshotIsListedAndKeepsItsBlocks) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
    std::string folder = test::freshFolder(test::sharedVolume(LoopVolume::Kind::btrfs), "snapshots");
    test::runCommandChecked({"btrfs", "subvolume", "create", folder + "/data"});
    test::runCommandChecked({"btrfs", "subvolume", "create", folder + "/plain"});
    test::writeRandomFile(folder + "/data/photo.jpg", 1 << 20, 4);
    test::runCommandChecked({"btrfs", "subvolume", "snapshot", "-r", folder + "/data", folder + "/data-monday"});

    auto snapshots = SpaceHolders::check(folder + "/data").snapshots;
    EXPECT_NE(std::find(snapshots.begin(), snapshots.end(), folder + "/data-monday"), snapshots.end());
    EXPECT_EQ(std::find(snapshots.begin(), snapshots.end(), folder + "/plain"), snapshots.end());
    EXPECT_EQ(std::find(snapshots.begin(), snapshots.end(), folder + "/data"), snapshots.end());

    // The snapshot still uses the photo's blocks: deleting the folder frees none of them.
    auto [data, tally] = TrueSize::measureWithTally(folder + "/data");
    EXPECT_EQ(data.allocated, 1 << 20);
    EXPECT_EQ(data.freedIfDeleted, 0);
    EXPECT_EQ(data.uncertain, tally.sharing == TrueSize::Sharing::unknown ? 1 << 20 : 0);
    // Subvolumes inside a folder are other trees, never entered.
    FolderSize outer = TrueSize::measure(folder);
    EXPECT_EQ(outer.logical, 0);
    EXPECT_TRUE(outer.children.empty());
}

}  // namespace
}  // namespace dedup
