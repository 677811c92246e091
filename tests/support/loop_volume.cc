#include "loop_volume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <vector>

#include "mount_table.h"
#include "test_files.h"
#include "volume_guard.h"

namespace dedup::test {
namespace {

struct KindTraits {
  const char* fsType;   // as /proc/filesystems and mountinfo name it
  const char* article;  // for sentences: "a Btrfs image"
  const char* mkfs;
  const char* package;  // the Debian package that ships mkfs
};

KindTraits traitsOf(LoopVolume::Kind kind) {
  switch (kind) {
    case LoopVolume::Kind::btrfs:
      return {"btrfs", "a Btrfs image", "mkfs.btrfs", "btrfs-progs"};
    case LoopVolume::Kind::xfs:
      return {"xfs", "an XFS image", "mkfs.xfs", "xfsprogs"};
    case LoopVolume::Kind::ext4:
      return {"ext4", "an ext4 image", "mkfs.ext4", "e2fsprogs"};
  }
  throw std::invalid_argument("unknown LoopVolume::Kind");
}

std::vector<std::string> mkfsCommand(LoopVolume::Kind kind, const std::string& program,
                                     const std::string& image) {
  switch (kind) {
    case LoopVolume::Kind::btrfs:
      return {program, "-q", "-f", image};
    case LoopVolume::Kind::xfs:
      // Spelled out although recent mkfs.xfs defaults to it: the whole point
      // of an XFS volume here is that it can share blocks.
      return {program, "-q", "-f", "-m", "reflink=1", image};
    case LoopVolume::Kind::ext4:
      return {program, "-q", "-F", image};
  }
  throw std::invalid_argument("unknown LoopVolume::Kind");
}

// CAP_SYS_ADMIN is what mount(2) checks; a root inside an unprivileged
// container has uid 0 without it.
bool hasSysAdminCapability() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("CapEff:", 0) == 0) {
      unsigned long long mask = std::strtoull(line.c_str() + 7, nullptr, 16);
      return (mask >> 21) & 1;  // CAP_SYS_ADMIN
    }
  }
  return false;
}

// A file system missing from /proc/filesystems can still be loaded as a
// module on first mount, but only if modules for this kernel are installed.
bool kernelKnows(const char* fsType) {
  std::ifstream in("/proc/filesystems");
  std::string line;
  while (std::getline(in, line)) {
    size_t tab = line.rfind('\t');
    if (line.substr(tab == std::string::npos ? 0 : tab + 1) == fsType) return true;
  }
  std::ifstream release("/proc/sys/kernel/osrelease");
  std::string version;
  std::getline(release, version);
  struct stat st;
  return !version.empty() && ::stat(("/lib/modules/" + version).c_str(), &st) == 0;
}

std::string requireProgram(std::string_view name) {
  std::string path = findProgram(name);
  if (path.empty()) throw std::runtime_error(std::string(name) + " is not installed");
  return path;
}

}  // namespace

std::string_view LoopVolume::kindName(Kind kind) { return traitsOf(kind).fsType; }

std::string LoopVolume::unavailableReason(Kind kind) {
  KindTraits traits = traitsOf(kind);
  if (::geteuid() != 0) return std::string("needs root to loop-mount ") + traits.article;
  if (!hasSysAdminCapability()) {
    return std::string("runs as root but without CAP_SYS_ADMIN, so cannot loop-mount ") +
           traits.article;
  }
  if (findProgram(traits.mkfs).empty()) {
    return std::string(traits.mkfs) + " is missing (install the package " + traits.package + ")";
  }
  for (const char* tool : {"mount", "umount"}) {
    if (findProgram(tool).empty()) {
      return std::string(tool) + " is missing (install the package mount)";
    }
  }
  int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (control < 0) {
    return std::string("loop devices are unavailable: cannot open /dev/loop-control (") +
           std::strerror(errno) + ")";
  }
  ::close(control);
  if (!kernelKnows(traits.fsType)) {
    return std::string("the running kernel has no ") + traits.fsType + " support";
  }
  if (::access("/var/tmp", W_OK) != 0) {
    return std::string("cannot write to /var/tmp (") + std::strerror(errno) + ")";
  }
  return {};
}

LoopVolume::LoopVolume(Kind kind, std::string folder)
    : kind_(kind),
      folder_(std::move(folder)),
      imagePath_(folder_ + "/image"),
      mountPoint_(folder_ + "/mnt") {}

std::unique_ptr<LoopVolume> LoopVolume::create(Kind kind, int64_t sizeBytes) {
  if (std::string reason = unavailableReason(kind); !reason.empty()) {
    throw std::runtime_error("cannot make a test volume: " + reason);
  }
  if (sizeBytes <= 0) throw std::invalid_argument("LoopVolume::create: size must be positive");
  volume_guard::prepareProcess();

  static std::atomic<int> counter{0};
  std::string root = volume_guard::volumesRoot();
  if (::mkdir(root.c_str(), 0755) != 0 && errno != EEXIST) {
    throw std::runtime_error("mkdir " + root + ": " + std::strerror(errno));
  }
  std::string folder;
  for (;;) {
    folder = root + "/" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    if (::mkdir(folder.c_str(), 0755) == 0) break;
    // A folder of a dead process with our pid that the sweep could not remove.
    if (errno != EEXIST) throw std::runtime_error("mkdir " + folder + ": " + std::strerror(errno));
  }
  // From here on the object owns the folder: any failure below unwinds
  // through the destructor, which removes whatever was made so far.
  std::unique_ptr<LoopVolume> volume(new LoopVolume(kind, folder));
  volume_guard::writeOwnerRecord(folder);

  // A sparse image: only what the file system writes takes space on disk.
  int fd = ::open(volume->imagePath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    throw std::runtime_error("create " + volume->imagePath_ + ": " + std::strerror(errno));
  }
  int truncated = ::ftruncate(fd, sizeBytes);
  int truncateErrno = errno;
  ::close(fd);
  if (truncated != 0) {
    throw std::runtime_error("size " + volume->imagePath_ + ": " + std::strerror(truncateErrno));
  }

  KindTraits traits = traitsOf(kind);
  runCommandChecked(mkfsCommand(kind, requireProgram(traits.mkfs), volume->imagePath_));
  if (::mkdir(volume->mountPoint_.c_str(), 0755) != 0) {
    throw std::runtime_error("mkdir " + volume->mountPoint_ + ": " + std::strerror(errno));
  }
  volume->slot_ = volume_guard::claimSlot(folder, volume->mountPoint_);
  runCommandChecked({requireProgram("mount"), "-t", traits.fsType, "-o", "loop", volume->imagePath_,
                     volume->mountPoint_});

  std::optional<MountEntry> mounted = findMount(volume->mountPoint_);
  if (!mounted || mounted->fsType != traits.fsType) {
    throw std::runtime_error("mount reported success but " + volume->mountPoint_ +
                             " does not hold a " + traits.fsType + " file system");
  }
  volume->device_ = mounted->source;
  return volume;
}

LoopVolume::~LoopVolume() {
  std::string problems = volume_guard::tearDown(folder_);
  // Released only now, so a crash during the teardown is still covered.
  volume_guard::releaseSlot(slot_);
  if (!problems.empty()) {
    std::fprintf(stderr, "warning: test volume %s: %s\n", folder_.c_str(), problems.c_str());
  }
}

std::string LoopVolume::path(std::string_view relative) const {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  return mountPoint_ + "/" + std::string(relative);
}

}  // namespace dedup::test
