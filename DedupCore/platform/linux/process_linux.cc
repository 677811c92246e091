#include "../process.h"

#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

namespace dedup::platform {

namespace {
std::atomic<bool> interruptFlag{false};

void onSignal(int signal) {
    if (signal == SIGINT && interruptFlag.load()) {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
        return;
    }
    interruptFlag.store(true);
}
}  // namespace

void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return interruptFlag.load(); }

namespace {
sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}
}  // namespace

void blockTerminationSignals() {
    sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void waitForTermination() {
    sigset_t set = terminationSignals();
    int signal = 0;
    sigwait(&set, &signal);
    interruptFlag.store(true);
}

void nameThread(const std::string& name) { pthread_setname_np(pthread_self(), name.substr(0, 15).c_str()); }

void useIdlePriority() {
    sched_param none{};
    sched_setscheduler(0, SCHED_IDLE, &none);
    // The kernel's I/O priority interface has no C library wrapper; 0 names the calling thread.
    constexpr int whoProcess = 1, idleClass = 3, classShift = 13;
    syscall(SYS_ioprio_set, whoProcess, 0, idleClass << classShift);
}

// mimalloc's own, where the program is linked with it (both programs are; the tests are not):
// what it keeps free is its own, which malloc_trim cannot reach.
extern "C" void mi_collect(bool force) __attribute__((weak));

void releaseFreeMemory() {
    if (mi_collect) mi_collect(true);
    ::malloc_trim(0);
}

bool isTerminal(int fd) { return ::isatty(fd) == 1; }

int terminalWidth(int fd) {
    struct winsize size {};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0) return 0;
    return size.ws_col;
}

}  // namespace dedup::platform
