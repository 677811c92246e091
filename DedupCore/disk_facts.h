// What the system says about the disks a volume's bytes live on, and the one decision taken from
// it: whether reading several files at once would make a disk head jump between them.
//
// The kernel's rotational flag alone cannot decide that. It is a default that a driver clears only
// when it knows better: a hypervisor's disk (virtio, Xen, a QEMU or VMware SCSI disk) keeps it set
// whatever the host stores the bytes on, and a loop device copies it from the disk under its
// image. So the facts are gathered through loop devices, partitions and device-mapper or md
// members down to the disks themselves (platform::disksUnder), and a disk counts as spinning only
// when it says so and is not emulated. Plain values; any thread.
#pragma once

#include <string>
#include <vector>

namespace dedup {

struct DiskFacts {
    std::string name;         // the kernel's name: "sda", "vda", "nvme0n1", "zram0"
    std::string sysPath;      // its folder under /sys/devices, symbolic links resolved
    bool rotational = false;  // queue/rotational
    std::string driver;       // the driver bound to the device: "sd", "virtio_blk", "vbd"; may be empty
    std::string vendor;       // what a SCSI or ATA disk tells of itself; empty for others
    std::string model;

    bool operator==(const DiskFacts&) const = default;

    // Made up by a hypervisor or by software (a RAM disk, a loop device whose image was not found),
    // so its rotational flag says nothing about a disk head.
    bool isEmulated() const;
    bool spins() const { return rotational && !isEmulated(); }
};

// True when any disk under the volume spins: one slow member sets the pace of all.
bool anySpins(const std::vector<DiskFacts>& disks);

}  // namespace dedup
