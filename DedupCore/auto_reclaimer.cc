#include "auto_reclaimer.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "clone_engine.h"
#include "hash_cache.h"
#include "machine_state.h"
#include "path_names.h"
#include "platform/events.h"
#include "platform/process.h"
#include "platform/system.h"
#include "serial_queue.h"
#include "walk.h"

namespace dedup {

namespace {

// With the kernel's limit on watches reached, changes below the unwatched folders are found by
// looking at everything this often.
constexpr auto fullPassWithoutWatches = std::chrono::minutes(30);

// The rest of `path` after `base` ("" for `base` itself), or absent when `path` is not at or below it.
std::optional<std::string> below(const std::string& path, const std::string& base) {
    if (path == base) return std::string();
    std::string prefix = base.ends_with('/') ? base : base + "/";
    if (!path.starts_with(prefix)) return std::nullopt;
    return path.substr(prefix.size() - 1);  // keeps the leading "/"
}

std::string join(const std::string& base, const std::string& rest) {
    if (rest.empty()) return base;
    return base.ends_with('/') ? base + rest.substr(1) : base + rest;
}

SizeKey keyOf(const ScannedFile& file) { return {file.status.size, file.status.device}; }

}  // namespace

AutoReclaimer::AutoReclaimer(std::vector<std::string> roots, DuplicateFinder finder, Reclaimer reclaimer,
                             std::function<Selection()> selection, double quietPeriod, std::function<bool()> mayRun,
                             std::function<void(const ReclaimSummary&)> onReclaim)
    : roots_(std::move(roots)),
      finder_(std::move(finder)),
      reclaimer_(std::move(reclaimer)),
      selection_(std::move(selection)),
      quietPeriod_(quietPeriod),
      mayRun_(std::move(mayRun)),
      onReclaim_(std::move(onReclaim)) {}

AutoReclaimer::~AutoReclaimer() { stop(); }

bool AutoReclaimer::machineIsFree() { return !heldBack(); }

std::chrono::duration<double> AutoReclaimer::tickInterval(double quietPeriod) {
    return std::chrono::duration<double>(std::min(quietPeriod / 2, 30.0));
}

void AutoReclaimer::start() {
    if (started_) return;
    started_ = true;
    queue_ = std::make_unique<SerialQueue>("dedup.auto", [] {
        platform::nameThread("dedup.auto");
        platform::useIdlePriority();
    });
    queue_->sync([this] {
        if (cache) finder_.cache = cache.get();
        try {
            watch_ = std::make_unique<platform::FolderWatch>();
        } catch (const SystemError& error) {
            if (onWarning) onWarning(std::string("Changes cannot be watched (") + error.what() + "); only the first pass runs.");
        }
        buildIndex();
        // The index just read is as good as a new one: the first pass must not read it all again
        // because some folder could not be watched.
        lastFullPass_ = now();
        countIndex();
        if (watch_) queue_->setReader(watch_->descriptor(), [this] { readEvents(); });
        auto interval = std::chrono::duration_cast<Clock::duration>(tickInterval(quietPeriod_));
        queue_->setTimer(std::max(interval, Clock::duration(std::chrono::milliseconds(10))), [this] { tick(); });
    });
}

void AutoReclaimer::stop() {
    if (!queue_) return;
    stopping_ = true;
    queue_->sync([this] {
        queue_->cancelTimer();
        queue_->clearReader();
        watch_.reset();
        if (finder_.cache) finder_.cache->flush();
        countIndex();
    });
    queue_.reset();
}

void AutoReclaimer::tickNow() {
    if (!queue_) return;
    queue_->sync([this] {
        if (watch_) readEvents();
        tick();
    });
}

std::vector<std::string> AutoReclaimer::pendingFolders() {
    std::vector<std::string> folders;
    if (!queue_) return folders;
    queue_->sync([&] {
        if (watch_) readEvents();
        for (const auto& [folder, time] : changed_) folders.push_back(folder);
    });
    return folders;
}

void AutoReclaimer::countIndex() {
    indexedCount_ = index_.size();
    watchedCount_ = watch_ ? watch_->count() : 0;
}

const std::vector<std::pair<std::string, std::string>>& AutoReclaimer::canonicalRoots() {
    if (!canonicalRoots_) {
        canonicalRoots_.emplace();
        for (const auto& root : roots_) {
            if (auto canonical = platform::realPath(root)) canonicalRoots_->emplace_back(*canonical, root);
        }
    }
    return *canonicalRoots_;
}

std::string AutoReclaimer::ownPath(const std::string& path) {
    for (const auto& [canonical, given] : canonicalRoots()) {
        if (auto rest = below(path, canonical)) return join(given, *rest);
    }
    return path;
}

// The spelling the kernel is asked about: a root given through a symbolic link is listed and
// watched where the link points, since neither the walk nor the watch follows a final link.
std::string AutoReclaimer::watchedSpelling(const std::string& path) {
    for (const auto& [canonical, given] : canonicalRoots()) {
        if (auto rest = below(path, given)) return join(canonical, *rest);
    }
    return path;
}

std::optional<uint64_t> AutoReclaimer::rootDevice(const std::string& path) const {
    for (const auto& [root, device] : rootDevices_) {
        if (below(path, root)) return device;
    }
    return std::nullopt;
}

void AutoReclaimer::watch(const std::string& folder) { watchPath(watchedSpelling(folder), folder); }

void AutoReclaimer::watchPath(const std::string& kernelPath, const std::string& shown) {
    if (!watch_) return;
    int error = 0;
    switch (watch_->add(kernelPath, &error)) {
        case platform::FolderWatch::Added::watched: unwatched_.erase(shown); break;
        case platform::FolderWatch::Added::vanished: break;  // its parent's event tells what became of it
        case platform::FolderWatch::Added::limitReached:
            if (watchLimitReached_) break;
            watchLimitReached_ = true;
            if (onWarning) {
                onWarning("The system allows no more watched folders (fs.inotify.max_user_watches); changes in the "
                          "folders beyond the limit are found by a full pass every 30 minutes.");
            }
            break;
        case platform::FolderWatch::Added::failed: {
            if (!unwatched_.insert(shown).second || !onWarning) break;
            // A tree of unreadable folders must not bury the log: the first few are named.
            constexpr size_t namedAtMost = 10;
            if (unwatchedWarnings_ < namedAtMost) {
                onWarning(shown + " is not watched (inotify_add_watch: " + std::strerror(error) +
                          "); changes there are found by a full pass every 30 minutes.");
            } else if (unwatchedWarnings_ == namedAtMost) {
                onWarning("More folders cannot be watched; changes there are found by a full pass every 30 minutes.");
            }
            ++unwatchedWarnings_;
            break;
        }
    }
}

void AutoReclaimer::unwatch(const std::string& folder) {
    if (watch_) watch_->remove(watchedSpelling(folder));
}

void AutoReclaimer::buildIndex() {
    index_.clear();
    folders_.clear();
    rootDevices_.clear();
    fileRoots_.clear();
    fileRootFolders_.clear();
    for (const auto& root : roots_) {
        if (stopping_) return;
        FileStatus status;
        try {
            status = FileStatus::read(watchedSpelling(root));
        } catch (const SystemError&) {
            continue;
        }
        rootDevices_[root] = status.device;
        if (status.isRegularFile()) {
            // A file has no watch of its own that survives it being saved over by a rename: its
            // folder is watched, and only events naming the file are taken.
            fileRoots_.insert(root);
            const std::string folder = parentOf(watchedSpelling(root));
            fileRootFolders_.insert(folder);
            watchPath(folder, parentOf(root));
            Walk walk(finder_.options);
            walk.visit(root);
            for (auto& file : walk.files) {
                std::string path = std::move(file.path);
                index_[std::move(path)] = std::move(file);
            }
        } else if (status.isDirectory()) {
            indexFolderTree(root, status.device, nullptr);
        }
    }
}

// Reads `folder` and every folder below it not read before. Each folder is watched before it is
// read, so a file that arrives while it is read is either listed or reported.
void AutoReclaimer::indexFolderTree(const std::string& folder, uint64_t device, std::set<SizeKey>* keys,
                                    const std::map<std::string, ScannedFile>* previous) {
    Walk walk(finder_.options);
    std::vector<std::string> stack{folder};
    while (!stack.empty() && !stopping_) {
        std::string next = std::move(stack.back());
        stack.pop_back();
        watch(next);
        folders_.insert(next);
        walk.visitFolder(watchedSpelling(next), device, [&](std::string subfolder, FolderIdentity) {
            subfolder = ownPath(subfolder);
            if (!folders_.contains(subfolder)) stack.push_back(std::move(subfolder));
        });
    }
    for (auto& file : walk.files) {
        file.path = ownPath(file.path);
        if (keys) {
            // Only new and changed files can make new duplicates.
            const ScannedFile* known = nullptr;
            if (auto it = index_.find(file.path); it != index_.end()) known = &it->second;
            if (previous) {
                if (auto it = previous->find(file.path); it != previous->end()) known = &it->second;
            }
            if (!known || !known->status.isSameVersion(file.status)) keys->insert(keyOf(file));
        }
        std::string path = std::move(file.path);
        index_[std::move(path)] = std::move(file);
    }
}

void AutoReclaimer::readEvents() {
    for (const auto& event : watch_->read()) {
        if (event.overflow) {
            // Changes were lost: only a new walk can tell what is there now.
            needsFullPass_ = true;
            needsNewIndex_ = true;
            continue;
        }
        std::string path = ownPath(event.path);
        // The reclaimer's own temporary files must not wake it again.
        if (CloneEngine::isTemporary(path)) continue;
        if (fileRoots_.contains(path)) {
            changed_[path] = now();
            continue;
        }
        // A folder watched only for the files given as roots in it says nothing about the others.
        if (const std::string folder = parentOf(event.path);
            fileRootFolders_.contains(folder) && !folders_.contains(ownPath(folder))) {
            continue;
        }
        bool isFolder = false;
        try {
            isFolder = FileStatus::read(watchedSpelling(path)).isDirectory();
        } catch (const SystemError&) {
        }
        changed_[isFolder ? path : parentOf(path)] = now();
    }
}

void AutoReclaimer::forgetBelow(const std::string& folder) {
    for (auto it = folders_.lower_bound(folder); it != folders_.end() && below(*it, folder);) {
        unwatch(*it);
        unwatched_.erase(*it);
        it = folders_.erase(it);
    }
    for (auto it = index_.lower_bound(folder); it != index_.end() && below(it->first, folder);) {
        it = index_.erase(it);
    }
}

bool AutoReclaimer::admits(const std::string& folder) const {
    if (std::find(roots_.begin(), roots_.end(), folder) != roots_.end()) return true;
    std::string parent = parentOf(folder);
    if (!folders_.contains(parent)) return false;
    Walk walk(finder_.options);
    return !walk.isExcluded(folder) && walk.descends(folder, nameOf(folder), Walk::isVolumeRoot(parent));
}

std::set<SizeKey> AutoReclaimer::refreshFile(const std::string& root) {
    std::set<SizeKey> keys;
    auto previous = index_.extract(root);
    Walk walk(finder_.options);
    walk.visit(root);
    for (auto& file : walk.files) {
        if (previous.empty() || !previous.mapped().status.isSameVersion(file.status)) keys.insert(keyOf(file));
        file.path.clear();
        index_[root] = std::move(file);
    }
    return keys;
}

std::set<SizeKey> AutoReclaimer::refresh(const std::string& folder) {
    if (fileRoots_.contains(folder)) return refreshFile(folder);
    std::set<SizeKey> keys;
    // The folder's own files are read again below; what was indexed is kept aside to tell which of
    // them are new or changed, and files no longer listed drop out.
    std::map<std::string, ScannedFile> previous;
    std::string prefix = folder.ends_with('/') ? folder : folder + "/";
    for (auto it = index_.lower_bound(prefix); it != index_.end() && it->first.starts_with(prefix);) {
        if (parentOf(it->first) == folder) {
            previous.insert(index_.extract(it++));
        } else {
            ++it;
        }
    }
    // A subfolder deleted or moved away is noticed here, in its parent; what was below it goes too.
    std::vector<std::string> vanished;
    for (auto it = folders_.lower_bound(prefix); it != folders_.end() && it->starts_with(prefix); ++it) {
        if (parentOf(*it) != folder) continue;
        bool present = false;
        try {
            present = FileStatus::read(watchedSpelling(*it)).isDirectory();
        } catch (const SystemError&) {
        }
        if (!present) vanished.push_back(*it);
    }
    for (const auto& gone : vanished) forgetBelow(gone);

    bool present = false;
    try {
        present = FileStatus::read(watchedSpelling(folder)).isDirectory();
    } catch (const SystemError&) {
    }
    if (!present) {
        forgetBelow(folder);
        return keys;
    }
    auto device = rootDevice(folder);
    if (!admits(folder) || !device) return keys;
    indexFolderTree(folder, *device, &keys, &previous);
    return keys;
}

void AutoReclaimer::tick() {
    if (stopping_) return;
    struct Counted {
        AutoReclaimer* self;
        ~Counted() { self->countIndex(); }
    } counted{this};
    const auto time = now();
    if ((watchLimitReached_ || !unwatched_.empty()) && time - lastFullPass_ >= fullPassWithoutWatches) {
        needsFullPass_ = true;
        needsNewIndex_ = true;
    }
    std::vector<std::string> settled;
    const auto quiet = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(quietPeriod_));
    for (const auto& [folder, when] : changed_) {
        if (time - when >= quiet) settled.push_back(folder);
    }
    if (!needsFullPass_ && settled.empty()) return;
    if (mayRun_ && !mayRun_()) return;  // the folders stay in `changed_` for a later tick

    std::set<SizeKey> keys;
    for (const auto& folder : settled) {
        changed_.erase(folder);
        keys.merge(refresh(folder));
    }
    if (needsNewIndex_) {
        buildIndex();
        needsNewIndex_ = false;
    }
    const bool full = needsFullPass_;
    needsFullPass_ = false;
    if (full) lastFullPass_ = time;

    // Candidates as they are now: gone files leave the index, changed ones are taken as they are.
    std::map<SizeKey, std::vector<ScannedFile>> bySize;
    std::unordered_set<InodeKey, InodeKeyHash> seen;
    for (auto it = index_.begin(); it != index_.end();) {
        if (!full && !keys.contains(keyOf(it->second))) {
            ++it;
            continue;
        }
        FileStatus status;
        try {
            status = FileStatus::read(it->first);
        } catch (const SystemError&) {
            it = index_.erase(it);
            continue;
        }
        if (!status.isRegularFile()) {
            it = index_.erase(it);
            continue;
        }
        if (!status.isSameVersion(it->second.status)) it->second.clones.reset();  // read afresh by the finder
        it->second.status = status;
        // Hard links to one file are one file: cloning it onto itself frees nothing.
        if (seen.insert({status.device, status.inode}).second && (full || keys.contains(keyOf(it->second)))) {
            ScannedFile candidate = it->second;
            // The engine is handed where the file really is, as a manual reclaim is: it reaches a
            // file only through folders it opens without following links, so a root named through
            // a link it may not trust (another user's, when run as root) would stop every
            // replacement, and following such a link again now would let its owner point it
            // elsewhere between the index and the replacement.
            candidate.path = watchedSpelling(it->first);
            bySize[keyOf(candidate)].push_back(std::move(candidate));
        }
        ++it;
    }
    std::vector<ScannedFile> candidates;
    for (auto& [key, files] : bySize) {
        if (files.size() < 2) continue;
        std::move(files.begin(), files.end(), std::back_inserter(candidates));
    }
    // A pass's working memory goes back to the system: the watcher may wait for hours.
    struct Trimmed {
        ~Trimmed() { platform::releaseFreeMemory(); }
    } trimmed;
    if (candidates.empty()) return;

    auto cancelled = [this] { return stopping_.load(); };
    auto grouping = finder_.groups(candidates, false, {}, cancelled);
    if (finder_.cache) finder_.cache->flush();
    if (grouping.groups.empty() || stopping_) return;
    ReclaimSummary summary =
        reclaimer_.reclaim(grouping.groups, selection_ ? selection_() : Selection{}, {}, cancelled);
    if (summary.replaced > 0 && onReclaim_) onReclaim_(summary);
}

}  // namespace dedup
