// A power cut in the middle of a clone-and-swap batch, simulated on a real XFS: the file system is
// shut down without writing out its log, as a machine losing power would, while another program's
// fsync has just made the engine's temporary files durable. After the "reboot" the journal must
// still announce every replacement of the batch, so that recovery finds every temporary.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "clone_engine.h"
#include "journal.h"
#include "support/loop_volume.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

std::vector<std::string> temporariesIn(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (CloneEngine::isTemporary(entry.path())) found.push_back(entry.path());
    }
    return found;
}

TEST(PowerCutTest, StartedEntriesSurviveAndRecoveryPutsEveryTemporaryRight) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    if (test::findProgram("xfs_io").empty()) GTEST_SKIP() << "xfs_io is missing (install xfsprogs)";
    // A volume of its own: it is shut down and mounted again.
    auto volume = LoopVolume::create(LoopVolume::Kind::xfs);
    std::string folder = volume->path("photos");
    std::string journalPath = volume->path("data/journal.jsonl");
    constexpr int copies = 5;
    std::vector<std::string> contents;
    test::writeRandomFile(folder + "/kept.jpg", 1 << 20, 7);
    for (int i = 0; i < copies; ++i) test::writeRandomFile(folder + "/copy" + std::to_string(i) + ".jpg", 1 << 20, 7);
    test::runCommandChecked({"sync"});
    std::string original = test::readFile(folder + "/kept.jpg");

    int paused[2];
    ASSERT_EQ(::pipe(paused), 0);
    pid_t child = ::fork();
    if (child == 0) {
        Journal journal(journalPath);
        CloneEngine engine;
        engine.journal = &journal;
        engine.strategy = CloneEngine::Strategy::cloneAndSwap;
        int compared = 0;
        // Two copies swapped in, the third's clone made and compared: then the power goes.
        engine.fault = [&](CloneEngine::Step step, const std::string&) {
            if (step == CloneEngine::Step::compared && ++compared == 3) {
                char byte = 1;
                if (::write(paused[1], &byte, 1) != 1) ::_exit(1);
                for (;;) ::pause();
            }
        };
        std::vector<CloneEngine::Replacement> batch;
        for (int i = 0; i < copies; ++i) {
            std::string copy = folder + "/copy" + std::to_string(i) + ".jpg";
            batch.push_back({copy, folder + "/kept.jpg", FileStatus::read(copy), std::nullopt, std::nullopt});
        }
        engine.replace(batch, nullptr, [](const CloneEngine::Replacement&, const CloneEngine::Outcome&) {});
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(paused[0], &byte, 1), 1);
    ::close(paused[0]);
    ::close(paused[1]);
    // Another program syncs its own file: that writes out the file system's log, and with it the
    // temporaries' names, but not data still waiting in the page cache.
    {
        test::writeFile(volume->path("other.txt"), "saved");
        int fd = ::open(volume->path("other.txt").c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::fsync(fd), 0);
        ::close(fd);
    }
    ASSERT_FALSE(temporariesIn(folder).empty());
    test::runCommandChecked({"xfs_io", "-x", "-c", "shutdown", volume->mountPoint()});
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    volume->remount();

    Journal journal(journalPath);
    auto interrupted = journal.interrupted();
    ASSERT_EQ(interrupted.size(), static_cast<size_t>(copies));
    // Every clone of the batch was made and its identity synced before the first got a name, so
    // the recovery can tell each of them from anything else at its temporary name.
    std::map<std::string, const JournalEntry*> byTemporary;
    for (const auto& entry : interrupted) {
        EXPECT_TRUE(entry.temporary) << entry.target;
        EXPECT_TRUE(entry.after) << entry.target;
        if (entry.temporary) byTemporary[*entry.temporary] = &entry;
    }
    auto recovery = journal.recover([&](const std::string& path) {
        auto recovered = CloneEngine::recoverLeftover(*byTemporary.at(path));
        EXPECT_FALSE(recovered.keptBeside) << path;
        return recovered.detail();
    });
    EXPECT_TRUE(recovery.stuck.empty());
    EXPECT_EQ(recovery.recovered.size(), static_cast<size_t>(copies));
    EXPECT_TRUE(temporariesIn(folder).empty());
    for (int i = 0; i < copies; ++i) {
        EXPECT_EQ(test::readFile(folder + "/copy" + std::to_string(i) + ".jpg"), original) << i;
    }
    EXPECT_TRUE(journal.interrupted().empty());
}

}  // namespace
}  // namespace dedup
