// Lets through at most one progress report per interval, from any number of threads, so that a
// terminal or a window redraws at a pace a person can read and the work is not slowed by drawing.
#pragma once

#include <chrono>
#include <mutex>

namespace dedup {

class ProgressThrottle {
public:
    explicit ProgressThrottle(std::chrono::milliseconds interval) : interval_(interval) {}

    // True when the last accepted report is at least one interval old. Thread-safe.
    bool accept() {
        auto now = std::chrono::steady_clock::now();
        std::lock_guard lock(mutex_);
        if (started_ && now - last_ < interval_) return false;
        started_ = true;
        last_ = now;
        return true;
    }

private:
    std::mutex mutex_;
    std::chrono::milliseconds interval_;
    std::chrono::steady_clock::time_point last_{};
    bool started_ = false;
};

}  // namespace dedup
