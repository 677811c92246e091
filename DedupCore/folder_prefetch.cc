#include "folder_prefetch.h"

#include <algorithm>

namespace dedup {

FolderPrefetch::FolderPrefetch(size_t readers, size_t ahead) : ahead_(std::max<size_t>(ahead, 1)) {
    readers_.reserve(readers);
    for (size_t i = 0; i < readers; ++i) readers_.emplace_back([this](std::stop_token stop) { readAhead(stop); });
}

FolderPrefetch::~FolderPrefetch() {
    for (auto& reader : readers_) reader.request_stop();
    work_.notify_all();
    readers_.clear();
}

void FolderPrefetch::request(const std::string& folder, std::optional<FolderIdentity> expected) {
    {
        std::lock_guard lock(mutex_);
        auto [it, isNew] = listings_.try_emplace(folder);
        if (!isNew) return;
        it->second.expected = expected;
        queue_.push_back(folder);
    }
    work_.notify_one();
}

std::vector<DirectoryEntry> FolderPrefetch::take(const std::string& folder, std::optional<FolderIdentity> expected) {
    std::unique_lock lock(mutex_);
    auto it = listings_.find(folder);
    if (it == listings_.end() || !it->second.started) {
        // Not started by a helper: read here rather than wait for one.
        if (it != listings_.end()) {
            listings_.erase(it);
            if (auto queued = std::find(queue_.rbegin(), queue_.rend(), folder); queued != queue_.rend()) {
                queue_.erase(std::next(queued).base());
            }
        }
        lock.unlock();
        return DirectoryReader::read(folder, expected);
    }
    Listing& ready = it->second;  // a reference, unlike the iterator, outlives a rehash
    waitedFor_ = &ready;
    done_.wait(lock, [&] { return ready.done; });
    waitedFor_ = nullptr;
    Listing listing = std::move(ready);
    listings_.erase(folder);
    --started_;
    lock.unlock();
    // One helper may now read one more ahead.
    work_.notify_one();
    if (listing.error) std::rethrow_exception(listing.error);
    return std::move(listing.entries);
}

void FolderPrefetch::readAhead(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    for (;;) {
        work_.wait(lock, stop, [&] { return !queue_.empty() && started_ < ahead_; });
        if (stop.stop_requested()) return;
        std::string folder = std::move(queue_.back());
        queue_.pop_back();
        // Listings are never moved by the map, and this one is erased only once it is done.
        Listing& listing = listings_[folder];
        listing.started = true;
        ++started_;
        const auto expected = listing.expected;
        lock.unlock();
        std::vector<DirectoryEntry> entries;
        std::exception_ptr error;
        try {
            entries = DirectoryReader::read(folder, expected);
        } catch (...) {
            error = std::current_exception();
        }
        lock.lock();
        listing.entries = std::move(entries);
        listing.error = error;
        listing.done = true;
        // Only the walk waits for a listing; a reader woken here would find nothing new to do.
        if (waitedFor_ == &listing) done_.notify_one();
    }
}

}  // namespace dedup
