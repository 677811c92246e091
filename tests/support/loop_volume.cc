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
    const char* type;
    const char* package;
    std::vector<std::string> mkfs;
};

Traits traitsOf(LoopVolume::Kind kind) {
    switch (kind) {
        case LoopVolume::Kind::btrfs: return {"btrfs", "btrfs-progs", {"mkfs.btrfs", "-q", "-f"}};
        // Spelled out though recent mkfs.xfs defaults to it: an XFS volume here exists to share blocks.
        case LoopVolume::Kind::xfs: return {"xfs", "xfsprogs", {"mkfs.xfs", "-q", "-f", "-m", "reflink=1"}};
        case LoopVolume::Kind::ext4: return {"ext4", "e2fsprogs", {"mkfs.ext4", "-q", "-F"}};
        case LoopVolume::Kind::xfsWithoutReflink:
            return {"xfs", "xfsprogs", {"mkfs.xfs", "-q", "-f", "-m", "reflink=0"}};
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

// The mount points the signal handler detaches, in a fixed table as it may neither allocate nor
// lock. `live` turns true only once the path is written.
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
        if (slot.live && slot.owner == ::getpid()) ::umount2(slot.mountPoint, MNT_DETACH);
    }
    ::sigaction(sig, &previousActions[sig], nullptr);
    errno = savedErrno;
    ::raise(sig);  // delivered with the previous disposition as soon as the handler returns
}

void prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        sweepStaleVolumes();
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
            // An ignored signal must stay ignored, or volumes vanish under a process that goes on.
            if (::sigaction(sig, nullptr, &previousActions[sig]) != 0 || previousActions[sig].sa_handler == SIG_IGN) {
                continue;
            }
            struct sigaction action {};
            action.sa_handler = onFatalSignal;
            ::sigaction(sig, &action, nullptr);
        }
    });
}

// Unmounts everything below `folder` (retrying while the kernel briefly holds on, lazily as a last
// resort), detaches its loop devices, waits boundedly for them to let go and removes the folder.
// Tolerates pieces being gone already. Warns about what it could not do.
void tearDown(const std::string& folder) noexcept {
    std::string problems;
    try {
        bool busy = false;
        std::vector<std::string> points = mountsUnder(folder);
        for (auto point = points.rbegin(); point != points.rend(); ++point) {  // innermost first
            for (int attempt = 1; ::umount2(point->c_str(), 0) != 0 && errno == EBUSY; ++attempt) {
                if (attempt == 5) {
                    ::umount2(point->c_str(), MNT_DETACH);
                    busy = true;
                    problems += "unmounted lazily, a file on it is still open; ";
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
        // The kernel may finish detaching after the call returns; no use waiting while an open file
        // keeps a lazily unmounted volume busy.
        for (int i = 0; i < 50 && !busy && !loopDevicesBackedBy(folder).empty(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (!busy && !loopDevicesBackedBy(folder).empty()) problems += "its loop device is still attached; ";
        // Never delete through a mount point that is still attached.
        if (mountsUnder(folder).empty()) fs::remove_all(folder);
    } catch (const std::exception& e) {
        problems += e.what();
    }
    if (!problems.empty()) std::fprintf(stderr, "warning: test volume %s: %s\n", folder.c_str(), problems.c_str());
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
        if (identityOf(std::atol(name.c_str())) != name.substr(0, name.rfind('-'))) tearDown(entry.path());
    }
}

std::string_view LoopVolume::kindName(Kind kind) { return traitsOf(kind).type; }

std::string LoopVolume::unavailableReason(Kind kind) {
    Traits traits = traitsOf(kind);
    // CAP_SYS_ADMIN is what mount(2) checks; root in an unprivileged container has uid 0 without it.
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line) && !line.starts_with("CapEff:")) {
    }
    bool canMount = ::geteuid() == 0 && line.size() > 7 && (std::strtoull(line.c_str() + 7, nullptr, 16) >> 21) & 1;
    if (!canMount) return std::string("needs root with CAP_SYS_ADMIN to loop-mount a ") + traits.type + " image";
    if (findProgram(traits.mkfs[0]).empty()) return traits.mkfs[0] + " is missing (install " + traits.package + ")";
    if (findProgram("mount").empty()) return "mount is missing (install the package mount)";
    if (::access("/dev/loop-control", R_OK | W_OK) != 0) return "loop devices are unavailable: no /dev/loop-control";
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
    traits.mkfs[0] = findProgram(traits.mkfs[0]);
    traits.mkfs.push_back(image);
    runCommandChecked(traits.mkfs);
    fs::create_directory(volume->mountPoint_);

    // Guarded before mounting, so a crash during the mount is covered too.
    {
        std::lock_guard lock(slotsMutex);
        auto free = std::find_if(slots.begin(), slots.end(), [](const Slot& slot) { return !slot.live; });
        if (free == slots.end() || volume->mountPoint_.size() >= sizeof free->mountPoint) {
            throw std::runtime_error("no room to guard the test volume " + volume->mountPoint_);
        }
        free->owner = ::getpid();
        std::strcpy(free->mountPoint, volume->mountPoint_.c_str());
        free->live = true;
        volume->slot_ = static_cast<int>(free - slots.begin());
    }
    runCommandChecked({findProgram("mount"), "-t", traits.type, "-o", "loop", image, volume->mountPoint_});
    std::vector<std::string> devices = loopDevicesBackedBy(folder);
    if (mountsUnder(folder) != std::vector<std::string>{volume->mountPoint_} || devices.size() != 1) {
        throw std::runtime_error("mount reported success but " + volume->mountPoint_ + " is not loop-mounted");
    }
    volume->device_ = devices[0];
    return volume;
}

LoopVolume::~LoopVolume() {
    tearDown(folder_);
    // Released only now, so a crash during the teardown is still covered.
    std::lock_guard lock(slotsMutex);
    if (slot_ >= 0) slots[static_cast<size_t>(slot_)].live = false;
}

}  // namespace dedup::test
