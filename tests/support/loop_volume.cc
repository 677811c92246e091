#include "loop_volume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "test_files.h"

namespace dedup::test {
namespace {

namespace fs = std::filesystem;

const std::string volumesRoot = "/var/tmp/dedup-test-volumes";

struct Traits {
    const char* mkfs;
    const char* package;
    std::vector<std::string> options;
};

Traits traitsOf(LoopVolume::Kind kind) {
    switch (kind) {
        case LoopVolume::Kind::btrfs: return {"mkfs.btrfs", "btrfs-progs", {"-q", "-f"}};
        // Spelled out though recent mkfs.xfs defaults to it: an XFS volume here exists to share blocks.
        case LoopVolume::Kind::xfs: return {"mkfs.xfs", "xfsprogs", {"-q", "-f", "-m", "reflink=1"}};
        case LoopVolume::Kind::ext4: return {"mkfs.ext4", "e2fsprogs", {"-q", "-F"}};
    }
    throw std::invalid_argument("unknown LoopVolume::Kind");
}

bool isAtOrBelow(std::string_view path, std::string_view folder) {
    return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// "<pid>-<start time>": field 22 of /proc/PID/stat counts clock ticks since boot, so with the pid it
// names one process for the machine's whole uptime, where pids alone are soon reused. Empty for a
// process that is gone or a zombie, which has closed its files already.
std::string identityOf(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line, state, field;
    if (!std::getline(in, line) || line.rfind(')') == std::string::npos) return {};
    std::istringstream fields(line.substr(line.rfind(')') + 1));  // the name may hold spaces and ')'
    fields >> state;
    for (int number = 4; number <= 22; ++number) fields >> field;
    return fields && state != "Z" && state != "X" ? std::to_string(pid) + "-" + field : std::string();
}

// Mount points live in a fixed table, as the signal handler may not allocate or lock. `live` turns
// true only once the path is written.
struct Slot {
    std::atomic<bool> live{false};
    pid_t owner = 0;  // a forked child must never detach its parent's volumes
    char mountPoint[512] = {};
};
std::array<Slot, 32> slots;
std::mutex slotsMutex;
struct sigaction previousActions[NSIG];

void onFatalSignal(int sig) {
    int savedErrno = errno;
    for (Slot& slot : slots) {
        // Detaching is all a handler can do safely: the loop device follows once the file system is
        // released, and the next sweep removes the image.
        if (slot.live.load() && slot.owner == ::getpid()) ::umount2(slot.mountPoint, MNT_DETACH);
    }
    ::sigaction(sig, &previousActions[sig], nullptr);
    errno = savedErrno;
    ::raise(sig);  // delivered with the previous disposition as soon as the handler returns
}

int claimSlot(const std::string& mountPoint) {
    std::lock_guard lock(slotsMutex);
    for (size_t i = 0; i < slots.size(); ++i) {
        if (slots[i].live || mountPoint.size() >= sizeof slots[i].mountPoint) continue;
        slots[i].owner = ::getpid();
        std::strcpy(slots[i].mountPoint, mountPoint.c_str());
        slots[i].live = true;
        return static_cast<int>(i);
    }
    throw std::runtime_error("no room to guard the test volume " + mountPoint);
}

void releaseSlot(int slot) {
    std::lock_guard lock(slotsMutex);
    if (slot >= 0) slots[static_cast<size_t>(slot)].live = false;
}

// Unmounts everything below `folder` (retrying while the kernel briefly holds on, lazily as a last
// resort), detaches its loop devices, waits boundedly for them to let go and removes the folder.
// Tolerates pieces being gone already. Returns what it could not do.
std::string tearDown(const std::string& folder) noexcept {
    std::string problems;
    try {
        bool busy = false;
        std::vector<std::string> points = mountsUnder(folder);
        for (auto point = points.rbegin(); point != points.rend(); ++point) {  // innermost first
            for (int attempt = 1; ::umount2(point->c_str(), 0) != 0 && errno == EBUSY; ++attempt) {
                if (attempt == 5) {
                    ::umount2(point->c_str(), MNT_DETACH);
                    busy = true;
                    problems += "unmounted " + *point + " lazily, a file on it is still open; ";
                    break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(100 * attempt));
            }
        }
        for (const std::string& device : loopDevicesBackedBy(folder)) {
            int fd = ::open(device.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) ::ioctl(fd, LOOP_CLR_FD, 0);
            if (fd >= 0) ::close(fd);
        }
        // The kernel may finish detaching after the call returns; pointless to wait while an open
        // file keeps a lazily unmounted volume busy.
        for (int i = 0; i < 50 && !busy && !loopDevicesBackedBy(folder).empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!busy && !loopDevicesBackedBy(folder).empty()) problems += "a loop device still reads it; ";
        // Never delete through a mount point that is still attached.
        if (!mountsUnder(folder).empty()) {
            problems += "left in place, something is still mounted below it";
        } else if (!removeTree(folder)) {
            problems += "could not be removed";
        }
    } catch (const std::exception& e) {
        problems += e.what();
    }
    return problems;
}

void warnUnless(const std::string& problems, const std::string& folder) {
    if (!problems.empty()) std::fprintf(stderr, "warning: test volume %s: %s\n", folder.c_str(), problems.c_str());
}

void tearDownAtExit() {
    for (Slot& slot : slots) {
        if (!slot.live || slot.owner != ::getpid()) continue;
        std::string folder = fs::path(slot.mountPoint).parent_path();
        warnUnless(tearDown(folder), folder);
        slot.live = false;
    }
}

void prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        sweepStaleVolumes();
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
            struct sigaction action {};
            // An ignored signal must stay ignored, or volumes are unmounted under a process that goes on.
            if (::sigaction(sig, nullptr, &previousActions[sig]) != 0 || previousActions[sig].sa_handler == SIG_IGN) {
                continue;
            }
            action.sa_handler = onFatalSignal;
            sigemptyset(&action.sa_mask);
            ::sigaction(sig, &action, nullptr);
        }
        std::atexit(tearDownAtExit);
    });
}

// CAP_SYS_ADMIN is what mount(2) checks; root inside an unprivileged container has uid 0 without it.
bool hasSysAdminCapability() {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("CapEff:")) return (std::strtoull(line.c_str() + 7, nullptr, 16) >> 21) & 1;
    }
    return false;
}

// A file system missing from /proc/filesystems may still load as a module on first mount, but only
// if modules for the running kernel are installed.
bool kernelKnows(const std::string& type) {
    std::ifstream in("/proc/filesystems");
    for (std::string line; std::getline(in, line);) {
        if (line.ends_with("\t" + type)) return true;
    }
    std::ifstream release("/proc/sys/kernel/osrelease");
    std::string version;
    return std::getline(release, version) && fs::exists("/lib/modules/" + version);
}

}  // namespace

std::vector<std::string> mountsUnder(const std::string& folder) {
    std::vector<std::string> points;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        // "id parent major:minor root mount-point ..."; parents come before their children.
        std::istringstream fields(line);
        std::string point;
        for (int field = 0; field < 5; ++field) fields >> point;
        if (isAtOrBelow(point, folder)) points.push_back(point);
    }
    return points;
}

std::vector<std::string> loopDevicesBackedBy(const std::string& folder) {
    std::vector<std::string> devices;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/sys/block", ec)) {
        // Readable only while a file is attached; a deleted one ends in " (deleted)".
        std::ifstream in(entry.path() / "loop/backing_file");
        std::string backing;
        if (std::getline(in, backing) && isAtOrBelow(backing, folder)) {
            devices.push_back("/dev/" + entry.path().filename().string());
        }
    }
    return devices;
}

void sweepStaleVolumes() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(volumesRoot, ec)) {
        // Only names this fixture gives, "<pid>-<start time>-<n>": other folders are not ours to judge.
        std::string name = entry.path().filename();
        if (std::count(name.begin(), name.end(), '-') != 2) continue;
        std::string owner = name.substr(0, name.rfind('-'));
        if (identityOf(std::atol(name.c_str())) != owner) warnUnless(tearDown(entry.path()), entry.path());
    }
}

std::string_view LoopVolume::kindName(Kind kind) {
    switch (kind) {
        case Kind::btrfs: return "btrfs";
        case Kind::xfs: return "xfs";
        case Kind::ext4: return "ext4";
    }
    return "";
}

std::string LoopVolume::unavailableReason(Kind kind) {
    Traits traits = traitsOf(kind);
    std::string type(kindName(kind));
    if (::geteuid() != 0) return "needs root to loop-mount a " + type + " image";
    if (!hasSysAdminCapability()) return "runs as root but without CAP_SYS_ADMIN, so cannot loop-mount a " + type + " image";
    if (findProgram(traits.mkfs).empty()) return std::string(traits.mkfs) + " is missing (install " + traits.package + ")";
    if (findProgram("mount").empty()) return "mount is missing (install the package mount)";
    if (::access("/dev/loop-control", R_OK | W_OK) != 0) return "loop devices are unavailable: no /dev/loop-control";
    if (!kernelKnows(type)) return "the running kernel has no " + type + " support";
    return {};
}

std::unique_ptr<LoopVolume> LoopVolume::create(Kind kind) {
    if (std::string reason = unavailableReason(kind); !reason.empty()) {
        throw std::runtime_error("cannot make a test volume: " + reason);
    }
    prepareProcess();
    static std::atomic<int> counter{0};
    fs::create_directories(volumesRoot);
    std::string folder = volumesRoot + "/" + identityOf(::getpid()) + "-" + std::to_string(counter++);
    if (!fs::create_directory(folder)) throw std::runtime_error(folder + " exists already");
    // From here on any failure unwinds through the destructor, which removes what was made so far.
    std::unique_ptr<LoopVolume> volume(new LoopVolume(folder));

    // Sparse: only what the file system writes takes space on disk.
    std::string image = folder + "/image";
    std::ofstream(image).close();
    fs::resize_file(image, uintmax_t{512} << 20);
    Traits traits = traitsOf(kind);
    std::vector<std::string> mkfs = traits.options;
    mkfs.insert(mkfs.begin(), findProgram(traits.mkfs));
    mkfs.push_back(image);
    runCommandChecked(mkfs);
    fs::create_directory(volume->mountPoint_);
    // Guarded before mounting, so a crash during the mount is covered too.
    volume->slot_ = claimSlot(volume->mountPoint_);
    std::string type(kindName(kind));
    runCommandChecked({findProgram("mount"), "-t", type, "-o", "loop", image, volume->mountPoint_});

    std::vector<std::string> devices = loopDevicesBackedBy(folder);
    if (mountsUnder(folder) != std::vector<std::string>{volume->mountPoint_} || devices.size() != 1) {
        throw std::runtime_error("mount reported success but " + volume->mountPoint_ + " is no loop-mounted " + type);
    }
    volume->device_ = devices[0];
    return volume;
}

LoopVolume::~LoopVolume() {
    warnUnless(tearDown(folder_), folder_);
    releaseSlot(slot_);  // only now, so a crash during the teardown is still covered
}

}  // namespace dedup::test
