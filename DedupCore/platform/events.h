// What a background thread waits on: change notifications for folders (inotify), a wake-up another
// thread can give it, and a wait on both with a deadline.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "file_io.h"

namespace dedup::platform {

// One inotify instance and a watch per folder. Folders are named by the paths they were added
// under; an event names the folder's path joined with the entry's name. Not thread-safe: one
// thread owns it.
class FolderWatch {
public:
    // Throws SystemError("inotify_init1", ...) when the kernel gives no instance.
    FolderWatch();

    enum class Added { watched, limitReached, vanished, failed };
    // Watches the folder itself, not below it; a final symbolic link is not followed. The kernel's
    // limit on watches per user reads as `limitReached`; a folder no longer there (or no longer a
    // folder) as `vanished`; any other refusal as `failed`, with errno in `*error` when asked.
    Added add(const std::string& folder, int* error = nullptr);
    // Stops watching the folder, if it is still watched under this path.
    void remove(const std::string& folder);
    size_t count() const { return paths_.size(); }

    struct Event {
        std::string path;
        bool isFolder = false;  // the entry named is a folder
        bool overflow = false;  // the kernel's queue overflowed: events were lost, `path` is empty
    };
    // Everything queued now; never blocks. A watch the kernel dropped (its folder was deleted or
    // its file system unmounted) is forgotten here.
    std::vector<Event> read();

    int descriptor() const { return fd_.get(); }

private:
    FileDescriptor fd_;
    std::unordered_map<int, std::string> paths_;    // watch descriptor -> folder
    std::unordered_map<std::string, int> watches_;  // folder -> watch descriptor
};

// A descriptor that becomes readable when notify() is called from any thread, until drain().
class Wakeup {
public:
    Wakeup();  // throws SystemError("eventfd", ...)
    void notify();
    void drain();
    int descriptor() const { return fd_.get(); }

private:
    FileDescriptor fd_;
};

// poll(2) on the descriptors until one is readable or the timeout passes (absent: no timeout).
// Answers, per descriptor, whether it is readable. A signal ends the wait early with none ready.
std::vector<bool> waitReadable(const std::vector<int>& descriptors, std::optional<std::chrono::milliseconds> timeout);

}  // namespace dedup::platform
