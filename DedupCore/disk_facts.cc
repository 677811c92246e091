#include "disk_facts.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "file_records.h"
#include "platform/storage.h"

namespace dedup {

namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// Drivers of disks that exist only as a hypervisor's promise.
constexpr std::array<std::string_view, 5> emulatingDrivers = {"virtio_blk", "vbd", "xen_blkfront", "xen-blkfront",
                                                              "hv_storvsc"};

// Words by which emulated SCSI and ATA disks name their maker or model: QEMU and KVM, VMware,
// VirtualBox, Hyper-V ("Msft Virtual Disk"), Xen, bhyve, and the disks of Google's and Amazon's clouds.
constexpr std::array<std::string_view, 10> emulatingMakers = {"qemu",   "vmware",         "vbox",   "virtual",
                                                              "xen",    "bhyve",          "google", "persistentdisk",
                                                              "amazon", "elastic block"};

}  // namespace

bool DiskFacts::isEmulated() const {
    // Every disk with hardware behind it hangs below a bus; /sys/devices/virtual holds the ones the
    // kernel made up: loop, zram, ram, nbd.
    if (sysPath.find("/devices/virtual/") != std::string::npos) return true;
    if (std::find(emulatingDrivers.begin(), emulatingDrivers.end(), driver) != emulatingDrivers.end()) return true;
    std::string words = lowered(vendor + " " + model);
    return std::any_of(emulatingMakers.begin(), emulatingMakers.end(),
                       [&](std::string_view maker) { return words.find(maker) != std::string::npos; });
}

bool anySpins(const std::vector<DiskFacts>& disks) {
    return std::any_of(disks.begin(), disks.end(), [](const DiskFacts& disk) { return disk.spins(); });
}

bool StorageKind::isRotational(const std::string& path) { return anySpins(platform::disksUnder(path)); }

}  // namespace dedup
