#include "backup_disks.h"

#include <filesystem>

#include <nlohmann/json.hpp>

#include "platform/file_io.h"
#include "platform/process.h"
#include "platform/system.h"
#include "saved_choices.h"
#include "serial_queue.h"
#include "temporary_name.h"

namespace dedup {

void to_json(nlohmann::json& j, const BackupDisks& d) { j = {{"volumes", d.volumes}}; }
void from_json(const nlohmann::json& j, BackupDisks& d) { j.at("volumes").get_to(d.volumes); }

namespace {

// "<fsid>:<subvolume id>" as earlier marks of Btrfs disks read; other identifiers as they are.
std::string fileSystemPart(const std::string& mark) {
    auto colon = mark.rfind(':');
    if (colon == std::string::npos || colon + 1 == mark.size() || !isUUIDText(mark.substr(0, colon))) return mark;
    for (size_t i = colon + 1; i < mark.size(); ++i) {
        if (mark[i] < '0' || mark[i] > '9') return mark;
    }
    return mark.substr(0, colon);
}

}  // namespace

std::optional<std::string> BackupDisks::uuid(const std::string& path) {
    // Not the subvolume: the same disk may be mounted through another one next time.
    return platform::volumeIdentifier(path, false);
}

BackupDisks BackupDisks::load(const std::string& file) {
    auto text = readSavedChoices(file);
    if (!text) return {};
    auto stored = decodeSavedChoices<BackupDisks>(file, *text);
    BackupDisks disks;
    for (const auto& mark : stored.volumes) disks.volumes.insert(fileSystemPart(mark));
    return disks;
}

void BackupDisks::save(const std::string& file) const {
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    platform::writeFileAtomically(file, nlohmann::json(*this).dump(2) + "\n");
}

ScanOptions BackupDisks::options() {
    ScanOptions options;
    options.allowedExtensions.reset();
    options.homeFolder = platform::homeDirectory();
    return options;
}

BackupWatcher::BackupWatcher(std::function<BackupDisks()> disks, std::function<std::vector<std::string>()> candidates,
                             double pollInterval, MakeReclaimer makeReclaimer)
    : disks_(std::move(disks)),
      candidates_(candidates ? std::move(candidates) : [] { return Profile::externalCloneVolumes(); }),
      pollInterval_(pollInterval),
      makeReclaimer_(std::move(makeReclaimer)) {}

BackupWatcher::~BackupWatcher() { stop(); }

void BackupWatcher::start() {
    if (queue_) return;
    {
        std::lock_guard lock(startingLock_);
        stopping_ = false;
    }
    queue_ = std::make_unique<SerialQueue>("dedup.backup", [] { platform::nameThread("dedup.backup"); });
    queue_->sync([this] {
        auto interval = std::chrono::duration_cast<SerialQueue::Clock::duration>(
            std::chrono::duration<double>(std::max(pollInterval_, 0.01)));
        queue_->setTimer(interval, [this] { poll(); });
    });
}

void BackupWatcher::stop() {
    if (!queue_) return;
    {
        std::lock_guard lock(startingLock_);
        stopping_ = true;
        if (starting_) starting_->cancel();
    }
    queue_->sync([this] {
        queue_->cancelTimer();
        for (auto& [volume, reclaimer] : running_) reclaimer->stop();
        running_.clear();
    });
    queue_.reset();
}

std::vector<std::string> BackupWatcher::watching() {
    std::vector<std::string> volumes;
    if (queue_) {
        queue_->sync([&] {
            for (const auto& [volume, reclaimer] : running_) volumes.push_back(volume);
        });
    }
    return volumes;
}

void BackupWatcher::pollNow() {
    if (queue_) queue_->sync([this] { poll(); });
}

void BackupWatcher::poll() {
    const auto marked = disks_().volumes;
    std::set<std::string> present;
    for (const auto& volume : candidates_()) {
        auto id = BackupDisks::uuid(volume);
        // A volume without an identifier cannot have been marked.
        if (!id || !marked.contains(*id)) continue;
        present.insert(volume);
        if (running_.contains(volume)) continue;
        auto reclaimer = makeReclaimer_(volume);
        if (!reclaimer) continue;
        {
            std::lock_guard lock(startingLock_);
            if (stopping_) return;
            starting_ = reclaimer.get();
        }
        reclaimer->start();
        {
            std::lock_guard lock(startingLock_);
            starting_ = nullptr;
        }
        running_.emplace(volume, std::move(reclaimer));
    }
    for (auto it = running_.begin(); it != running_.end();) {
        if (present.contains(it->first)) {
            ++it;
            continue;
        }
        it->second->stop();
        it = running_.erase(it);
    }
}

}  // namespace dedup
