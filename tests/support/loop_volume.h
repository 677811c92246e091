// A real Btrfs, XFS or ext4 file system for tests about shared blocks: a sparse image in
// /var/tmp/dedup-test-volumes/<pid>-<start time>-<n>/ (not /tmp, often a tmpfs that would vanish
// with the very mounts to be cleaned up), loop-mounted on mnt/ below it while the object lives.
//
// No volume may outlive its test process, or they pile up and hold the loop devices later runs
// need. Three layers, as no single one covers every ending:
//  - the destructor unmounts, detaches and deletes; shared volumes are destroyed at exit, so a
//    failing test makes no difference;
//  - handlers of fatal signals detach this process's mounts before the signal takes its course;
//  - the first volume a process makes sweeps away those of processes that are gone, for endings
//    nothing can catch (SIGKILL, power loss).
// Destroy a volume after the code under test has closed its files on it, or the unmount falls back
// to a lazy one.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace dedup::test {

class LoopVolume {
public:
    enum class Kind { btrfs, xfs, ext4, xfsWithoutReflink };

    // XFS is formatted with reflink=1, so btrfs and xfs share blocks and ext4 answers EOPNOTSUPP;
    // xfsWithoutReflink is an XFS formatted with reflink=0, which cannot share blocks either.
    // Throws std::runtime_error naming what failed. Any thread may call it.
    static std::unique_ptr<LoopVolume> create(Kind kind);
    // Empty when create(kind) can work here, else why not, for GTEST_SKIP(): a machine that cannot
    // mount is told apart from a fault.
    static std::string unavailableReason(Kind kind);
    static std::string_view kindName(Kind kind);  // the kernel's type name: "btrfs", "xfs", "ext4"

    ~LoopVolume();
    LoopVolume(const LoopVolume&) = delete;
    LoopVolume& operator=(const LoopVolume&) = delete;

    const std::string& folder() const { return folder_; }  // holds "image" and the mount point
    const std::string& mountPoint() const { return mountPoint_; }
    const std::string& device() const { return device_; }  // the loop device: "/dev/loop3"
    std::string path(std::string_view relative) const { return mountPoint_ + "/" + std::string(relative); }

private:
    explicit LoopVolume(std::string folder) : folder_(std::move(folder)), mountPoint_(folder_ + "/mnt") {}

    std::string folder_, mountPoint_, device_;
    int slot_ = -1;
};

// For the fixture's own test, to prove nothing is left behind: what is mounted at or below
// `folder`, and the loop devices reading files there.
std::vector<std::string> mountsUnder(const std::string& folder);
std::vector<std::string> loopDevicesBackedBy(const std::string& folder);
// Tears down every volume whose process is gone.
void sweepStaleVolumes();

}  // namespace dedup::test
