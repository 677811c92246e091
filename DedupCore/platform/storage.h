// Where a volume's bytes are stored, as the operating system describes it.
#pragma once

#include <string>
#include <vector>

#include "../disk_facts.h"

namespace dedup::platform {

// The disks holding the file system of `path`: through partitions, device-mapper and md members,
// the devices of a Btrfs file system, and loop devices (to the disk under their image file). Empty
// when none can be found (tmpfs, a network file system, no /sys); never throws.
std::vector<DiskFacts> disksUnder(const std::string& path);

}  // namespace dedup::platform
