#include "../process.h"

#include <sys/ioctl.h>
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

bool isTerminal(int fd) { return ::isatty(fd) == 1; }

int terminalWidth(int fd) {
    struct winsize size {};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0) return 0;
    return size.ws_col;
}

}  // namespace dedup::platform
