// A backup disk coming and going: a loop-mounted Btrfs image of its own, unmounted and mounted
// again under the watcher's eyes.
#include "backup_disks.h"

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "journal.h"
#include "support/loop_volume.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

bool shareBlocks(const std::string& a, const std::string& b) {
    auto x = CloneInfo::read(a), y = CloneInfo::read(b);
    return x && y && x->cloneID == y->cloneID;
}

TEST(BackupWatcherTest, MarkedDiskGetsAReclaimerWhileConnectedAndAFullPassEachTimeItComes) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
    auto volume = LoopVolume::create(LoopVolume::Kind::btrfs);
    const std::string disk = volume->mountPoint();
    auto id = BackupDisks::uuid(disk);
    ASSERT_TRUE(id);
    test::TempDir data;
    Journal journal(data.path("journal.jsonl"));

    std::mutex mutex;
    BackupDisks marked;
    int made = 0;
    auto candidates = [&] {
        // The real list of candidates, narrowed to this test's disk: others may be mounted meanwhile.
        std::vector<std::string> mine;
        for (const auto& path : Profile::externalCloneVolumes()) {
            if (path == disk) mine.push_back(path);
        }
        return mine;
    };
    BackupWatcher watcher(
        [&] {
            std::lock_guard lock(mutex);
            return marked;
        },
        candidates, 3600, [&](const std::string& path) {
            std::lock_guard lock(mutex);
            ++made;
            DuplicateFinder finder;
            finder.options = BackupDisks::options();
            Reclaimer reclaimer;
            reclaimer.engine.journal = &journal;
            // A quiet period no test waits out: only a first pass can reclaim anything here.
            return std::make_unique<AutoReclaimer>(std::vector<std::string>{path}, finder, reclaimer,
                                                   [] { return Selection{}; }, 3600, [] { return true; },
                                                   [](const ReclaimSummary&) {});
        });
    watcher.start();
    EXPECT_TRUE(watcher.watching().empty());  // connected but not marked

    {
        std::lock_guard lock(mutex);
        marked.volumes.insert(*id);
    }
    watcher.pollNow();
    EXPECT_EQ(watcher.watching(), std::vector<std::string>{disk});
    test::writeRandomFile(disk + "/a.raw", 300000, 7);
    test::writeRandomFile(disk + "/b.raw", 300000, 7);

    test::runCommandChecked({"umount", disk});
    watcher.pollNow();
    EXPECT_TRUE(watcher.watching().empty());

    test::runCommandChecked({"mount", "-o", "loop", volume->folder() + "/image", disk});
    watcher.pollNow();
    EXPECT_EQ(watcher.watching(), std::vector<std::string>{disk});
    EXPECT_EQ(made, 2);
    // The new reclaimer's first pass runs on its own thread right after it starts.
    for (int i = 0; i < 600 && !shareBlocks(disk + "/a.raw", disk + "/b.raw"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(shareBlocks(disk + "/a.raw", disk + "/b.raw"));

    {
        std::lock_guard lock(mutex);
        marked.volumes.clear();
    }
    watcher.pollNow();
    EXPECT_TRUE(watcher.watching().empty());
    watcher.stop();
}

}  // namespace
}  // namespace dedup
