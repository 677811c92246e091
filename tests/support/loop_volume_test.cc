// Proves the volume fixture itself, so that a test about shared blocks that fails can be trusted to
// fail in the engine and not in its scaffolding.
#include "support/loop_volume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "support/test_files.h"

namespace dedup::test {
namespace {

using Kind = LoopVolume::Kind;

void expectGone(const std::string& folder) {
    EXPECT_TRUE(mountsUnder(folder).empty()) << folder << " is still mounted";
    EXPECT_TRUE(loopDevicesBackedBy(folder).empty()) << folder << " still holds a loop device";
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(LoopVolumeTest, EachKindMountsClonesWhereItCanAndLeavesNothingBehind) {
    for (Kind kind : {Kind::btrfs, Kind::xfs, Kind::ext4}) {
        SCOPED_TRACE(LoopVolume::kindName(kind));
        if (std::string reason = LoopVolume::unavailableReason(kind); !reason.empty()) GTEST_SKIP() << reason;
        std::string folder;
        {
            auto volume = LoopVolume::create(kind);
            folder = volume->folder();
            EXPECT_EQ(mountsUnder(folder), std::vector<std::string>{volume->mountPoint()});
            EXPECT_EQ(loopDevicesBackedBy(folder), std::vector<std::string>{volume->device()});
            // Not a multiple of the block size, so a clone has to cover a partial tail block.
            writeRandomFile(volume->path("original"), (3 << 20) + 123, 42);
            if (kind == Kind::ext4) {
                EXPECT_THROW(reflinkCopy(volume->path("original"), volume->path("clone")), std::system_error);
            } else {
                reflinkCopy(volume->path("original"), volume->path("clone"));
                EXPECT_EQ(readFile(volume->path("clone")), randomBytes((3 << 20) + 123, 42));
            }
        }
        expectGone(folder);
    }
}

// Forks a child that makes an XFS volume, reports its folder and then dies of `sig`.
std::string folderOfChildKilledBy(int sig) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return {};
    pid_t pid = ::fork();
    if (pid == 0) {
        rlimit noCore{0, 0};  // the crash is intended: no core file
        ::setrlimit(RLIMIT_CORE, &noCore);
        try {
            std::string folder = LoopVolume::create(Kind::xfs).release()->folder() + "\n";
            if (::write(fds[1], folder.data(), folder.size()) > 0) ::raise(sig);
        } catch (...) {
        }
        ::_exit(2);
    }
    ::close(fds[1]);
    std::string folder;
    for (char c; ::read(fds[0], &c, 1) == 1 && c != '\n';) folder.push_back(c);
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << "status " << status;
    return folder;
}

TEST(LoopVolumeTest, VolumesOfCrashedAndKilledProcessesAreRemoved) {
    if (std::string reason = LoopVolume::unavailableReason(Kind::xfs); !reason.empty()) GTEST_SKIP() << reason;
    std::string crashed = folderOfChildKilledBy(SIGABRT);
    std::string killed = folderOfChildKilledBy(SIGKILL);
    ASSERT_FALSE(crashed.empty() || killed.empty()) << "a child could not make its volume";
    // A crash runs the signal handler, which detaches the mount at once; SIGKILL runs nothing, so
    // only the sweep can clean up after it.
    EXPECT_TRUE(mountsUnder(crashed).empty());
    EXPECT_FALSE(mountsUnder(killed).empty());
    sweepStaleVolumes();
    expectGone(crashed);
    expectGone(killed);
}

}  // namespace
}  // namespace dedup::test
