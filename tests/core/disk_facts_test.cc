#include "disk_facts.h"

#include <gtest/gtest.h>

#include "file_records.h"
#include "platform/storage.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

DiskFacts disk(std::string sysPath, bool rotational, std::string driver, std::string vendor = "",
               std::string model = "") {
    DiskFacts facts;
    facts.name = sysPath.substr(sysPath.find_last_of('/') + 1);
    facts.sysPath = std::move(sysPath);
    facts.rotational = rotational;
    facts.driver = std::move(driver);
    facts.vendor = std::move(vendor);
    facts.model = std::move(model);
    return facts;
}

TEST(DiskFactsTest, OnlyARealDiskThatSaysItIsRotationalSpins) {
    const std::string sata = "/sys/devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda";
    EXPECT_TRUE(disk(sata, true, "sd", "ATA", "ST4000DM004-2CV1").spins());
    EXPECT_FALSE(disk(sata, false, "sd", "ATA", "Samsung SSD 870").spins());
    EXPECT_FALSE(disk("/sys/devices/pci0000:00/0000:00:1d.0/nvme/nvme0/nvme0n1", false, "nvme").spins());

    // Hypervisors leave the flag set whatever holds the bytes on the host.
    EXPECT_FALSE(disk("/sys/devices/pci0000:00/0000:00:02.0/virtio1/block/vda", true, "virtio_blk").spins());
    EXPECT_FALSE(disk("/sys/devices/vbd-51712/block/xvda", true, "vbd").spins());
    const std::string scsi = "/sys/devices/pci0000:00/0000:00:03.0/virtio0/host0/target0:0:0/0:0:0:0/block/sda";
    EXPECT_FALSE(disk(scsi, true, "sd", "QEMU", "QEMU HARDDISK").spins());
    EXPECT_FALSE(disk(scsi, true, "sd", "VMware", "Virtual disk").spins());
    EXPECT_FALSE(disk(scsi, true, "sd", "Msft", "Virtual Disk").spins());
    EXPECT_FALSE(disk(scsi, true, "sd", "VBOX", "HARDDISK").spins());
    EXPECT_FALSE(disk(scsi, true, "sd", "Google", "PersistentDisk").spins());
    // A loop device left as the answer (its image could not be followed) and a RAM disk.
    EXPECT_FALSE(disk("/sys/devices/virtual/block/loop0", true, "").spins());
    EXPECT_FALSE(disk("/sys/devices/virtual/block/zram0", true, "").spins());

    // One spinning member slows every read of an array, whatever else it holds.
    EXPECT_TRUE(anySpins({disk(sata, false, "sd", "ATA", "Samsung SSD 870"), disk(sata, true, "sd", "ATA", "WDC WD40")}));
    EXPECT_FALSE(anySpins({}));
}

class DiskFactsOnVolume : public ::testing::TestWithParam<LoopVolume::Kind> {};

TEST_P(DiskFactsOnVolume, LoopDeviceIsLookedThroughToTheDiskUnderItsImage) {
    DEDUP_REQUIRE_VOLUME(GetParam());
    auto* volume = test::sharedVolume(GetParam());
    auto underImage = platform::disksUnder(volume->folder());
    if (underImage.empty()) GTEST_SKIP() << volume->folder() << " lies on no block device (tmpfs?)";
    // The loop device and its image's disk are the same storage, so they read the same way.
    EXPECT_EQ(platform::disksUnder(volume->mountPoint()), underImage);
    EXPECT_EQ(StorageKind::isRotational(volume->mountPoint()), anySpins(underImage));
    EXPECT_TRUE(platform::disksUnder("/nonexistent/path").empty());
}

INSTANTIATE_TEST_SUITE_P(Volumes, DiskFactsOnVolume, ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

}  // namespace
}  // namespace dedup
