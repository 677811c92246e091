#include "directory_reader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "support/test_files.h"

namespace dedup {
namespace {

TEST(DirectoryReaderTest, ReadsFoldersLargerThanOneKernelCallAndEveryType) {
    test::TempDir dir;
    EXPECT_TRUE(DirectoryReader::read(dir.path()).empty());

    // Long names make the listing far larger than one getdents64 buffer.
    const std::string padding(150, 'n');
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i) test::writeFile(dir.path(padding + std::to_string(i)), std::string(i % 7, 'x'));
    std::filesystem::create_directory(dir.path("folder"));
    ASSERT_EQ(::mkfifo(dir.path("pipe").c_str(), 0600), 0);
    std::filesystem::create_symlink("folder", dir.path("link"));

    auto entries = DirectoryReader::read(dir.path());
    std::set<std::string> names;
    for (const auto& e : entries) {
        names.insert(e.name);
        if (e.name.starts_with(padding)) {
            int i = std::stoi(e.name.substr(padding.size()));
            EXPECT_TRUE(e.status.isRegularFile());
            EXPECT_EQ(e.status.size, i % 7);
            EXPECT_EQ(e.status.links, 1u);
        } else if (e.name == "folder") {
            EXPECT_TRUE(e.status.isDirectory());
        } else if (e.name == "pipe") {
            EXPECT_EQ(e.status.mode & S_IFMT, static_cast<unsigned>(S_IFIFO));
        } else if (e.name == "link") {
            EXPECT_TRUE(e.status.isSymbolicLink());
        }
        EXPECT_FALSE(e.clones);
    }
    EXPECT_EQ(entries.size(), static_cast<size_t>(count) + 3);
    EXPECT_EQ(names.size(), entries.size());
    EXPECT_FALSE(names.contains(".") || names.contains(".."));
}

TEST(DirectoryReaderTest, RefusesLinksAndMissingFoldersWithTheCallAndPath) {
    test::TempDir dir;
    std::filesystem::create_directory(dir.path("real"));
    std::filesystem::create_symlink(dir.path("real"), dir.path("link"));
    try {
        DirectoryReader::read(dir.path("link"));
        FAIL() << "a link to a folder was followed";
    } catch (const SystemError& error) {
        EXPECT_EQ(error.call, "open");
        EXPECT_EQ(error.path, dir.path("link"));
        // Linux checks O_DIRECTORY before O_NOFOLLOW, so a link to a folder answers ENOTDIR.
        EXPECT_TRUE(error.code == ENOTDIR || error.code == ELOOP) << error.what();
    }
    try {
        DirectoryReader::read(dir.path("missing"));
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_EQ(error.code, ENOENT);
        EXPECT_EQ(std::string(error.what()), "open(" + dir.path("missing") + "): No such file or directory");
    }
}

}  // namespace
}  // namespace dedup
