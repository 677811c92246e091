#include "reclaim_plan.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "duplicate_finder.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

ScannedFile copy(const std::string& path, int64_t size, std::optional<CloneInfo> clones = std::nullopt,
                 uint64_t device = 1) {
    ScannedFile f{path, {}, clones};
    f.status.size = size;
    f.status.device = device;
    return f;
}

std::vector<int64_t> frees(const std::vector<Target>& targets) {
    std::vector<int64_t> out;
    for (const auto& t : targets) out.push_back(t.frees);
    return out;
}

TEST(ReclaimPlanTest, WhatEachCopyFrees) {
    CloneInfo keptFamily{0, 7, 0};
    CloneInfo otherFamily{0, 9, 0};
    DuplicateGroup group{"d",
                         {copy("/k", 100, keptFamily),
                          copy("/same-family", 100, keptFamily),          // already shares: not a target
                          copy("/unknown", 100),                          // no facts: its whole size
                          copy("/partly", 100, CloneInfo{40, 3, 0}),       // only what it holds alone
                          copy("/other1", 100, otherFamily),               // a family gives back once...
                          copy("/other2", 100, otherFamily),               // ...so its second member frees 0
                          copy("/other-device", 100, keptFamily, 2)},      // same id on another device
                         0};
    auto targets = Report::targets({group}, Selection{});
    ASSERT_EQ(targets.size(), 5u);
    EXPECT_EQ(targets[0].file.path, "/unknown");
    EXPECT_EQ(frees(targets), (std::vector<int64_t>{100, 40, 100, 0, 100}));
    EXPECT_EQ(Report::reclaimableBytes({group}, Selection{}), 340);

    DuplicateGroup allClones{"d", {copy("/a", 5, keptFamily), copy("/b", 5, keptFamily)}, 0};
    EXPECT_TRUE(Report::targets({allClones}, {}).empty());
    DuplicateGroup single{"d", {copy("/a", 5)}, 0};
    EXPECT_EQ(Report::reclaimableBytes({single, allClones}, {}), 0);
}

TEST(ReclaimPlanTest, SelectionLeavesOutWholePathsAtAnyDepth) {
    Selection selection{{"/photos/trip", "/x/file.jpg"}};
    EXPECT_TRUE(selection.excludes("/photos/trip"));
    EXPECT_TRUE(selection.excludes("/photos/trip/day1/a.jpg"));
    EXPECT_FALSE(selection.excludes("/photos/trip2/a.jpg"));
    EXPECT_TRUE(selection.excludes("/x/file.jpg"));
    EXPECT_FALSE(selection.excludes("/x/file.jpg2"));
    EXPECT_TRUE(Selection{{"/"}}.excludes("/any/thing"));

    DuplicateGroup group{"d", {copy("/k", 10), copy("/photos/trip/a", 10), copy("/photos/b", 10)}, 0};
    auto targets = Report::targets({group}, selection);
    ASSERT_EQ(targets.size(), 1u);
    EXPECT_EQ(targets[0].file.path, "/photos/b");

    test::TempDir dir;
    selection.save(dir.path("selection.json"));
    EXPECT_EQ(Selection::load(dir.path("selection.json")), selection);
}

// Btrfs keeps small files inside its metadata, where every one reports the same address 0: they
// must neither pass for clones of each other nor be planned, since replacing them frees nothing.
TEST(ReclaimPlanTest, FilesWithInlineDataAreFoundButNeverPlanned) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::btrfs);
    std::string dir = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::btrfs), "inline");
    test::writeRandomFile(dir + "/a.txt", 1500, 5);
    test::writeRandomFile(dir + "/b.txt", 1500, 5);
    test::writeRandomFile(dir + "/c.txt", 1500, 6);
    ::sync();  // the extent map says "inline" once the data is written out
    auto a = CloneInfo::read(dir + "/a.txt"), c = CloneInfo::read(dir + "/c.txt");
    ASSERT_TRUE(a && c);
    EXPECT_TRUE(a->inlineData);
    EXPECT_NE(a->cloneID, c->cloneID);

    DuplicateFinder finder;
    finder.options.minimumSize = 1;
    auto groups = finder.scan({dir}, nullptr, nullptr).groups;
    ASSERT_EQ(groups.size(), 1u);
    EXPECT_EQ(groups[0].files.size(), 2u);
    EXPECT_EQ(groups[0].reclaimableBytes, 0);
    EXPECT_TRUE(Report::targets(groups, {}).empty());
}

}  // namespace
}  // namespace dedup
