#include "../events.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "file_records.h"

namespace dedup::platform {

namespace {

// What can change which files a folder holds or what they contain once written. Modifications
// without a close are left out on purpose: a file still being written is not worth a look until it
// is closed, and every write would otherwise wake the watcher.
constexpr uint32_t watchedEvents = IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE |
                                   IN_DELETE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;

}  // namespace

FolderWatch::FolderWatch() : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!fd_) throw SystemError("inotify_init1", "", errno);
}

FolderWatch::Added FolderWatch::add(const std::string& folder, int* error) {
    int wd = ::inotify_add_watch(fd_.get(), folder.c_str(), watchedEvents);
    if (wd < 0) {
        if (error) *error = errno;
        if (errno == ENOSPC) return Added::limitReached;
        if (errno == ENOENT || errno == ENOTDIR) return Added::vanished;
        return Added::failed;
    }
    // The kernel answers with the descriptor it already has when the folder was moved here from a
    // path watched before: the watch now belongs to the new path.
    auto known = paths_.find(wd);
    if (known != paths_.end() && known->second != folder) watches_.erase(known->second);
    paths_[wd] = folder;
    watches_[folder] = wd;
    return Added::watched;
}

void FolderWatch::remove(const std::string& folder) {
    auto found = watches_.find(folder);
    if (found == watches_.end()) return;
    ::inotify_rm_watch(fd_.get(), found->second);
    paths_.erase(found->second);
    watches_.erase(found);
}

std::vector<FolderWatch::Event> FolderWatch::read() {
    std::vector<Event> events;
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        ssize_t length = ::read(fd_.get(), buffer, sizeof buffer);
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) break;  // EAGAIN: nothing more queued
        for (ssize_t offset = 0; offset < length;) {
            inotify_event header;
            std::memcpy(&header, buffer + offset, sizeof header);
            const char* name = buffer + offset + sizeof header;
            offset += static_cast<ssize_t>(sizeof header + header.len);
            if (header.mask & IN_Q_OVERFLOW) {
                events.push_back({"", false, true});
                continue;
            }
            auto folder = paths_.find(header.wd);
            if (folder == paths_.end()) continue;
            if (header.mask & IN_IGNORED) {
                watches_.erase(folder->second);
                paths_.erase(folder);
                continue;
            }
            Event event;
            event.path = folder->second;
            // The name is padded with NULs to the record's length.
            if (header.len > 0 && name[0] != '\0') {
                if (event.path != "/") event.path += '/';
                event.path += name;
            }
            event.isFolder = (header.mask & IN_ISDIR) != 0;
            events.push_back(std::move(event));
        }
    }
    return events;
}

Wakeup::Wakeup() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (!fd_) throw SystemError("eventfd", "", errno);
}

void Wakeup::notify() {
    uint64_t one = 1;
    // Only fails when the counter is saturated, which still leaves the descriptor readable.
    while (::write(fd_.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void Wakeup::drain() {
    uint64_t count;
    while (::read(fd_.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
}

std::vector<bool> waitReadable(const std::vector<int>& descriptors, std::optional<std::chrono::milliseconds> timeout) {
    std::vector<pollfd> polled;
    polled.reserve(descriptors.size());
    for (int fd : descriptors) polled.push_back({fd, POLLIN, 0});
    int wait = -1;
    if (timeout) wait = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(timeout->count(), INT32_MAX)));
    std::vector<bool> ready(descriptors.size(), false);
    if (::poll(polled.data(), polled.size(), wait) <= 0) return ready;
    for (size_t i = 0; i < polled.size(); ++i) ready[i] = (polled[i].revents & (POLLIN | POLLERR | POLLHUP)) != 0;
    return ready;
}

}  // namespace dedup::platform
