// Runs work(i) for every i below `count` on `workers` threads that take the next index as they
// become free; with one worker, in order on the caller's thread. Returns when all are done.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace dedup {

inline size_t workersFor(int requested, bool rotational) {
    if (requested > 0) return static_cast<size_t>(requested);
    // A spinning disk reads one file at a time fastest; solid state wants one reader per core.
    return rotational ? 1 : std::max(1u, std::thread::hardware_concurrency());
}

// Readers of short stretches (a prefix, a small file) wait on the disk longer than they digest:
// twice as many as there are cores keep solid state busy on a cold cache and cost little on a warm
// one. A spinning disk still gets one.
inline size_t shortReadersFor(int requested, bool rotational) {
    if (requested > 0 || rotational) return workersFor(requested, rotational);
    return 2 * workersFor(0, false);
}

template <typename Work>
void parallelFor(size_t count, size_t workers, Work&& work) {
    workers = std::min(workers, count);
    if (workers <= 1) {
        for (size_t i = 0; i < count; ++i) work(i);
        return;
    }
    std::atomic<size_t> next{0};
    std::vector<std::jthread> pool;
    pool.reserve(workers);
    for (size_t t = 0; t < workers; ++t) {
        pool.emplace_back([&] {
            for (size_t i = next++; i < count; i = next++) work(i);
        });
    }
}

}  // namespace dedup
