// Only one automatic reclaimer per user at a time, whichever program runs it (the desktop
// application or "dedup auto"): two would race each other over the same copies and, worse, the
// journal recovery of one would take the other's replacements under way for interrupted ones.
//
// AutoLock is held while automatic reclaiming runs. It owns an open descriptor of the file
// "auto.lock" in the data directory, locked with flock; the kernel drops the lock when the process
// dies, however it dies, so a crash never leaves the next start locked out. The holder writes its
// process id and program name inside, so the one refused can say who does the work. Movable, not
// copyable; releases on destruction. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <variant>

#include "platform/file_io.h"

namespace dedup {

class AutoLock {
public:
    struct Holder {  // as the holder wrote itself down
        long pid = 0;
        std::string program;
        bool operator==(const Holder&) const = default;
    };

    // Takes the per-user lock in `dataDirectory` (creating the folder when missing), or answers who
    // holds it. Throws SystemError when the file cannot be opened at all. Answers at once, except
    // when the file names no living process while the lock is held (a holder just starting, or one
    // in another process namespace): then it asks again for up to a second.
    static std::variant<AutoLock, Holder> acquire(const std::string& dataDirectory, std::string_view program);

    AutoLock(AutoLock&&) noexcept = default;
    AutoLock& operator=(AutoLock&& other) noexcept;
    AutoLock(const AutoLock&) = delete;
    AutoLock& operator=(const AutoLock&) = delete;
    ~AutoLock();

    const std::string& path() const { return path_; }

private:
    AutoLock(platform::FileDescriptor fd, std::string path, bool writable)
        : fd_(std::move(fd)), path_(std::move(path)), writable_(writable) {}
    void release();

    platform::FileDescriptor fd_;
    std::string path_;
    bool writable_ = false;
};

// "dedup auto (process 1234)"; the parts the holder could not write are left out.
std::string describe(const AutoLock::Holder& holder);

}  // namespace dedup
