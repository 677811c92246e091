// A real Btrfs, XFS or ext4 file system for tests about shared blocks, made in
// a sparse image file and loop-mounted for as long as the object lives.
//
// Owns: the folder /var/tmp/dedup-test-volumes/<pid>-<n>/ with the image, the
// mount point below it, and the loop device the mount attached. Destroying the
// object unmounts, detaches and deletes all of them; a process that dies
// without running destructors has them removed by its signal handlers and by
// the next test process (see volume_guard.h).
//
// Threads: create() and unavailableReason() may be called from any thread; a
// volume is then used like any folder. Destroy it from one thread, after the
// code under test has closed its files on it, or the unmount falls back to a
// lazy one and the loop device is only freed when those files close.
//
// On failure create() throws std::runtime_error naming the command that
// failed and what it wrote on stderr. Tests first ask unavailableReason() and
// skip with it, so a machine that cannot mount is told apart from a fault.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace dedup::test {

class LoopVolume {
 public:
  enum class Kind { btrfs, xfs, ext4 };

  static constexpr int64_t kDefaultSize = int64_t{512} << 20;

  // Makes, formats and mounts a new volume. XFS is formatted with reflink=1,
  // so btrfs and xfs share blocks and ext4 answers EOPNOTSUPP.
  static std::unique_ptr<LoopVolume> create(Kind kind, int64_t sizeBytes = kDefaultSize);

  // Empty when create(kind) can work on this machine, else one sentence saying
  // why not, fit for GTEST_SKIP(). Only cheap checks: a kernel that refuses the
  // mount for another reason still makes create() throw.
  static std::string unavailableReason(Kind kind);

  // "btrfs", "xfs", "ext4": the kernel's type name, usable in test names.
  static std::string_view kindName(Kind kind);

  ~LoopVolume();
  LoopVolume(const LoopVolume&) = delete;
  LoopVolume& operator=(const LoopVolume&) = delete;

  Kind kind() const { return kind_; }
  // The root of the mounted file system; it starts empty apart from what the
  // file system makes itself (ext4's lost+found).
  const std::string& mountPoint() const { return mountPoint_; }
  // `relative` joined under the mount point; leading slashes are ignored.
  std::string path(std::string_view relative) const;
  // The loop device holding the file system, as /proc/self/mountinfo names it.
  const std::string& device() const { return device_; }
  // The folder that holds the image and the mount point.
  const std::string& folder() const { return folder_; }

 private:
  LoopVolume(Kind kind, std::string folder);

  Kind kind_;
  std::string folder_;
  std::string imagePath_;
  std::string mountPoint_;
  std::string device_;
  int slot_ = -1;
};

}  // namespace dedup::test
