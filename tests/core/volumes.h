// One loop-mounted volume of each kind per test process, made on first use and unmounted when the
// process ends, so suites share the cost of mkfs and mount. Each test works in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "support/loop_volume.h"

namespace dedup::test {

inline LoopVolume* sharedVolume(LoopVolume::Kind kind) {
    static std::mutex mutex;
    static std::map<LoopVolume::Kind, std::unique_ptr<LoopVolume>> volumes;
    std::lock_guard lock(mutex);
    auto& volume = volumes[kind];
    if (!volume) volume = LoopVolume::create(kind);
    return volume.get();
}

// A new empty folder on the volume.
inline std::string freshFolder(LoopVolume* volume, const std::string& name) {
    static std::atomic<int> counter{0};
    std::string path = volume->path(name + "-" + std::to_string(counter++));
    std::filesystem::create_directories(path);
    return path;
}

}  // namespace dedup::test

// Skips the test, saying why, when this machine cannot loop-mount the kind of volume asked for.
#define DEDUP_REQUIRE_VOLUME(kind)                                                        \
    do {                                                                                  \
        auto reason = ::dedup::test::LoopVolume::unavailableReason(kind);                 \
        if (!reason.empty()) GTEST_SKIP() << reason;                                      \
    } while (0)
