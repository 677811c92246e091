#include "reclaim_plan.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "duplicate_finder.h"
#include "journal.h"
#include "reclaimer.h"
#include "report_export.h"
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
}

TEST(ReportExportTest, CsvQuotesOnlyPathsThatNeedItAndLeavesFreesEmptyWhereNothingIsFreed) {
    EXPECT_EQ(Report::csv({}, {}), "digest,size,frees,role,path\n");

    std::string digest(64, 'a');
    DuplicateGroup group;
    group.digest = digest;
    group.files = {copy("/p/kept, first.jpg", 300, CloneInfo{300, 5, 0}),
                   copy("/p/say \"hi\".jpg", 300),
                   copy("/p/two\nlines.jpg", 300),
                   copy("/p/left out/ünïcode photo.jpg", 300),
                   copy("/p/already a clone.jpg", 300, CloneInfo{0, 5, 0})};
    Selection selection;
    selection.excluded = {"/p/left out"};
    EXPECT_EQ(Report::csv({group}, selection),
              "digest,size,frees,role,path\n" +
                  digest + ",300,,keep,\"/p/kept, first.jpg\"\n" +
                  digest + ",300,300,clone,\"/p/say \"\"hi\"\".jpg\"\n" +
                  digest + ",300,300,clone,\"/p/two\nlines.jpg\"\n" +
                  digest + ",300,,excluded,/p/left out/ünïcode photo.jpg\n" +
                  digest + ",300,,clone,/p/already a clone.jpg\n");
}

TEST(ReportExportTest, SavedScanLoadsBackEqual) {
    ScanResult result;
    DuplicateGroup group;
    group.digest = std::string(64, 'f');
    group.files = {copy("/a/é.jpg", 5000000000, CloneInfo{5000000000, 0xFFFFFFFFFFFFFFF1ull, 3}),
                   copy("/b/x.jpg", 5000000000)};
    group.files[1].status.modified = {-1, 999999999};
    group.files[1].status.device = 0xFFFFFFFF12ull;
    group.reclaimableBytes = 5000000000;
    result.groups = {group, group};
    result.filesSeen = 12;
    result.bytesRead = 10000000000;
    result.unreadableFolders = {"/secret"};
    result.leftovers = {"/a/.x.dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F"};
    result.cancelled = true;

    EXPECT_EQ(Report::load(Report::json(result)), result);

    // Paths that are not UTF-8 are saved in a form that reads back byte for byte.
    result.groups[0].files[0].path = "/a/\xff\\.jpg";
    result.unreadableFolders = {"/\xc3(/secret"};
    EXPECT_EQ(Report::load(Report::json(result)), result);
    EXPECT_THROW(Report::load("digest,size\n"), nlohmann::json::exception);
    EXPECT_THROW(Report::load("{\"groups\": []}"), nlohmann::json::exception);
}

std::vector<CloneEngine::Replacement> sized(int count, int64_t size) {
    std::vector<CloneEngine::Replacement> result(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        result[static_cast<size_t>(i)].target = "/t" + std::to_string(i);
        result[static_cast<size_t>(i)].expected.size = size;
    }
    return result;
}

TEST(ReclaimerTest, BatchesAreBoundedByCountAndBytes) {
    constexpr auto swap = CloneEngine::Strategy::cloneAndSwap;
    auto small = Reclaimer::batches(sized(65, 10), swap);
    ASSERT_EQ(small.size(), 2u);
    EXPECT_EQ(small[0].size(), 64u);
    EXPECT_EQ(small[1].size(), 1u);
    EXPECT_EQ(small[1][0].target, "/t64");

    // The second 600 MB copy takes a batch past 2^30 bytes, so the third starts the next.
    auto large = Reclaimer::batches(sized(5, 600000000), swap);
    ASSERT_EQ(large.size(), 3u);
    EXPECT_EQ(large[0].size(), 2u);
    EXPECT_EQ(large[2].size(), 1u);
    EXPECT_TRUE(Reclaimer::batches({}, swap).empty());

    // In place nothing waits under a temporary name: only the count bounds a batch, and the
    // automatic choice is in place.
    for (auto strategy : {CloneEngine::Strategy::inPlace, CloneEngine::Strategy::automatic}) {
        auto shared = Reclaimer::batches(sized(1025, 600000000), strategy);
        ASSERT_EQ(shared.size(), 2u);
        EXPECT_EQ(shared[0].size(), 1024u);
        EXPECT_EQ(shared[1][0].target, "/t1024");
    }
}

TEST(ReclaimerTest, ReclaimsCountsSkipsAndStopsWhenCancelled) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    auto* volume = test::sharedVolume(test::LoopVolume::Kind::xfs);
    std::string dir = test::freshFolder(volume, "reclaimer");
    test::TempDir data;
    Journal journal(data.path("journal.jsonl"));

    for (int i = 0; i < 6; ++i) test::writeRandomFile(dir + "/f" + std::to_string(i), 100000, 61);
    test::writeRandomFile(dir + "/left-out/f", 100000, 61);
    DuplicateFinder finder;
    finder.options.minimumSize = 1;
    auto groups = finder.scan({dir}, nullptr, nullptr).groups;
    ASSERT_EQ(groups.size(), 1u);
    ASSERT_EQ(groups[0].files.size(), 7u);

    // One copy changed since the scan: skipped under its reason, not failed.
    const std::string changed = groups[0].files[2].path;
    test::writeRandomFile(changed, 100000, 61);

    Reclaimer reclaimer;
    reclaimer.engine.journal = &journal;
    std::vector<ReclaimProgress> seen;
    int started = 0;
    auto summary = reclaimer.reclaim(groups, Selection{{dir + "/left-out"}},
                                     [&](const ReclaimProgress& p) { seen.push_back(p); },
                                     [&] { return started++ >= 4; });
    // Five targets planned (the left-out one is not), four started, then cancelled.
    EXPECT_TRUE(summary.cancelled);
    EXPECT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen.back().total, 5);
    EXPECT_EQ(summary.replaced, 3);
    EXPECT_EQ(summary.freedBytes, 300000);
    EXPECT_EQ(summary.skipped, (std::map<std::string, std::vector<std::string>>{{"changedSinceScan", {changed}}}));
    EXPECT_TRUE(summary.failed.empty());
    EXPECT_TRUE(journal.interrupted().empty());
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
