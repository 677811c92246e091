#include "auto_lock.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <thread>

#include "file_records.h"
#include "platform/lock.h"

namespace dedup {

namespace {

constexpr const char* lockFileName = "auto.lock";

// "<pid>\n<program>\n"; absent unless the process id reads as a number.
std::optional<AutoLock::Holder> parseHolder(const std::string& text) {
    auto end = text.find('\n');
    if (end == std::string::npos || end == 0) return std::nullopt;
    AutoLock::Holder holder;
    for (size_t i = 0; i < end; ++i) {
        if (text[i] < '0' || text[i] > '9' || holder.pid > 1'000'000'000) return std::nullopt;
        holder.pid = holder.pid * 10 + (text[i] - '0');
    }
    auto programEnd = text.find('\n', end + 1);
    holder.program = text.substr(end + 1, programEnd == std::string::npos ? std::string::npos : programEnd - end - 1);
    return holder;
}

}  // namespace

std::variant<AutoLock, AutoLock::Holder> AutoLock::acquire(const std::string& dataDirectory,
                                                           std::string_view program) {
    std::error_code ignored;
    std::filesystem::create_directories(dataDirectory, ignored);  // a failure shows in the open below
    std::string path = (std::filesystem::path(dataDirectory) / lockFileName).string();
    auto file = platform::openLockFile(path);

    std::string line(program);
    std::replace(line.begin(), line.end(), '\n', ' ');
    const std::string text = std::to_string(platform::currentProcess()) + "\n" + line + "\n";

    // The holder writes itself down just after it takes the lock, and a holder that just died may
    // still be named until the kernel has let go: for a moment the file can name nobody alive.
    // Asking again for a little while tells a real holder from such a moment.
    std::optional<Holder> holder;
    for (int attempt = 0; attempt < 50; ++attempt) {
        if (platform::tryLockExclusive(file.fd, path)) {
            if (file.writable) {
                try {
                    platform::replaceContent(file.fd, path, text);
                } catch (const SystemError&) {
                    // A full disk is when reclaiming is wanted most: the lock holds all the same,
                    // and whoever is refused reads an empty name.
                    platform::clearContent(file.fd);
                }
            }
            return AutoLock(std::move(file.fd), std::move(path), file.writable);
        }
        holder = parseHolder(platform::readContent(file.fd, 4096));
        if (holder && platform::processExists(holder->pid)) return *holder;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // Someone holds it without a word we can read (another user's program in a shared folder).
    return holder.value_or(Holder{});
}

AutoLock& AutoLock::operator=(AutoLock&& other) noexcept {
    if (this != &other) {
        release();
        fd_ = std::move(other.fd_);
        path_ = std::move(other.path_);
        writable_ = other.writable_;
    }
    return *this;
}

AutoLock::~AutoLock() { release(); }

void AutoLock::release() {
    if (!fd_) return;
    // Emptied while still held, so nobody is ever named after the lock is gone.
    if (writable_) platform::clearContent(fd_);
    fd_.reset();
}

std::string describe(const AutoLock::Holder& holder) {
    if (holder.pid <= 0) return holder.program.empty() ? "another program" : holder.program;
    std::string process = "process " + std::to_string(holder.pid);
    if (holder.program.empty()) return process;
    return holder.program + " (" + process + ")";
}

}  // namespace dedup
