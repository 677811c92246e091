#include "space_holders.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "file_records.h"
#include "support/test_files.h"
#include "true_size.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

int64_t allocatedOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return static_cast<int64_t>(st.st_blocks) * 512;
}

// Points HOME and XDG_DATA_HOME at a folder of the test's own and puts them back afterwards.
class SpaceHoldersTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* name : {"HOME", "XDG_DATA_HOME"}) {
            const char* value = std::getenv(name);
            saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
        }
        ::setenv("HOME", home_.path().c_str(), 1);
        ::unsetenv("XDG_DATA_HOME");
    }
    void TearDown() override {
        for (const auto& [name, value] : saved_) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
    }

    test::TempDir home_;
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

TEST_F(SpaceHoldersTest, HomeTrashIsMeasuredForTheHomeVolume) {
    std::string trash = home_.path(".local/share/Trash");
    fs::create_directories(trash + "/files/folder");
    fs::create_directories(trash + "/info");
    test::writeRandomFile(trash + "/files/folder/old.jpg", 200000, 1);
    test::writeFile(trash + "/info/folder.trashinfo", "[Trash Info]\nPath=/x/folder\n");
    int64_t expected = allocatedOf(trash + "/files/folder/old.jpg") + allocatedOf(trash + "/info/folder.trashinfo");

    SpaceHolders holders = SpaceHolders::check(home_.path());
    EXPECT_EQ(holders.trashBytes, expected);

    // XDG_DATA_HOME moves the home Trash; one that does not exist holds nothing.
    ::setenv("XDG_DATA_HOME", home_.path("data").c_str(), 1);
    EXPECT_EQ(SpaceHolders::trashFolder(VolumeInfo::of(home_.path())->mountPoint), home_.path("data/Trash"));
    EXPECT_EQ(SpaceHolders::check(home_.path()).trashBytes, 0);
    EXPECT_EQ(SpaceHolders::check(home_.path("no/such/path")), SpaceHolders{});
}

TEST_F(SpaceHoldersTest, AnotherVolumeHasItsOwnTrash) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    auto* volume = test::sharedVolume(LoopVolume::Kind::xfs);
    std::string folder = test::freshFolder(volume, "holders");
    EXPECT_EQ(SpaceHolders::check(folder), SpaceHolders{});

    std::string uid = std::to_string(::getuid());
    std::string dashed = volume->path(".Trash-" + uid);
    std::string shared = volume->path(".Trash/" + uid);
    fs::create_directories(dashed + "/files");
    test::writeRandomFile(dashed + "/files/a", 100000, 2);
    EXPECT_EQ(SpaceHolders::check(folder).trashBytes, allocatedOf(dashed + "/files/a"));

    // The volume's shared Trash folder comes first when it has one for this user.
    fs::create_directories(shared + "/files");
    test::writeRandomFile(shared + "/files/b", 300000, 3);
    EXPECT_EQ(SpaceHolders::check(folder).trashBytes, allocatedOf(shared + "/files/b"));
    EXPECT_EQ(SpaceHolders::check(folder).snapshots, std::vector<std::string>{});
    test::removeTree(dashed);
    test::removeTree(volume->path(".Trash"));
}

TEST_F(SpaceHoldersTest, BtrfsSnapshotIsListedAndKeepsItsBlocks) {
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
