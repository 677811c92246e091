// The long work the model starts: scan, reclaim, journal checks and true size. Each runs on a
// background thread that holds copies of what it needs and reaches the model only through its
// weak handle, on the main thread.
#include <QCoreApplication>
#include <QFile>

#include "app_model.h"
#include "app_tasks.h"
#include "auto_lock.h"
#include "hash_cache.h"
#include "trash_mover.h"

namespace dedup::app {

namespace {

QString text(const std::exception& error) { return QString::fromUtf8(error.what()); }

// Thrown from a progress callback to end a measurement the user no longer waits for.
struct Superseded {};

}  // namespace

std::variant<size_t, std::string> AppModel::recoverInterrupted(Journal& journal, const std::string& dataDirectory) {
    // While another process reclaims automatically, its replacements under way look exactly like
    // interrupted ones; putting them "right" would undo its work. Holding the lock keeps one from
    // starting meanwhile.
    auto lock = AutoLock::acquire(dataDirectory, "VELMORA.dedup");
    if (auto* holder = std::get_if<AutoLock::Holder>(&lock)) return dedup::describe(*holder);
    // Moves to the Trash cut short are closed first, so the journal says where each copy went.
    const size_t moves = TrashMover::recoverInterrupted(journal).size();
    return moves + journal
        .recoverInterrupted(
            [](const std::string& path) { return std::string(rawValue(CloneEngine::recoverLeftover(path))); })
        .size();
}

CloneEngine AppModel::engine() const {
    CloneEngine engine;
    engine.moveReplacedToTrash = moveReplacedToTrash_;
    engine.restoreFolderDates = restoreFolderDates_;
    engine.coordinate = coordinate_;
    engine.journal = journal_.get();
    return engine;
}

void AppModel::setPhase(Phase phase) {
    if (phase_ == phase) return;
    phase_ = phase;
    emit phaseChanged();
}

void AppModel::scan() {
    if (phase_ != Phase::idle || sources_.empty()) return;
    if (fileBusy_) {
        // A saved scan being opened would land on top of the new one, or a reclaim would run on
        // the result about to be replaced.
        setError(tr("Wait until the file has been opened or saved."));
        return;
    }
    if (result_) {
        dropResult();
        emit resultChanged();
        emit reclaimableBytesChanged();
    }
    cancel_ = std::make_shared<CancelFlag>();
    scanProgress_ = {};
    scanStarted_ = std::chrono::steady_clock::now();
    scanSeconds_.reset();
    setPhase(Phase::scanning);
    emit progressChanged();

    tasks::run([roots = sources_, options = options_, cachePath = places_.cache + "/hashes.sqlite",
                journalPath = file("journal.jsonl"), weak = weak_, cancel = cancel_] {
        // The digest cache only saves reading: a scan without it finds the same groups.
        std::unique_ptr<HashCache> cache;
        try {
            cache = std::make_unique<HashCache>(cachePath, journalPath);
        } catch (const std::exception&) {
        }
        DuplicateFinder finder{options, cache.get()};
        auto update = std::make_shared<LastUpdate>();
        auto result = std::make_shared<ScanResult>();
        QString failure;
        try {
            *result = finder.scan(
                roots,
                [&](const ScanProgress& progress) {
                    if (!update->due()) return;
                    tasks::onMainThread([weak, progress] {
                        if (weak->value) weak->value->acceptScanProgress(progress);
                    });
                },
                [cancel] { return cancel->cancelled(); });
        } catch (const std::exception& error) {
            failure = text(error);
        }
        cache.reset();
        tasks::onMainThread([weak, result, failure] {
            if (weak->value) weak->value->finishScan(result, failure);
        });
    });
}

void AppModel::acceptScanProgress(const ScanProgress& progress) {
    // A report overtaken by the scan's end must not make the screen say it scans again.
    if (phase_ != Phase::scanning) return;
    scanProgress_ = progress;
    emit progressChanged();
}

void AppModel::finishScan(std::shared_ptr<ScanResult> result, const QString& failure) {
    if (failure.isEmpty()) {
        dropResult();
        result_ = std::move(result);
        scanSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - scanStarted_).count();
        emit resultChanged();
        emit reclaimableBytesChanged();
    } else {
        setError(QString("The scan stopped: %1").arg(failure));
    }
    if (phase_ == Phase::scanning || phase_ == Phase::reclaiming) setPhase(Phase::idle);
}

void AppModel::reclaim() {
    if (!result_ || phase_ != Phase::idle) return;
    if (fileBusy_) {
        setError(tr("Wait until the file has been opened or saved."));
        return;
    }
    if (stopping_ > 0) {
        // Its replacement under way could be of a copy this reclaim is about to replace too.
        setError(tr("Automatic reclaiming is still finishing the file it was replacing. Reclaim again in a moment."));
        return;
    }
    if (selectionUnreadable_) {
        // Reclaiming now could replace copies the user had chosen to keep apart.
        setError("The files you left out of reclaiming cannot be read, so nothing is reclaimed. Choose again "
                 "which files to leave out (or start afresh) and reclaim then.");
        return;
    }
    cancel_ = std::make_shared<CancelFlag>();
    // The worker reads the result as it is now; a copy of a million files would stall the window.
    std::shared_ptr<const ScanResult> scanned = result_;
    reclaimProgress_ = ReclaimProgress{};
    *reclaimingByHand_ = true;
    setPhase(Phase::reclaiming);
    emit progressChanged();

    std::optional<std::string> firstSource;
    if (!sources_.empty()) firstSource = sources_.front();
    tasks::run([scanned, selection = selection_, engine = engine(), journal = journal_, weak = weak_,
                cancel = cancel_, firstSource] {
        // `journal` keeps the engine's journal alive even if the model is closed meanwhile.
        (void)journal;
        // How many copies there are to do is counted here, off the main thread.
        const auto total = static_cast<int64_t>(Report::targets(scanned->groups, selection).size());
        tasks::onMainThread([weak, total] {
            if (weak->value) weak->value->acceptReclaimProgress(ReclaimProgress{0, total, 0, {}});
        });
        Reclaimer reclaimer{engine};
        auto update = std::make_shared<LastUpdate>();
        auto summary = std::make_shared<ReclaimSummary>(reclaimer.reclaim(
            scanned->groups, selection,
            [&](const ReclaimProgress& progress) {
                if (!update->due()) return;
                tasks::onMainThread([weak, progress] {
                    if (weak->value) weak->value->acceptReclaimProgress(progress);
                });
            },
            [cancel] { return cancel->cancelled(); }));
        // Asked here rather than on the main thread: listing snapshots and measuring the Trash
        // can take seconds.
        std::optional<SpaceHolders> holders;
        if (firstSource) holders = SpaceHolders::check(*firstSource);
        tasks::onMainThread([weak, summary, holders] {
            if (weak->value) weak->value->finishReclaim(std::move(*summary), holders);
        });
    });
}

void AppModel::acceptReclaimProgress(const ReclaimProgress& progress) {
    if (phase_ != Phase::reclaiming) return;
    reclaimProgress_ = progress;
    emit progressChanged();
}

void AppModel::finishReclaim(ReclaimSummary summary, std::optional<SpaceHolders> holders) {
    *reclaimingByHand_ = false;
    summary_ = std::move(summary);
    emit summaryChanged();
    spaceHolders_ = sources_.empty() ? std::nullopt : std::move(holders);
    emit spaceHoldersChanged();
    setPhase(Phase::idle);
    reloadJournal();
    // The screen then shows what is left, not the groups as they were before.
    scan();
}

void AppModel::cancelCurrent() {
    if (cancel_) cancel_->set();
}

void AppModel::reloadJournal() {
    tasks::run([journal = journal_, weak = weak_] {
        auto entries = std::make_shared<std::vector<JournalEntry>>();
        QString failure;
        try {
            *entries = journal->entries();
        } catch (const std::exception& error) {
            failure = text(error);
        }
        tasks::onMainThread([weak, entries, failure] {
            AppModel* model = weak->value;
            if (!model) return;
            if (!failure.isEmpty()) {
                model->setError(QString("The journal cannot be read: %1").arg(failure));
                return;
            }
            model->journalEntries_ = std::move(*entries);
            emit model->journalChanged();
        });
    });
}

void AppModel::setJournalBusy(bool busy) {
    if (journalBusy_ == busy) return;
    journalBusy_ = busy;
    emit journalBusyChanged();
}

void AppModel::verifyJournal() {
    if (journalBusy_) return;
    setJournalBusy(true);
    tasks::run([journal = journal_, weak = weak_] {
        auto findings = std::make_shared<std::vector<JournalFinding>>();
        QString failure;
        try {
            *findings = journal->verify();
        } catch (const std::exception& error) {
            failure = text(error);
        }
        tasks::onMainThread([weak, findings, failure] {
            AppModel* model = weak->value;
            if (!model) return;
            model->setJournalBusy(false);
            if (!failure.isEmpty()) {
                model->setError(QString("The journal could not be verified: %1").arg(failure));
                return;
            }
            model->journalFindings_ = std::move(*findings);
            emit model->journalVerified();
        });
    });
}

void AppModel::recoverJournal() {
    if (journalBusy_) return;
    if (phase_ != Phase::idle) {
        setError(tr("Wait until the reclaim has finished: its replacements under way are not interrupted ones."));
        return;
    }
    // Our own automatic reclaimer's replacements under way would look interrupted too: it rests
    // while the journal is put right, and the recovery waits until it has stopped.
    stopAutomatic();
    if (stopping_ > 0) {
        recoverWhenStopped_ = true;
        startWhenStopped_ = false;  // recovery brings it back afterwards
        setJournalBusy(true);
        return;
    }
    setJournalBusy(true);
    tasks::run([journal = journal_, data = places_.data, weak = weak_] {
        std::variant<size_t, std::string> outcome;
        QString failure;
        try {
            outcome = recoverInterrupted(*journal, data);
        } catch (const std::exception& error) {
            failure = text(error);
        }
        tasks::onMainThread([weak, outcome, failure] {
            AppModel* model = weak->value;
            if (!model) return;
            model->setJournalBusy(false);
            if (!failure.isEmpty()) {
                model->setError(tr("An interrupted replacement could not be put right: %1").arg(failure));
            } else if (auto* holder = std::get_if<std::string>(&outcome)) {
                model->setError(tr("Automatic reclaiming runs in %1; its replacements under way must not be taken "
                                   "for interrupted ones. Recover once it has stopped.")
                                    .arg(QString::fromStdString(*holder)));
            } else {
                emit model->journalRecovered(static_cast<int>(std::get<size_t>(outcome)));
            }
            model->applyAutomatic();
            model->reloadJournal();
        });
    });
}

void AppModel::measureTrueSize(const QString& folder) {
    if (trueSizeCancel_) trueSizeCancel_->set();
    trueSizeCancel_ = std::make_shared<CancelFlag>();
    if (!trueSizeBusy_) {
        trueSizeBusy_ = true;
        emit trueSizeBusyChanged();
    }
    tasks::run([path = QFile::encodeName(folder).toStdString(), folder, weak = weak_, cancel = trueSizeCancel_] {
        auto update = std::make_shared<LastUpdate>();
        TrueSize::Options options;
        options.progress = [&](const std::string&, int64_t files) {
            if (cancel->cancelled()) throw Superseded{};
            if (!update->due()) return;
            tasks::onMainThread([weak, folder, files, cancel] {
                if (weak->value && !cancel->cancelled()) emit weak->value->trueSizeProgress(folder, files);
            });
        };
        auto measured = std::make_shared<std::pair<FolderSize, TrueSize::Tally>>();
        QString failure;
        try {
            *measured = TrueSize::measureWithTally(path, options);
        } catch (const Superseded&) {
            return;
        } catch (const std::exception& error) {
            failure = text(error);
        }
        tasks::onMainThread([weak, folder, measured, failure, cancel] {
            AppModel* model = weak->value;
            // A newer request or a cancel has taken over: this answer is no longer wanted.
            if (!model || cancel->cancelled()) return;
            model->trueSizeBusy_ = false;
            emit model->trueSizeBusyChanged();
            if (!failure.isEmpty()) {
                emit model->trueSizeFailed(folder, failure);
                return;
            }
            model->trueSize_ = std::move(measured->first);
            model->trueSizeSharing_ = measured->second.sharing;
            emit model->trueSizeMeasured(folder);
        });
    });
}

void AppModel::cancelTrueSize() {
    if (trueSizeCancel_) trueSizeCancel_->set();
    if (trueSizeBusy_) {
        trueSizeBusy_ = false;
        emit trueSizeBusyChanged();
    }
}

int AppModel::runningTasks() { return tasks::running(); }
void AppModel::waitForTasks() { tasks::waitAll(); }

}  // namespace dedup::app
