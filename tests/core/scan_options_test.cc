#include "scan_options.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>

#include "byte_format.h"
#include "support/test_files.h"
#include "volumes.h"
#include "temporary_name.h"

namespace dedup {
namespace {

TEST(ScanOptionsTest, LocationsAndSavedSets) {
    test::TempDir dir;
    const char* before = std::getenv("DEDUP_DATA_DIR");
    std::string saved = before ? before : "";
    ::setenv("DEDUP_DATA_DIR", dir.path().c_str(), 1);
    EXPECT_EQ(Locations::journal(), dir.path("journal.jsonl"));
    EXPECT_EQ(Locations::selection(), dir.path("selection.json"));
    EXPECT_EQ(Locations::hashes(), dir.path("hashes.sqlite"));
    if (before) ::setenv("DEDUP_DATA_DIR", saved.c_str(), 1);
    if (!before) ::unsetenv("DEDUP_DATA_DIR");

    auto set = SourceSet::make("Photos", {dir.path("a"), dir.path("b c")}, ScanOptions::recommended());
    set.save(dir.path("sources.json"));
    EXPECT_EQ(SourceSet::load(dir.path("sources.json")), set);
    EXPECT_EQ(set.resolve(), (std::vector<std::string>{dir.path("a"), dir.path("b c")}));
}

TEST(ScanOptionsTest, ProfilesKeepOnlyFoldersThatExist) {
    test::TempDir home;
    Profile photo(Profile::Kind::photo, home.path(), {});
    EXPECT_TRUE(photo.roots.empty());
    EXPECT_TRUE(photo.options.includePackages);
    std::filesystem::create_directories(home.path("Pictures"));
    Profile withPictures(Profile::Kind::photo, home.path(), {home.path("missing-volume"), home.path()});
    EXPECT_EQ(withPictures.roots, (std::vector<std::string>{home.path("Pictures"), home.path()}));
    Profile developer(Profile::Kind::developer, home.path(), {});
    EXPECT_EQ(developer.roots, std::vector<std::string>{home.path()});
    EXPECT_EQ(developer.options.minimumSize, 102400);
    EXPECT_EQ(developer.options.homeFolder, home.path());
    EXPECT_EQ(profileKind("photo"), Profile::Kind::photo);
}

TEST(ByteFormatTest, ReadsLikeTheFileManager) {
    EXPECT_EQ(formatBytes(0), "0 bytes");
    EXPECT_EQ(formatBytes(1), "1 byte");
    EXPECT_EQ(formatBytes(999), "999 bytes");
    EXPECT_EQ(formatBytes(1000), "1.0 kB");
    EXPECT_EQ(formatBytes(12345), "12.3 kB");
    EXPECT_EQ(formatBytes(999999), "1.0 MB");
    EXPECT_EQ(formatBytes(4100000000), "4.1 GB");
}

TEST(TemporaryNameTest, OnlyTheEnginesOwnNames) {
    const std::string uuid = "0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F";
    EXPECT_TRUE(isTemporaryName(".photo.jpg.dedup-" + uuid));
    EXPECT_TRUE(isTemporaryName(".a.dedup-" + std::string("0f0e8c9b-3d63-4e1a-9c9b-5e9a7e0c1d2f")));
    EXPECT_FALSE(isTemporaryName(".dedup-" + uuid));         // nothing before the marker
    EXPECT_FALSE(isTemporaryName(".dedup-trash-" + uuid));   // the private Trash folder
    EXPECT_FALSE(isTemporaryName("photo.jpg.dedup-" + uuid));  // no leading dot
    EXPECT_FALSE(isTemporaryName(".photo.jpg.dedup-not-a-uuid"));
    EXPECT_FALSE(isTemporaryName(".photo.jpg.dedup-" + uuid + "x"));
}

TEST(CloneAbilityTest, TriedOnTheDiskNotTakenFromItsFileSystemName) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfsWithoutReflink);
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    auto plain = test::LoopVolume::create(test::LoopVolume::Kind::xfsWithoutReflink);
    const std::string refusing = test::freshFolder(plain.get(), "probe");
    const std::string sharing = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::xfs), "probe");
    test::writeFile(refusing + "/photo.jpg", "x");

    auto no = cloneAbility(refusing + "/photo.jpg");
    EXPECT_FALSE(no.canShare);
    EXPECT_TRUE(no.probed);
    EXPECT_EQ(no.fileSystem, "xfs");
    auto yes = cloneAbility(sharing);
    EXPECT_TRUE(yes.canShare);
    EXPECT_TRUE(yes.probed);
    // The trial leaves nothing behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(refusing), {}), 1);
    EXPECT_TRUE(std::filesystem::is_empty(sharing));

    auto candidates = Profile::externalCloneVolumes();
    EXPECT_EQ(std::count(candidates.begin(), candidates.end(), plain->mountPoint()), 0);
    EXPECT_EQ(std::count(candidates.begin(), candidates.end(), test::sharedVolume(test::LoopVolume::Kind::xfs)->mountPoint()), 1);

    // Where nothing can be written the name is all there is, and the answer says so.
    test::runCommandChecked({"mount", "-o", "remount,ro", plain->mountPoint()});
    auto guessed = cloneAbility(refusing);
    test::runCommandChecked({"mount", "-o", "remount,rw", plain->mountPoint()});
    EXPECT_FALSE(guessed.probed);
    EXPECT_TRUE(guessed.canShare);
}

}  // namespace
}  // namespace dedup
