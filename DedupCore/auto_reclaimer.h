// Keeps folders reclaimed without anyone asking: indexes every file under its roots, watches their
// folders for changes, and once a changed folder has been quiet for the quiet period re-reads it
// and reclaims the new duplicates among files of the same size on the same volume, with the same
// finder, reclaimer and selection a reclaim by hand uses. The first allowed pass covers every
// indexed file, so duplicates already there when it starts are reclaimed too.
//
// Owns its thread ("dedup.auto", at idle CPU and I/O priority), its folder watch, and the finder,
// reclaimer and callbacks it was given; every piece of its state lives on that thread. Any thread
// may call start(), stop() and the queries; each blocks until the thread has answered. A stopped
// reclaimer is not started again: make a new one. Nothing here throws after construction: folders
// that cannot be read are left out, folders that cannot be watched are named through onWarning and
// looked at by a full pass every 30 minutes, and failed replacements end in the summary and the
// journal. A root that is a single file is watched through its folder, whose other files are not
// taken in.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "duplicate_finder.h"
#include "reclaimer.h"

namespace dedup {

class HashCache;
class SerialQueue;
namespace platform {
class FolderWatch;
}

// Two files can only be identical, and clone each other, when their keys are equal.
struct SizeKey {
    int64_t size = 0;
    uint64_t device = 0;
    auto operator<=>(const SizeKey&) const = default;
};

class AutoReclaimer {
public:
    using Clock = std::chrono::steady_clock;

    AutoReclaimer(std::vector<std::string> roots, DuplicateFinder finder, Reclaimer reclaimer,
                  std::function<Selection()> selection, double quietPeriod, std::function<bool()> mayRun,
                  std::function<void(const ReclaimSummary&)> onReclaim);
    ~AutoReclaimer();  // stops
    AutoReclaimer(const AutoReclaimer&) = delete;
    AutoReclaimer& operator=(const AutoReclaimer&) = delete;

    // Builds the index, starts watching and starts the timer, whose first tick comes at once.
    void start();
    // Ends the pass under way between two replacements, then stops watching and ticking.
    void stop();
    // From any thread, even while start() runs on another: the index being built and the pass
    // under way end early and no pass starts again, so a start() under way returns soon. stop()
    // is still needed afterwards.
    void cancel() { stopping_ = true; }

    // Whether background work may burden the machine now (any thread).
    static bool machineIsFree();
    // How often the timer ticks: half the quiet period, but at least every 30 seconds.
    static std::chrono::duration<double> tickInterval(double quietPeriod);

    // Settings to make before start().
    // Told once when something keeps the watch from working as it should (the kernel's limit on
    // watched folders, a folder it will not watch); called on the reclaimer's thread.
    std::function<void(const std::string&)> onWarning;
    // The clock changes are timed by; a test may move time by hand.
    std::function<Clock::time_point()> now = [] { return Clock::now(); };
    // A digest cache for the finder to use, owned here (finder.cache is pointed at it).
    std::unique_ptr<HashCache> cache;

    // Takes in the changes already reported, then runs a tick at once, as the timer would.
    void tickNow();
    // Folders changed and not handled yet, in the user's spelling.
    std::vector<std::string> pendingFolders();
    // As of the end of the last index change; they answer at once, even during a long pass.
    size_t indexedFiles() const { return indexedCount_; }
    size_t watchedFolders() const { return watchedCount_; }

private:
    // All of these run on the queue.
    void buildIndex();
    void indexFolderTree(const std::string& folder, uint64_t device, std::set<SizeKey>* keys = nullptr,
                         const std::map<std::string, ScannedFile>* previous = nullptr);
    void watch(const std::string& folder);
    void watchPath(const std::string& kernelPath, const std::string& shown);
    void unwatch(const std::string& folder);
    std::set<SizeKey> refreshFile(const std::string& root);
    void readEvents();
    void tick();
    std::set<SizeKey> refresh(const std::string& folder);
    bool admits(const std::string& folder) const;
    std::optional<uint64_t> rootDevice(const std::string& path) const;
    void forgetBelow(const std::string& folder);
    const std::vector<std::pair<std::string, std::string>>& canonicalRoots();
    std::string ownPath(const std::string& path);
    std::string watchedSpelling(const std::string& path);

    const std::vector<std::string> roots_;
    DuplicateFinder finder_;
    Reclaimer reclaimer_;
    const std::function<Selection()> selection_;
    const double quietPeriod_;
    const std::function<bool()> mayRun_;
    const std::function<void(const ReclaimSummary&)> onReclaim_;

    void countIndex();

    std::atomic<bool> stopping_{false};
    std::atomic<size_t> indexedCount_{0};
    std::atomic<size_t> watchedCount_{0};
    bool started_ = false;
    std::unique_ptr<platform::FolderWatch> watch_;
    // By path, so a folder's files are one range. The key is the only copy of the path: the records
    // keep theirs empty, which nearly halves what an indexed file costs.
    std::map<std::string, ScannedFile> index_;
    std::set<std::string> folders_;
    std::map<std::string, Clock::time_point> changed_;
    bool needsFullPass_ = true;
    bool needsNewIndex_ = false;  // events were lost: the index may miss files
    bool watchLimitReached_ = false;
    // Folders the kernel would not watch for another reason than its limit (in the user's
    // spelling); while there are any, a full pass every 30 minutes finds their changes.
    std::set<std::string> unwatched_;
    size_t unwatchedWarnings_ = 0;
    // Roots that are single files (as given), and the folders holding them (as the kernel knows
    // them), watched for those files only.
    std::set<std::string> fileRoots_;
    std::set<std::string> fileRootFolders_;
    Clock::time_point lastFullPass_{};
    std::map<std::string, uint64_t> rootDevices_;  // given root -> its device
    std::optional<std::vector<std::pair<std::string, std::string>>> canonicalRoots_;  // (canonical, given)

    std::unique_ptr<SerialQueue> queue_;  // last: destroyed first, so nothing above is used after it
};

}  // namespace dedup
