// Reads the folders a walk is about to enter on helper threads, so that the disk works on several
// folders at once and each listing is ready, or nearly, when the walk gets there. The walk itself
// still takes the folders one by one in its own order, so what it finds does not change.
//
// Owns its reading threads, which end when the object is destroyed (a listing being read is
// finished first). request() and take() belong to the walk's one thread. Only a few listings are
// read ahead, so memory stays small however large the tree.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "directory_reader.h"

namespace dedup {

class FolderPrefetch {
public:
    FolderPrefetch(size_t readers, size_t ahead);
    ~FolderPrefetch();
    FolderPrefetch(const FolderPrefetch&) = delete;
    FolderPrefetch& operator=(const FolderPrefetch&) = delete;

    // The walk will enter `folder`. The folder requested last is read first, as a walk that keeps
    // the folders still to enter on a stack takes them.
    void request(const std::string& folder, std::optional<FolderIdentity> expected = std::nullopt);

    // The listing of `folder`: the one read ahead, or read here and now when no helper has started
    // on it. Throws what DirectoryReader::read throws, on this thread.
    std::vector<DirectoryEntry> take(const std::string& folder, std::optional<FolderIdentity> expected = std::nullopt);

private:
    struct Listing {
        std::optional<FolderIdentity> expected;
        bool started = false;
        bool done = false;
        std::vector<DirectoryEntry> entries;
        std::exception_ptr error;
    };

    void readAhead(std::stop_token stop);

    const size_t ahead_;
    std::mutex mutex_;
    std::condition_variable_any work_;  // readers wait here for a folder to read and room to read it
    std::condition_variable done_;      // the walk waits here for the listing it takes
    const Listing* waitedFor_ = nullptr;  // the listing the walk waits for, if any
    std::vector<std::string> queue_;                     // requested, not started; the last goes first
    std::unordered_map<std::string, Listing> listings_;  // requested and not yet taken
    size_t started_ = 0;                                 // listings started and not yet taken
    std::vector<std::jthread> readers_;                  // last, so they stop before the rest goes
};

}  // namespace dedup
