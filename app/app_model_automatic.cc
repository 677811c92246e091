// Automatic mode: the one automatic reclaimer over the user's folders, the backup-disk watcher,
// the lock that keeps them the only ones of this user, and what is said after a pass.
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include <QFile>
#include <QStorageInfo>
#include <QTimer>

#include "app_model.h"
#include "app_tasks.h"
#include "auto_lock.h"
#include "auto_reclaimer.h"
#include "backup_disks.h"
#include "byte_format.h"
#include "saved_choices.h"
#include "desktop_session.h"
#include "hash_cache.h"
#include "machine_state.h"
#include "saved_selection.h"

namespace dedup::app {


// One switched-on automatic mode. The reclaimer over the folders is started on a background
// thread, since its first index of a large tree takes minutes; the model stops it and the watcher
// when the mode is switched off, and releases the lock after both have stopped.
struct AppModel::AutomaticRun {
    std::optional<AutoLock> lock;
    std::shared_ptr<Journal> journal;  // the reclaimers' engines write to it until they stop
    std::mutex startLock;
    std::condition_variable startEnded;
    bool started = false;
    std::unique_ptr<AutoReclaimer> reclaimer;
    std::unique_ptr<BackupWatcher> watcher;

    ~AutomaticRun() {
        watcher.reset();
        reclaimer.reset();
    }
};


// What every automatic reclaimer of one run is built from, copied so that a backup disk's
// reclaimer can be made on the watcher's thread without reaching into the model.
struct AppModel::AutomaticRecipe {
    std::string selectionPath;
    std::string cachePath;
    std::string journalPath;  // its changes tell the cache that blocks were shared
    bool anytime = false;
    std::shared_ptr<std::atomic<bool>> reclaimingByHand;
    CloneEngine engine;
    std::shared_ptr<Weak> weak;

    std::unique_ptr<AutoReclaimer> make(std::vector<std::string> roots, ScanOptions options) const {
        auto mayRun = [anytime = anytime, selectionPath = selectionPath, byHand = reclaimingByHand] {
            // Two reclaimers over the same copies would swap files under each other.
            if (*byHand) return false;
            // The changes wait for a pass whose choices can be read.
            if (!SavedSelection::readable(selectionPath)) return false;
            return anytime || AutoReclaimer::machineIsFree();
        };
        auto onReclaim = [weak = weak](const ReclaimSummary& summary) {
            tasks::onMainThread([weak, summary] {
                if (weak->value) weak->value->onAutomaticReclaim(summary);
            });
        };
        auto reclaimer = std::make_unique<AutoReclaimer>(
            std::move(roots), DuplicateFinder{std::move(options)}, Reclaimer{engine},
            [selectionPath = selectionPath] { return SavedSelection::forPass(selectionPath); }, automaticQuietPeriod, mayRun,
            onReclaim);
        try {
            reclaimer->cache = std::make_unique<HashCache>(cachePath, journalPath);
        } catch (const std::exception&) {
            // Without the cache every digest is read afresh; the pass finds the same copies.
        }
        return reclaimer;
    }
};

void AppModel::applyAutomatic() {
    stopAutomatic();
    automaticUnwatched_.clear();
    if (stopping_ > 0 && automatic_ && (!sources_.empty() || !backupDisks_.volumes.empty())) {
        // The run being stopped still holds this user's lock: the new one starts once it is free.
        startWhenStopped_ = true;
        emit automaticStateChanged();
        return;
    }
    QString holder;
    if (automatic_ && (!sources_.empty() || !backupDisks_.volumes.empty())) {
        auto run = std::make_shared<AutomaticRun>();
        try {
            auto acquired = AutoLock::acquire(places_.data, "VELMORA.dedup");
            if (auto* lock = std::get_if<AutoLock>(&acquired)) {
                run->lock.emplace(std::move(*lock));
            } else {
                holder = QString::fromStdString(dedup::describe(std::get<AutoLock::Holder>(acquired)));
            }
        } catch (const std::exception& error) {
            setError(QString("Automatic reclaiming cannot start: %1").arg(QString::fromUtf8(error.what())));
        }
        if (run->lock) startAutomatic(run);
    }
    if (holder != automaticHolder_) automaticHolder_ = holder;
    emit automaticStateChanged();
    refreshWaitingFor();
}

void AppModel::startAutomatic(const std::shared_ptr<AutomaticRun>& run) {
    run_ = run;
    run->journal = journal_;
    const AutomaticRecipe recipe{file("selection.json"), places_.cache + "/hashes.sqlite", file("journal.jsonl"), anytime_,
                                 reclaimingByHand_, engine(), weak_};
    // On a disk that cannot make clones every pass would only journal each copy as left alone
    // again: such folders are named on the Automatic screen instead of watched. The trial is made
    // once per disk while the process lives.
    std::vector<std::string> roots;
    automaticUnwatched_.clear();
    for (const std::string& source : sources_) {
        if (cloneAbility(source).canShare) {
            roots.push_back(source);
        } else {
            automaticUnwatched_.push_back(QFile::decodeName(QByteArray::fromStdString(source)));
        }
    }
    if (!roots.empty()) {
        run->reclaimer = recipe.make(std::move(roots), options_);
        tasks::run([run] {
            run->reclaimer->start();
            std::lock_guard guard(run->startLock);
            run->started = true;
            run->startEnded.notify_all();
        });
    }
    if (!backupDisks_.volumes.empty()) {
        const std::string disksFile = file("backup-disks.json");
        run->watcher = std::make_unique<BackupWatcher>(
            [disksFile] {
                try {
                    return BackupDisks::load(disksFile);
                } catch (const SavedChoicesError&) {
                    return BackupDisks{};  // unreadable marks: no disk is worked on until they read again
                }
            },
            [] { return Profile::externalCloneVolumes(); },
            backupPollInterval,
            [recipe](const std::string& volume) { return recipe.make({volume}, BackupDisks::options()); });
        run->watcher->start();
    }
    if (!waitingTimer_) {
        waitingTimer_ = new QTimer(this);
        waitingTimer_->setInterval(15000);
        connect(waitingTimer_, &QTimer::timeout, this, &AppModel::refreshWaitingFor);
    }
    waitingTimer_->start();
}

void AppModel::stopAutomatic() {
    if (waitingTimer_) waitingTimer_->stop();
    if (!run_) return;
    auto run = std::move(run_);
    run_.reset();
    // From here on no pass of this run begins, and the one under way ends at its next replacement.
    if (run->reclaimer) run->reclaimer->cancel();
    ++stopping_;
    emit automaticStateChanged();
    // Waiting for that replacement to end can take as long as comparing a large file: the window
    // must not wait with it. The worker says when the run has stopped and its lock is free.
    tasks::run([run, weak = weak_] {
        // The watcher first: it may be making a reclaimer for a disk, which its stop() cancels.
        if (run->watcher) run->watcher->stop();
        if (run->reclaimer) {
            // A first index under way ends early once cancelled.
            std::unique_lock guard(run->startLock);
            run->startEnded.wait(guard, [&] { return run->started; });
            guard.unlock();
            run->reclaimer->stop();
        }
        // Released now, even if the starter thread still holds its share of the run for a moment:
        // "dedup auto" may take over at once.
        run->lock.reset();
        tasks::onMainThread([weak] {
            if (weak->value) weak->value->automaticStopped();
        });
    });
}

void AppModel::automaticStopped() {
    --stopping_;
    if (stopping_ == 0 && startWhenStopped_) {
        // Switched on again (or its folders changed) while the last run was still stopping.
        startWhenStopped_ = false;
        applyAutomatic();  // says what it started
    } else {
        emit automaticStateChanged();
    }
    if (stopping_ == 0 && recoverWhenStopped_) {
        recoverWhenStopped_ = false;
        setJournalBusy(false);  // it was set while the recovery waited
        recoverJournal();
    }
}

bool AppModel::automaticRunning() const { return run_ != nullptr; }

void AppModel::refreshWaitingFor() {
    if (!run_ || anytime_) {
        if (!automaticWaitingFor_.isEmpty()) {
            automaticWaitingFor_.clear();
            emit automaticStateChanged();
        }
        return;
    }
    // The readings ask logind over the system bus: not on the main thread.
    tasks::run([weak = weak_] {
        auto held = heldBack();
        QString phrase = held ? QString::fromUtf8(std::string(dedup::phrase(*held)).c_str()) : QString();
        tasks::onMainThread([weak, phrase] {
            AppModel* model = weak->value;
            if (!model || !model->run_ || model->automaticWaitingFor_ == phrase) return;
            model->automaticWaitingFor_ = phrase;
            emit model->automaticStateChanged();
        });
    });
}

void AppModel::onAutomaticReclaim(const ReclaimSummary& summary) {
    const QString text = tr("%1 files became clones; %2 reclaimed")
                             .arg(summary.replaced)
                             .arg(QString::fromStdString(formatBytes(summary.freedBytes)));
    lastAutomatic_ = text;
    emit lastAutomaticChanged();
    emit automaticReclaimed(text);
    if (notify_) postDesktopNotification("VELMORA.dedup", text);
}

std::vector<BackupDiskState> AppModel::backupDiskStates() const {
    std::vector<BackupDiskState> states;
    for (const auto& volume : backupDisks_.volumes) states.push_back({volume, std::nullopt, false, false});
    if (states.empty()) return states;
    for (const QStorageInfo& storage : QStorageInfo::mountedVolumes()) {
        if (!storage.isValid() || !storage.isReady()) continue;
        const std::string root = QFile::encodeName(storage.rootPath()).toStdString();
        auto uuid = BackupDisks::uuid(root);
        if (!uuid) continue;
        for (auto& state : states) {
            if (state.volume != *uuid || state.mountPoint) continue;
            state.mountPoint = root;
            state.canClone = !storage.isReadOnly() && cloneAbility(root).canShare;
            state.watched = run_ && run_->watcher && state.canClone;
        }
    }
    return states;
}

void AppModel::setBackupDisk(const QString& path, bool on) {
    // A disk that is not connected has no path to name it by: its identifier, as
    // backupDiskStates() gives it, stands in for unmarking.
    const std::string given = QFile::encodeName(path).toStdString();
    std::optional<std::string> uuid;
    if (!on && !given.starts_with('/') && backupDisks_.volumes.contains(given)) {
        uuid = given;
    } else {
        uuid = BackupDisks::uuid(given);
    }
    if (!uuid) {
        setError(QString("The disk that holds %1 cannot be told apart from others, so it cannot be marked.").arg(path));
        return;
    }
    try {
        (void)BackupDisks::load(file("backup-disks.json"));
    } catch (const SavedChoicesError& error) {
        setError(QString("Your backup disks (saved in %1) cannot be read: %2. Repair or remove that file first; "
                         "it is not saved over.")
                     .arg(QFile::decodeName(QByteArray::fromStdString(error.file)), QString::fromStdString(error.reason)));
        return;
    }
    BackupDisks next = backupDisks_;
    if (on) {
        next.volumes.insert(*uuid);
    } else {
        next.volumes.erase(*uuid);
    }
    if (next == backupDisks_) return;
    backupDisks_ = std::move(next);
    try {
        backupDisks_.save(file("backup-disks.json"));
    } catch (const std::exception&) {
        // Marked for this run; the next change tries to save again.
    }
    emit backupDisksChanged();
    applyAutomatic();
}

}  // namespace dedup::app
