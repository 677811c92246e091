#include "reclaimer.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "journal.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

std::vector<CloneEngine::Replacement> sized(int count, int64_t size) {
    std::vector<CloneEngine::Replacement> result(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        result[static_cast<size_t>(i)].target = "/t" + std::to_string(i);
        result[static_cast<size_t>(i)].expected.size = size;
    }
    return result;
}

TEST(ReclaimerTest, BatchesAreBoundedByCountAndBytes) {
    auto small = Reclaimer::batches(sized(65, 10));
    ASSERT_EQ(small.size(), 2u);
    EXPECT_EQ(small[0].size(), 64u);
    EXPECT_EQ(small[1].size(), 1u);
    EXPECT_EQ(small[1][0].target, "/t64");

    // The second 600 MB copy takes a batch past 2^30 bytes, so the third starts the next.
    auto large = Reclaimer::batches(sized(5, 600000000));
    ASSERT_EQ(large.size(), 3u);
    EXPECT_EQ(large[0].size(), 2u);
    EXPECT_EQ(large[2].size(), 1u);
    EXPECT_TRUE(Reclaimer::batches({}).empty());
}

TEST(ReclaimerTest, ReclaimsCountsSkipsAndStopsWhenCancelled) {
    DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::xfs);
    auto* volume = test::sharedVolume(test::LoopVolume::Kind::xfs);
    std::string dir = test::freshFolder(volume, "reclaimer");
    test::TempDir data;
    Journal journal(data.path("journal.jsonl"));

    for (int i = 0; i < 6; ++i) test::writeRandomFile(dir + "/f" + std::to_string(i), 100000, 61);
    std::filesystem::create_directories(dir + "/left-out");
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

}  // namespace
}  // namespace dedup
