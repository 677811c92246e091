// A value guarded by its own lock, for counters and lists shared by worker threads. Nothing but the
// read or the change of the value happens under the lock.
#pragma once

#include <mutex>
#include <utility>

namespace dedup {

template <typename T>
class Locked {
public:
    explicit Locked(T value = T{}) : value_(std::move(value)) {}

    T get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }

    // Runs `change` on the value under the lock and returns what it returns.
    template <typename F>
    decltype(auto) with(F&& change) {
        std::lock_guard lock(mutex_);
        return std::forward<F>(change)(value_);
    }

private:
    mutable std::mutex mutex_;
    T value_;
};

}  // namespace dedup
