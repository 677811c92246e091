#include "file_records.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

TEST(FileRecordsTest, StatusIsTheLinkItselfAndVersionFollowsTheChangeTime) {
    test::TempDir dir;
    test::writeFile(dir.path("f"), "hello");
    std::filesystem::create_symlink(dir.path("f"), dir.path("l"));
    FileStatus file = FileStatus::read(dir.path("f"));
    EXPECT_TRUE(file.isRegularFile());
    EXPECT_EQ(file.size, 5);
    EXPECT_FALSE(FileStatus::read(dir.path("l")).isRegularFile());

    // chmod moves only the change time, and that alone is a new version.
    ::usleep(20000);
    ASSERT_EQ(::chmod(dir.path("f").c_str(), 0600), 0);
    FileStatus chmodded = FileStatus::read(dir.path("f"));
    EXPECT_EQ(chmodded.modified, file.modified);
    EXPECT_FALSE(chmodded.isSameVersion(file));
    // A status that differs only in what sameness leaves out is the same version.
    FileStatus other = chmodded;
    other.links = 7;
    other.mode = 0;
    other.uid += 1;
    EXPECT_TRUE(other.isSameVersion(chmodded));

    try {
        FileStatus::read(dir.path("missing"));
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_EQ(error.call, "lstat");
        EXPECT_EQ(error.code, ENOENT);
    }
}

TEST(FileRecordsTest, TimesAreWrittenWithoutFollowingLinks) {
    test::TempDir dir;
    test::writeFile(dir.path("f"), "x");
    FileTimes times = FileTimes::read(dir.path("f"));
    EXPECT_FALSE(times.added);
    times.modified = {1000000000, 123456789};
    times.accessed = {1000000001, 5};
    times.write(dir.path("f"));
    FileTimes back = FileTimes::read(dir.path("f"));
    EXPECT_EQ(back.modified, times.modified);
    EXPECT_EQ(back.accessed, times.accessed);
}

TEST(FileRecordsTest, ScannedFileJsonKeepsEveryField) {
    ScannedFile file{"/a/b.jpg", {}, CloneInfo{10, 0xFFFFFFFFFFFFFFF1ull, 2}};
    file.status.device = 0xFFFFFFFF12ull;
    file.status.modified = {-5, 999999999};
    file.status.flags = FileFlags::systemImmutable;
    nlohmann::json j = file;
    EXPECT_EQ(j.get<ScannedFile>(), file);
    file.clones.reset();
    j = file;
    EXPECT_FALSE(j.contains("clones"));
    EXPECT_EQ(j.get<ScannedFile>(), file);
}

class CloneInfoOnVolume : public ::testing::TestWithParam<LoopVolume::Kind> {};

TEST_P(CloneInfoOnVolume, ClonesShareAnIdentifierAndHoldNothingOfTheirOwn) {
    DEDUP_REQUIRE_VOLUME(GetParam());
    auto* volume = test::sharedVolume(GetParam());
    std::string dir = test::freshFolder(volume, "clones");
    test::writeRandomFile(dir + "/a", 1 << 20, 21);
    test::writeRandomFile(dir + "/c", 1 << 20, 21);
    auto alone = CloneInfo::read(dir + "/a");
    ASSERT_TRUE(alone);
    EXPECT_EQ(alone->privateSize, 1 << 20);
    EXPECT_NE(alone->cloneID, 0u);

    test::reflinkCopy(dir + "/a", dir + "/b");
    auto a = CloneInfo::read(dir + "/a");
    auto b = CloneInfo::read(dir + "/b");
    auto c = CloneInfo::read(dir + "/c");
    ASSERT_TRUE(a && b && c);
    EXPECT_EQ(a->privateSize, 0);
    EXPECT_EQ(b->privateSize, 0);
    EXPECT_EQ(a->cloneID, b->cloneID);
    EXPECT_NE(a->cloneID, c->cloneID);

    // Overwriting part of one clone gives that part back to it alone; the extent map must be read
    // after the write reached the disk, or it would still show the old sharing.
    {
        std::string chunk(65536, 'z');
        FILE* f = std::fopen((dir + "/b").c_str(), "r+");
        ASSERT_NE(f, nullptr);
        std::fwrite(chunk.data(), 1, chunk.size(), f);
        std::fclose(f);
    }
    auto changed = CloneInfo::read(dir + "/b");
    ASSERT_TRUE(changed);
    EXPECT_GE(changed->privateSize, 65536);
    EXPECT_NE(changed->cloneID, a->cloneID);
}

TEST_P(CloneInfoOnVolume, VolumeFactsAreFound) {
    DEDUP_REQUIRE_VOLUME(GetParam());
    auto* volume = test::sharedVolume(GetParam());
    auto info = VolumeInfo::of(volume->mountPoint());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->mountPoint, volume->mountPoint());
    EXPECT_EQ(info->fileSystem, LoopVolume::kindName(GetParam()));
    EXPECT_EQ(info->device, volume->device());
}

INSTANTIATE_TEST_SUITE_P(Volumes, CloneInfoOnVolume, ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

TEST(FileRecordsTest, CloneInfoWhereNothingIsShared) {
    // tmpfs keeps no extent map at all: the facts are unknown, not zero.
    if (std::filesystem::exists("/dev/shm")) {
        std::string path = "/dev/shm/dedup-clone-info-" + std::to_string(::getpid());
        test::writeFile(path, "data");
        EXPECT_FALSE(CloneInfo::read(path));
        ::unlink(path.c_str());
    }
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::ext4);
    auto* volume = test::sharedVolume(LoopVolume::Kind::ext4);
    test::writeRandomFile(volume->path("plain"), 100000, 22);
    auto info = CloneInfo::read(volume->path("plain"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->privateSize, 100000);
    test::writeFile(volume->path("empty"), "");
    EXPECT_FALSE(CloneInfo::read(volume->path("empty")));
    EXPECT_FALSE(StorageKind::isRotational("/nonexistent/path"));
}

}  // namespace
}  // namespace dedup
