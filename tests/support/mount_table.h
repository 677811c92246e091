// Read-only views of what the kernel has mounted and which loop devices are
// attached, used by the volume fixture to tear down and by tests to prove that
// nothing was left behind. Every call reads the kernel's tables afresh; none
// keeps state, so any thread may call them, including after fork.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace dedup::test {

// One line of /proc/self/mountinfo, with the kernel's octal escapes
// (\040 for a space and so on) decoded.
struct MountEntry {
  std::string mountPoint;
  std::string fsType;
  std::string source;
};

// Every mount this process can see, in the kernel's order (parents first).
// An unreadable table reads as empty.
std::vector<MountEntry> readMountTable();

// The last (that is, the visible) mount whose mount point is exactly `path`.
std::optional<MountEntry> findMount(std::string_view path);

// Mount points equal to `folder` or below it, deepest last.
std::vector<std::string> mountsUnder(std::string_view folder);

// A loop device and the file it reads from, as /sys/block/loopN/loop/
// backing_file reports it; a backing file deleted since ends in " (deleted)".
struct LoopDevice {
  std::string device;  // "/dev/loop3"
  std::string backingFile;
};

// Attached loop devices whose backing file lies below `folder` (or is it).
std::vector<LoopDevice> loopDevicesBackedBy(std::string_view folder);

// Detaches `device` with LOOP_CLR_FD. While the device is still open (a lazily
// unmounted file system), the kernel instead detaches it on its last close.
// Returns 0 or the errno; ENXIO means it was not attached.
int detachLoopDevice(const std::string& device);

}  // namespace dedup::test
