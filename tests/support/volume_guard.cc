#include "volume_guard.h"

#include <dirent.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "mount_table.h"
#include "test_files.h"

namespace dedup::test::volume_guard {
namespace {

constexpr size_t kSlotCount = 64;
constexpr size_t kPathCapacity = 512;

// `live` turns true on claim, after the paths are written, and false on
// release; the signal handler reads only slots it saw live, without the lock.
struct Slot {
  std::atomic<bool> live{false};
  pid_t owner = 0;  // a forked child must not detach its parent's volumes
  char folder[kPathCapacity] = {};
  char mountPoint[kPathCapacity] = {};
};

std::array<Slot, kSlotCount> slots;
std::mutex slotsMutex;

constexpr int kFatalSignals[] = {SIGINT,  SIGTERM, SIGHUP, SIGQUIT, SIGABRT,
                                 SIGSEGV, SIGBUS,  SIGFPE, SIGILL};
struct sigaction previousActions[NSIG];

void onFatalSignal(int sig) {
  int savedErrno = errno;
  pid_t self = ::getpid();
  for (Slot& slot : slots) {
    if (slot.live.load(std::memory_order_acquire) && slot.owner == self) {
      // Detaching is all a handler can do safely; the loop device follows on
      // its own once the file system is released, and the next test
      // process's sweep removes the image.
      ::umount2(slot.mountPoint, MNT_DETACH);
    }
  }
  ::sigaction(sig, &previousActions[sig], nullptr);
  errno = savedErrno;
  // Still blocked while the handler runs: it is delivered, with the previous
  // disposition, as soon as we return.
  ::raise(sig);
}

void installSignalHandlers() {
  // A crash from a stack overflow can only be handled on another stack.
  static char alternateStack[1 << 16];
  stack_t current{};
  if (::sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) != 0) {
    stack_t stack{};
    stack.ss_sp = alternateStack;
    stack.ss_size = sizeof alternateStack;
    ::sigaltstack(&stack, nullptr);
  }
  for (int sig : kFatalSignals) {
    struct sigaction previous {};
    if (::sigaction(sig, nullptr, &previous) != 0) continue;
    // An ignored signal must stay ignored: handling it would unmount volumes
    // under a process that goes on running.
    if (previous.sa_handler == SIG_IGN && (previous.sa_flags & SA_SIGINFO) == 0) continue;
    previousActions[sig] = previous;
    struct sigaction action {};
    action.sa_handler = onFatalSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_ONSTACK;
    ::sigaction(sig, &action, nullptr);
  }
}

void tearDownLeftoversAtExit() {
  pid_t self = ::getpid();
  for (size_t i = 0; i < kSlotCount; ++i) {
    std::string folder;
    {
      std::lock_guard lock(slotsMutex);
      Slot& slot = slots[i];
      if (!slot.live.load(std::memory_order_acquire) || slot.owner != self) continue;
      folder = slot.folder;
      slot.live.store(false, std::memory_order_release);
    }
    std::string problems = tearDown(folder);
    if (!problems.empty()) std::fprintf(stderr, "warning: at exit: %s\n", problems.c_str());
  }
}

struct ProcessIdentity {
  long pid = 0;
  unsigned long long startTime = 0;
  bool running = false;
};

// Field 22 of /proc/PID/stat counts clock ticks since boot, so together with
// the pid it names one process for the whole uptime of the machine.
ProcessIdentity readProcess(long pid) {
  ProcessIdentity identity;
  identity.pid = pid;
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(in, line)) return identity;
  size_t close = line.rfind(')');  // the command name may hold spaces and ')'
  if (close == std::string::npos) return identity;
  std::istringstream fields(line.substr(close + 1));
  std::string state, skipped;
  fields >> state;
  for (int field = 4; field < 22; ++field) fields >> skipped;
  fields >> identity.startTime;
  // A zombie has closed its files already; its volumes are as stale as a dead one's.
  identity.running = fields && state != "Z" && state != "X";
  return identity;
}

bool ownerIsAlive(const std::string& folder, long pidFromName) {
  std::ifstream in(folder + "/owner");
  ProcessIdentity recorded;
  if (!(in >> recorded.pid >> recorded.startTime)) {
    // No record yet: the owner may be between making the folder and writing
    // it, so trust the pid alone.
    return pidFromName > 0 && (::kill(static_cast<pid_t>(pidFromName), 0) == 0 || errno == EPERM);
  }
  ProcessIdentity now = readProcess(recorded.pid);
  return now.running && now.startTime == recorded.startTime;
}

void append(std::string& problems, const std::string& problem) {
  if (!problems.empty()) problems += "; ";
  problems += problem;
}

}  // namespace

const std::string& volumesRoot() {
  static const std::string root = "/var/tmp/dedup-test-volumes";
  return root;
}

void prepareProcess() {
  static std::once_flag once;
  std::call_once(once, [] {
    sweepStaleVolumes();
    installSignalHandlers();
    std::atexit(tearDownLeftoversAtExit);
  });
}

void writeOwnerRecord(const std::string& folder) {
  ProcessIdentity self = readProcess(::getpid());
  writeFile(folder + "/owner",
            std::to_string(self.pid) + " " + std::to_string(self.startTime) + "\n");
}

int claimSlot(const std::string& folder, const std::string& mountPoint) {
  if (folder.size() >= kPathCapacity || mountPoint.size() >= kPathCapacity) {
    throw std::runtime_error("volume path too long for the cleanup table: " + mountPoint);
  }
  std::lock_guard lock(slotsMutex);
  for (size_t i = 0; i < kSlotCount; ++i) {
    Slot& slot = slots[i];
    if (slot.live.load(std::memory_order_relaxed)) continue;
    slot.owner = ::getpid();
    std::memcpy(slot.folder, folder.c_str(), folder.size() + 1);
    std::memcpy(slot.mountPoint, mountPoint.c_str(), mountPoint.size() + 1);
    slot.live.store(true, std::memory_order_release);
    return static_cast<int>(i);
  }
  throw std::runtime_error("more than " + std::to_string(kSlotCount) +
                           " test volumes alive at once in one process");
}

void releaseSlot(int slot) {
  if (slot < 0 || static_cast<size_t>(slot) >= kSlotCount) return;
  std::lock_guard lock(slotsMutex);
  slots[static_cast<size_t>(slot)].live.store(false, std::memory_order_release);
}

std::string tearDown(const std::string& folder) noexcept {
  std::string problems;
  try {
    std::string umount = findProgram("umount");
    bool leftBusy = false;
    std::vector<std::string> points = mountsUnder(folder);
    // Innermost first: a parent cannot be unmounted while a child is mounted on it.
    for (auto it = points.rbegin(); it != points.rend(); ++it) {
      const std::string& point = *it;
      std::string lastError;
      // A plain unmount can fail for a moment while the kernel still holds a
      // reference (writeback, a child process exiting), so it is retried.
      for (int attempt = 0; attempt < 5 && findMount(point); ++attempt) {
        if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(100 * attempt));
        if (umount.empty()) {
          if (::umount2(point.c_str(), 0) != 0) lastError = std::strerror(errno);
        } else {
          CommandResult result = runCommand({umount, point});
          if (result.exitCode != 0) lastError = result.stderrText;
        }
      }
      if (!findMount(point)) continue;
      if (!umount.empty()) runCommand({umount, "-l", point});
      if (findMount(point)) ::umount2(point.c_str(), MNT_DETACH);
      leftBusy = true;
      while (!lastError.empty() && std::isspace(static_cast<unsigned char>(lastError.back()))) {
        lastError.pop_back();
      }
      append(problems, "unmounted " + point + " lazily, a file on it is still open (" + lastError +
                           "); its loop device is freed when that file closes");
    }

    for (const LoopDevice& loop : loopDevicesBackedBy(folder)) detachLoopDevice(loop.device);
    // The kernel may finish the detach after the call returns; wait, boundedly,
    // so the caller can count on a free loop device. Pointless while a file
    // on a lazily unmounted volume keeps the device busy.
    for (int i = 0; i < 50 && !leftBusy && !loopDevicesBackedBy(folder).empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!leftBusy) {
      for (const LoopDevice& loop : loopDevicesBackedBy(folder)) {
        append(problems, loop.device + " still reads " + loop.backingFile);
      }
    }

    // Never delete through a mount point that is still attached.
    if (!mountsUnder(folder).empty()) {
      append(problems, "left " + folder + " in place: something is still mounted below it");
    } else if (!removeTree(folder)) {
      append(problems, "could not remove " + folder);
    }
  } catch (const std::exception& e) {
    append(problems, e.what());
  }
  return problems;
}

void sweepStaleVolumes() {
  DIR* dir = ::opendir(volumesRoot().c_str());
  if (dir == nullptr) return;
  std::vector<std::pair<std::string, long>> candidates;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    // Folder names are "<pid>-<counter>".
    char* end = nullptr;
    long pid = std::strtol(name.c_str(), &end, 10);
    if (end == name.c_str() || *end != '-') continue;
    candidates.emplace_back(volumesRoot() + "/" + name, pid);
  }
  ::closedir(dir);
  for (const auto& [folder, pid] : candidates) {
    if (ownerIsAlive(folder, pid)) continue;
    std::string problems = tearDown(folder);
    if (!problems.empty()) {
      std::fprintf(stderr, "warning: stale test volume %s: %s\n", folder.c_str(), problems.c_str());
    }
  }
}

}  // namespace dedup::test::volume_guard
