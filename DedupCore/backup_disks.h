// Disks the user marked as backup disks, and the watcher that keeps an automatic reclaimer running
// over each of them while it is connected.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "auto_reclaimer.h"
#include "scan_options.h"

namespace dedup {

class SerialQueue;

// The marked disks by the identifier of their file system, so a disk is recognised wherever it is
// mounted, and on Btrfs through whichever subvolume. A plain value; any thread.
struct BackupDisks {
    std::set<std::string> volumes;
    bool operator==(const BackupDisks&) const = default;

    // The identifier of the file system holding `path`; absent when it has none.
    static std::optional<std::string> uuid(const std::string& path);
    // A missing file means no marked disks; one that is there but cannot be read or decoded
    // throws SavedChoicesError, so that a save never overwrites the marks it could not read. Marks
    // written when a Btrfs disk was known by file system and subvolume ("<fsid>:<subvolume id>")
    // are read as the file system's.
    static BackupDisks load(const std::string& file);
    // Creates the folder, writes atomically. Throws on failure.
    void save(const std::string& file) const;
    // What is scanned on a backup disk: every type of file, whatever the user's own choices.
    static ScanOptions options();
};
void to_json(nlohmann::json& j, const BackupDisks& d);
void from_json(const nlohmann::json& j, BackupDisks& d);

// Polls the connected disks and runs one AutoReclaimer per marked disk while it is there: a disk
// that comes gets a new reclaimer (whose first pass covers the whole disk), one that goes or is
// unmarked loses its reclaimer. Owns its thread ("dedup.backup") and the reclaimers; start(), stop()
// and the queries block until that thread has answered. Destruction stops it.
class BackupWatcher {
public:
    using MakeReclaimer = std::function<std::unique_ptr<AutoReclaimer>(const std::string& volume)>;

    // `disks` and `candidates` are asked on every poll, so marks made later take effect.
    BackupWatcher(std::function<BackupDisks()> disks, std::function<std::vector<std::string>()> candidates,
                  double pollInterval, MakeReclaimer makeReclaimer);
    ~BackupWatcher();
    BackupWatcher(const BackupWatcher&) = delete;
    BackupWatcher& operator=(const BackupWatcher&) = delete;

    void start();  // the first poll comes at once
    void stop();
    // The volumes with a running reclaimer, sorted.
    std::vector<std::string> watching();
    // Polls now, as the timer would.
    void pollNow();

private:
    void poll();

    const std::function<BackupDisks()> disks_;
    const std::function<std::vector<std::string>()> candidates_;
    const double pollInterval_;
    const MakeReclaimer makeReclaimer_;
    std::map<std::string, std::unique_ptr<AutoReclaimer>> running_;  // by mount path
    // The reclaimer whose start() a poll is in: indexing a large disk takes long, and stop() must
    // not wait for all of it.
    std::mutex startingLock_;
    AutoReclaimer* starting_ = nullptr;
    bool stopping_ = false;
    std::unique_ptr<SerialQueue> queue_;
};

}  // namespace dedup
