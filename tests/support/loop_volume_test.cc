// Proves the volume fixture itself, so that a test about shared blocks that
// fails can be trusted to fail in the engine and not in its scaffolding.
#include "support/loop_volume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <system_error>
#include <thread>

#include "support/mount_table.h"
#include "support/test_files.h"
#include "support/volume_guard.h"

namespace dedup::test {
namespace {

using Kind = LoopVolume::Kind;

class LoopVolumeKindTest : public ::testing::TestWithParam<Kind> {};

TEST_P(LoopVolumeKindTest, MountsClonesWhereSupportedAndLeavesNothingBehind) {
  if (std::string reason = LoopVolume::unavailableReason(GetParam()); !reason.empty()) {
    GTEST_SKIP() << reason;
  }
  std::string mountPoint, folder;
  {
    std::unique_ptr<LoopVolume> volume = LoopVolume::create(GetParam());
    mountPoint = volume->mountPoint();
    folder = volume->folder();
    EXPECT_EQ(volume->kind(), GetParam());

    std::optional<MountEntry> mount = findMount(mountPoint);
    ASSERT_TRUE(mount.has_value());
    EXPECT_EQ(mount->fsType, LoopVolume::kindName(GetParam()));
    EXPECT_EQ(mount->source, volume->device());
    EXPECT_EQ(volume->device().rfind("/dev/loop", 0), 0u) << volume->device();
    EXPECT_EQ(volume->path("/a/b"), mountPoint + "/a/b");

    // Not a multiple of the block size, so the clone has to cover a partial tail block.
    const std::string original = volume->path("original");
    const std::string clone = volume->path("clone");
    writeRandomFile(original, (3 << 20) + 123, 42);
    EXPECT_EQ(readFile(original), randomBytes((3 << 20) + 123, 42));

    std::error_code cloned = tryReflinkCopy(original, clone);
    if (GetParam() == Kind::ext4) {
      EXPECT_EQ(cloned, std::errc::operation_not_supported) << cloned.message();
      EXPECT_FALSE(std::filesystem::exists(clone)) << "a refused clone must not leave a file";
      EXPECT_THROW(reflinkCopy(original, clone), std::system_error);
    } else {
      ASSERT_FALSE(cloned) << cloned.message();
      EXPECT_EQ(readFile(clone), readFile(original));
    }
  }
  EXPECT_FALSE(findMount(mountPoint).has_value()) << mountPoint << " is still mounted";
  EXPECT_TRUE(loopDevicesBackedBy(folder).empty());
  EXPECT_FALSE(std::filesystem::exists(folder));
}

INSTANTIATE_TEST_SUITE_P(AllKinds, LoopVolumeKindTest,
                         ::testing::Values(Kind::btrfs, Kind::xfs, Kind::ext4),
                         [](const ::testing::TestParamInfo<Kind>& info) {
                           return std::string(LoopVolume::kindName(info.param));
                         });

struct VolumeChild {
  pid_t pid = -1;
  std::string folder;  // empty when the child could not make its volume
};

// Forks a child that makes an XFS volume, reports its folder through a pipe
// and then runs `body`, which is meant to end it abnormally.
template <typename Body>
VolumeChild startVolumeChild(Body body) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return {};
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(pipeFds[0]);
    rlimit noCore{0, 0};  // the crash is intended; no core file on the machine
    ::setrlimit(RLIMIT_CORE, &noCore);
    try {
      std::unique_ptr<LoopVolume> volume = LoopVolume::create(Kind::xfs);
      std::string folder = volume->folder() + "\n";
      if (::write(pipeFds[1], folder.data(), folder.size()) < 0) ::_exit(3);
      ::close(pipeFds[1]);
      body();
      volume.release();  // reached only if body returned: leak on purpose
    } catch (...) {
      ::_exit(2);
    }
    ::_exit(0);
  }
  ::close(pipeFds[1]);
  VolumeChild child{pid, {}};
  char c;
  while (::read(pipeFds[0], &c, 1) == 1 && c != '\n') child.folder.push_back(c);
  ::close(pipeFds[0]);
  return child;
}

int waitForExit(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

TEST(LoopVolumeTest, SweepUnmountsVolumesOfKilledProcesses) {
  if (std::string reason = LoopVolume::unavailableReason(Kind::xfs); !reason.empty()) {
    GTEST_SKIP() << reason;
  }
  VolumeChild child = startVolumeChild([] {
    for (;;) ::pause();
  });
  ASSERT_FALSE(child.folder.empty()) << "the child could not make its volume";
  // Looked at while the child lives: once it is dead, any test process's
  // sweep may take the volume away.
  EXPECT_FALSE(mountsUnder(child.folder).empty());
  // SIGKILL runs no handler at all: only the sweep can clean up after it.
  ::kill(child.pid, SIGKILL);
  waitForExit(child.pid);

  volume_guard::sweepStaleVolumes();
  EXPECT_TRUE(mountsUnder(child.folder).empty());
  EXPECT_TRUE(loopDevicesBackedBy(child.folder).empty());
  EXPECT_FALSE(std::filesystem::exists(child.folder));
}

}  // namespace
}  // namespace dedup::test
