#include "folder_prefetch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "support/test_files.h"

namespace dedup {
namespace {

std::vector<std::string> namesOf(std::vector<DirectoryEntry> entries) {
    std::vector<std::string> names;
    for (const auto& entry : entries) names.push_back(entry.name);
    std::sort(names.begin(), names.end());
    return names;
}

TEST(FolderPrefetchTest, EveryFolderIsListedOnceWhateverOrderItIsTakenIn) {
    test::TempDir dir;
    std::vector<std::string> folders;
    for (int i = 0; i < 40; ++i) {
        folders.push_back(dir.path("f" + std::to_string(i)));
        std::filesystem::create_directories(folders.back());
        for (int k = 0; k <= i % 5; ++k) test::writeFile(folders.back() + "/file" + std::to_string(k), "x");
    }
    FolderPrefetch prefetch(2, 4);
    for (const auto& folder : folders) prefetch.request(folder);
    prefetch.request(dir.path("missing"));
    // Taken last-requested first, as a walk does, then out of order, and one never requested.
    for (size_t i = folders.size(); i-- > 30;) {
        EXPECT_EQ(namesOf(prefetch.take(folders[i])), namesOf(DirectoryReader::read(folders[i]))) << folders[i];
    }
    for (size_t i = 0; i < 30; i += 3) {
        EXPECT_EQ(namesOf(prefetch.take(folders[i])), namesOf(DirectoryReader::read(folders[i]))) << folders[i];
    }
    EXPECT_EQ(namesOf(prefetch.take(dir.path())).size(), folders.size());
    // A folder that cannot be read fails where it is taken, with the reader's own error.
    try {
        prefetch.take(dir.path("missing"));
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_EQ(error.code, ENOENT);
    }
    // The rest stay requested and untaken: ending the prefetch must neither hang nor leak.
}

TEST(FolderPrefetchTest, TheWalkIsWokenForEveryListingItWaitsFor) {
    test::TempDir dir;
    std::vector<std::string> folders;
    for (int i = 0; i < 64; ++i) {
        folders.push_back(dir.path("f" + std::to_string(i)));
        std::filesystem::create_directories(folders.back());
        test::writeFile(folders.back() + "/file", "x");
    }
    // One listing ahead at a time, so the walk keeps waiting for a helper's listing and a helper
    // keeps waiting for the walk to take one: a wake-up lost on either side never returns.
    for (int round = 0; round < 50; ++round) {
        FolderPrefetch prefetch(2, 1);
        for (const auto& folder : folders) prefetch.request(folder);
        for (size_t i = folders.size(); i-- > 0;) ASSERT_EQ(prefetch.take(folders[i]).size(), 1u) << folders[i];
    }
}

}  // namespace
}  // namespace dedup
