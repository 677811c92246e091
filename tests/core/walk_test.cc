#include "walk.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>

#include "directory_reader.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> sortedPaths(const std::vector<ScannedFile>& files) {
    std::vector<std::string> paths;
    for (const auto& f : files) paths.push_back(f.path);
    std::sort(paths.begin(), paths.end());
    return paths;
}

Walk walkOf(const std::vector<std::string>& roots, ScanOptions options = {}) {
    Walk walk(std::move(options));
    for (const auto& root : roots) walk.visit(root);
    return walk;
}

TEST(WalkTest, EachFileOnceAcrossHardLinksAndNestedRoots) {
    test::TempDir dir;
    test::writeFile(dir.path("a/one"), "1");
    test::writeFile(dir.path("a/b/two"), "22");
    ASSERT_EQ(::link(dir.path("a/one").c_str(), dir.path("a/b/one-again").c_str()), 0);

    Walk walk = walkOf({dir.path("a"), dir.path("a/b")});
    // A folder is read whole before its subfolders, so the name met first is the one in "a".
    EXPECT_EQ(sortedPaths(walk.files), (std::vector<std::string>{dir.path("a/b/two"), dir.path("a/one")}));
    EXPECT_TRUE(walk.folders.contains(dir.path("a/b")));
}

// The set that keeps a walk from taking a file twice: a pair is met once whatever else the table
// holds, and the same inode number on another device is another file.
TEST(WalkTest, InodeSetTellsEveryPairApartThroughItsGrowth) {
    InodeSet set;
    std::set<std::pair<uint64_t, uint64_t>> reference;
    for (uint64_t i = 0; i < 20000; ++i) {
        // Sequential inodes on two devices, and numbers that differ only in their high bits.
        for (InodeKey key : {InodeKey{7, i}, InodeKey{8, i}, InodeKey{7, i << 40}, InodeKey{0, i % 3}}) {
            EXPECT_EQ(set.add(key), reference.insert({key.device, key.inode}).second) << key.device << ":" << key.inode;
        }
    }
    EXPECT_EQ(set.size(), reference.size());
    EXPECT_FALSE(set.add({0, 0}));
    EXPECT_FALSE(set.add({8, 19999}));
    EXPECT_TRUE(set.add({9, 19999}));
}

TEST(WalkTest, FileRulesSizeExtensionNamesAndTemporaries) {
    test::TempDir dir;
    test::writeFile(dir.path("empty"), "");
    test::writeFile(dir.path("A.JPG"), "x");
    test::writeFile(dir.path("a.jpeg"), "x");
    test::writeFile(dir.path("jpg"), "x");
    test::writeFile(dir.path(".DS_Store"), "x");
    test::writeFile(dir.path(".photo.jpg.dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F"), "x");
    test::writeFile(dir.path(".dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F"), "x");

    ScanOptions options;
    options.minimumSize = 0;  // even so, an empty file is never a candidate
    Walk all = walkOf({dir.path()}, options);
    EXPECT_EQ(sortedPaths(all.files), (std::vector<std::string>{dir.path(".dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F"),
                                                                dir.path("A.JPG"), dir.path("a.jpeg"),
                                                                dir.path("jpg")}));
    EXPECT_EQ(all.leftovers,
              std::vector<std::string>{dir.path(".photo.jpg.dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F")});

    options.allowedExtensions = std::set<std::string>{"jpg"};
    EXPECT_EQ(sortedPaths(walkOf({dir.path()}, options).files), std::vector<std::string>{dir.path("A.JPG")});

    // A root that is a file is taken as it is, without the filters.
    Walk single = walkOf({dir.path("empty")}, options);
    EXPECT_EQ(sortedPaths(single.files), std::vector<std::string>{dir.path("empty")});
}

TEST(WalkTest, FolderRulesExclusionsCacheAndLinks) {
    test::TempDir dir;
    const std::string home = dir.path("home");
    test::writeFile(home + "/.cache/thumbs/t", "t");
    test::writeFile(home + "/project/.cache/c", "c");
    test::writeFile(home + "/photos/bc/kept", "k");
    test::writeFile(home + "/photos/b/deep/left-out", "l");
    test::writeFile(home + "/Tool.app/inside", "i");
    fs::create_symlink(home + "/photos", home + "/link-to-folder");
    fs::create_symlink(home + "/photos/bc/kept", home + "/link-to-file");

    ScanOptions options;
    options.homeFolder = home;
    options.excludedPaths = {home + "/photos/b"};
    Walk walk = walkOf({home}, options);
    // The home folder's .cache is skipped, one inside a project is not; "/photos/b" leaves out
    // "/photos/b/..." but not "/photos/bc"; symbolic links are never followed.
    EXPECT_EQ(sortedPaths(walk.files),
              (std::vector<std::string>{home + "/photos/bc/kept", home + "/project/.cache/c"}));
    EXPECT_TRUE(walk.links.empty());

    options.includeLibrary = true;
    EXPECT_EQ(walkOf({home}, options).files.size(), 3u);

    Walk unfiltered(options);
    unfiltered.unfiltered = true;
    unfiltered.visit(home);
    EXPECT_EQ(unfiltered.links.size(), 2u);
    EXPECT_EQ(unfiltered.files.size(), 4u);  // the .app folder is entered too

    // A root given as a link to a folder is not followed either: it cannot be read as a folder.
    Walk viaLink = walkOf({home + "/link-to-folder"});
    EXPECT_TRUE(viaLink.files.empty());
    EXPECT_EQ(viaLink.unreadable, std::vector<std::string>{home + "/link-to-folder"});
    Walk missing = walkOf({dir.path("nothing-here")});
    EXPECT_EQ(missing.unreadable, std::vector<std::string>{dir.path("nothing-here")});
}

// Another user swaps a folder the walk has listed for a link to a tree of the same shape
// elsewhere: the folders below it, opened by their path, would be read over there. The walk reads
// a folder only if it is the one its parent's listing showed, names that are not UTF-8 included.
TEST(WalkTest, FolderSwappedForALinkDuringTheWalkLeadsNowhere) {
    test::TempDir dir;
    const std::string swapped = dir.path("tree/a/b\xff");
    test::writeFile(swapped + "/c/inside", "in");
    test::writeFile(dir.path("elsewhere/c/secret"), "se");
    test::writeFile(dir.path("tree/kept\xfe"), "kp");
    auto swap = [&] {
        fs::rename(swapped, dir.path("tree/a/moved"));
        fs::create_symlink(dir.path("elsewhere"), swapped);
    };
    auto noSecret = [](const Walk& walk) {
        for (const auto& file : walk.files) EXPECT_EQ(file.path.find("secret"), std::string::npos) << file.path;
    };

    // Listed, then swapped, then the folder below it is entered by its path.
    const FileStatus listedB = FileStatus::read(swapped);
    Walk steps;
    std::vector<std::pair<std::string, FolderIdentity>> below;
    auto keep = [&](std::string path, FolderIdentity identity) { below.emplace_back(std::move(path), identity); };
    steps.visitFolder(swapped, listedB.device, keep, FolderIdentity{listedB.device, listedB.inode});
    ASSERT_EQ(below.size(), 1u);
    swap();
    steps.visitFolder(below[0].first, listedB.device, keep, below[0].second);
    noSecret(steps);
    EXPECT_EQ(steps.unreadable, std::vector<std::string>{swapped + "/c"});

    // A whole walk, the swap made as it enters the folder: whatever was listed ahead by then.
    fs::remove(swapped);
    fs::rename(dir.path("tree/a/moved"), swapped);
    Walk walk;
    walk.progress = [&](const ScanProgress& progress) {
        if (progress.current == swapped) swap();
    };
    walk.visit(dir.path("tree"));
    noSecret(walk);
    EXPECT_EQ(sortedPaths(walk.files).front(), dir.path("tree/kept\xfe"));
    EXPECT_FALSE(walk.unreadable.empty()) << "the folder that changed is reported, not passed over in silence";
}

TEST(WalkTest, MountedVolumeInsideTheTreeIsNotEntered) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    auto* volume = test::sharedVolume(test::LoopVolume::Kind::xfs);
    test::writeFile(volume->path("on-the-volume"), "v");
    // The folder holding the image also holds the mount point.
    Walk walk = walkOf({volume->folder()});
    for (const auto& file : walk.files) EXPECT_EQ(file.path.find(volume->mountPoint() + "/"), std::string::npos);
    EXPECT_FALSE(walk.folders.contains(volume->mountPoint()));
    EXPECT_TRUE(Walk::isVolumeRoot(volume->mountPoint()));
    EXPECT_FALSE(Walk::isVolumeRoot(volume->folder()));
}

TEST(DirectoryReaderTest, ReadsFoldersLargerThanOneKernelCallAndEveryType) {
    test::TempDir dir;
    EXPECT_TRUE(DirectoryReader::read(dir.path()).empty());
    // Long names make the listing far larger than one getdents64 buffer.
    const std::string padding(150, 'n');
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i) test::writeFile(dir.path(padding + std::to_string(i)), std::string(i % 7, 'x'));
    fs::create_directory(dir.path("folder"));
    ASSERT_EQ(::mkfifo(dir.path("pipe").c_str(), 0600), 0);
    fs::create_symlink("folder", dir.path("link"));

    auto entries = DirectoryReader::read(dir.path());
    std::set<std::string> names;
    for (const auto& e : entries) {
        names.insert(e.name);
        if (e.name.starts_with(padding)) {
            EXPECT_TRUE(e.status.isRegularFile());
            EXPECT_EQ(e.status.size, std::stoi(e.name.substr(padding.size())) % 7);
            EXPECT_EQ(e.status.links, 1u);
        }
    }
    EXPECT_EQ(entries.size(), static_cast<size_t>(count) + 3);
    EXPECT_EQ(names.size(), entries.size());
    EXPECT_FALSE(names.contains(".") || names.contains(".."));
    auto typeOf = [&](const std::string& name) {
        auto entry = std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e.name == name; });
        return entry == entries.end() ? 0u : entry->status.mode & S_IFMT;
    };
    EXPECT_EQ(typeOf("folder"), static_cast<unsigned>(S_IFDIR));
    EXPECT_EQ(typeOf("pipe"), static_cast<unsigned>(S_IFIFO));
    EXPECT_EQ(typeOf("link"), static_cast<unsigned>(S_IFLNK));
}

}  // namespace
}  // namespace dedup
