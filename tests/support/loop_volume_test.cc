// Proves the volume fixture itself, so that a test about shared blocks that fails can be trusted to
// fail in the engine and not in its scaffolding.
#include "support/loop_volume.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/test_files.h"

namespace dedup::test {
namespace {

using Kind = LoopVolume::Kind;

void expectGone(const std::string& folder) {
    EXPECT_TRUE(mountsUnder(folder).empty()) << folder << " is still mounted";
    EXPECT_TRUE(loopDevicesBackedBy(folder).empty()) << folder << " still holds a loop device";
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(LoopVolumeTest, DestroyedVolumeLeavesNothingBehind) {
    if (std::string reason = LoopVolume::unavailableReason(Kind::btrfs); !reason.empty()) GTEST_SKIP() << reason;
    std::string folder;
    {
        auto volume = LoopVolume::create(Kind::btrfs);
        folder = volume->folder();
        EXPECT_EQ(mountsUnder(folder), std::vector<std::string>{volume->mountPoint()});
        EXPECT_EQ(loopDevicesBackedBy(folder), std::vector<std::string>{volume->device()});
        writeRandomFile(volume->path("file"), 1 << 20, 42);
    }
    expectGone(folder);
}

// Forks a child that makes an XFS volume and stops; once its volume is seen mounted, the child is
// sent `sig`. Answers the child's volume folder, empty when it could not make one.
std::string folderOfChildKilledBy(int sig) {
    pid_t pid = ::fork();
    if (pid == 0) {
        rlimit noCore{0, 0};  // the crash is intended: no core file
        ::setrlimit(RLIMIT_CORE, &noCore);
        try {
            LoopVolume::create(Kind::xfs).release();
            ::raise(SIGSTOP);  // stopped, not gone: no sweep takes the volume while the test looks
        } catch (...) {
        }
        ::_exit(2);
    }
    int status = 0;
    ::waitpid(pid, &status, WUNTRACED);
    if (!WIFSTOPPED(status)) return {};  // it could not make its volume, and is gone already
    std::string folder;
    for (const auto& entry : std::filesystem::directory_iterator("/var/tmp/dedup-test-volumes")) {
        if (entry.path().filename().string().starts_with(std::to_string(pid) + "-")) folder = entry.path();
    }
    EXPECT_TRUE(!folder.empty() && !mountsUnder(folder).empty()) << "the child's volume is not mounted";
    ::kill(pid, sig);
    ::kill(pid, SIGCONT);
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << "status " << status;
    return folder;
}

TEST(LoopVolumeTest, VolumesOfCrashedAndKilledProcessesAreRemoved) {
    if (std::string reason = LoopVolume::unavailableReason(Kind::xfs); !reason.empty()) GTEST_SKIP() << reason;
    std::string crashed = folderOfChildKilledBy(SIGABRT), killed = folderOfChildKilledBy(SIGKILL);
    ASSERT_FALSE(crashed.empty() || killed.empty()) << "a child could not make its volume";
    // A crash runs the signal handler, which detaches the mount at once. SIGKILL runs nothing: only
    // the sweep can clean up after it.
    EXPECT_TRUE(mountsUnder(crashed).empty());
    sweepStaleVolumes();
    expectGone(crashed);
    expectGone(killed);
}

}  // namespace
}  // namespace dedup::test
