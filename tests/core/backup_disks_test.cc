// A backup disk coming and going: a loop-mounted Btrfs image of its own, unmounted and mounted
// again under the watcher's eyes.
#include "backup_disks.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <unistd.h>
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

TEST(BackupDisksTest, DiskIsKnownByItsFileSystemThroughAnySubvolumeAndOldMarksStillCount) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
    LoopVolume* volume = test::sharedVolume(LoopVolume::Kind::btrfs);
    const std::string name = "backup-subvolume-" + std::to_string(::getpid());
    test::runCommandChecked({"btrfs", "-q", "subvolume", "create", volume->path(name)});
    test::TempDir elsewhere;
    // The same disk as it may come back next time: mounted through its subvolume only.
    test::runCommandChecked({"mount", "-o", "subvol=" + name, volume->device(), elsewhere.path()});
    struct Unmount {
        std::string at;
        ~Unmount() { test::runCommand({"umount", at}); }
    } unmount{elsewhere.path()};

    auto id = BackupDisks::uuid(volume->mountPoint());
    ASSERT_TRUE(id);
    EXPECT_EQ(BackupDisks::uuid(elsewhere.path()), id);

    // Marked by an earlier release, which wrote the top-level subvolume's id after the fsid.
    test::TempDir data;
    test::writeFile(data.path("backup-disks.json"), R"({"volumes": [")" + *id + R"(:5", "not-a-uuid:5"]})");
    EXPECT_EQ(BackupDisks::load(data.path("backup-disks.json")).volumes, (std::set<std::string>{*id, "not-a-uuid:5"}));

    BackupWatcher watcher([&] { return BackupDisks::load(data.path("backup-disks.json")); },
                          [&] { return std::vector<std::string>{elsewhere.path()}; }, 3600,
                          [](const std::string& path) {
                              return std::make_unique<AutoReclaimer>(
                                  std::vector<std::string>{path}, DuplicateFinder{}, Reclaimer{},
                                  [] { return Selection{}; }, 3600, [] { return false; }, [](const ReclaimSummary&) {});
                          });
    watcher.start();
    watcher.pollNow();
    EXPECT_EQ(watcher.watching(), std::vector<std::string>{elsewhere.path()});
    watcher.stop();
}

}  // namespace
}  // namespace dedup
