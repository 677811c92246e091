// The search across disks and the move of one copy to the Trash, on background threads that reach
// the model only through its weak handle, as the scan does.
#include <algorithm>

#include <QFile>

#include "app_model.h"
#include "app_tasks.h"
#include "hash_cache.h"
#include "path_names.h"

namespace dedup::app {

namespace {

bool isAtOrInside(const std::string& path, const std::string& folder) {
    return path == folder || (path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/');
}

// A group is only worth showing while its copies still lie on two disks or more.
bool onSeveralDisks(const std::vector<std::string>& volumes) {
    return std::adjacent_find(volumes.begin(), volumes.end(), std::not_equal_to<>()) != volumes.end();
}

}  // namespace

void AppModel::setAcrossBusy(bool busy) {
    if (acrossBusy_ == busy) return;
    acrossBusy_ = busy;
    emit acrossBusyChanged();
}

void AppModel::searchAcross(const std::vector<std::string>& paths, bool folders) {
    if (acrossBusy_) return;
    if (paths.size() < 2) {
        setError(tr("Choose folders on at least two different disks to search across them."));
        return;
    }
    // What an earlier search found may no longer hold: it is not shown beside a new search.
    if (acrossResult_) {
        acrossResult_.reset();
        emit acrossResultChanged();
    }
    acrossCancel_ = std::make_shared<CancelFlag>();
    acrossProgress_ = {};
    setAcrossBusy(true);
    emit acrossProgressChanged();

    tasks::run([paths, folders, cachePath = places_.cache + "/hashes.sqlite", weak = weak_, cancel = acrossCancel_] {
        std::unique_ptr<HashCache> cache;
        try {
            cache = std::make_unique<HashCache>(cachePath);
        } catch (const std::exception&) {
            // Without the digest cache the search only reads more.
        }
        AcrossOptions options;
        options.folders = folders;
        options.cache = cache.get();
        auto update = std::make_shared<LastUpdate>();
        auto result = std::make_shared<AcrossResult>();
        QString failure;
        try {
            *result = AcrossVolumes::find(
                paths, options,
                [&](const ScanProgress& progress) {
                    if (!update->due()) return;
                    tasks::onMainThread([weak, progress] {
                        AppModel* model = weak->value;
                        // A report overtaken by the search's end must not bring its progress back.
                        if (!model || !model->acrossBusy_) return;
                        model->acrossProgress_ = progress;
                        emit model->acrossProgressChanged();
                    });
                },
                [cancel] { return cancel->cancelled(); });
        } catch (const std::exception& error) {
            failure = QString::fromUtf8(error.what());
        }
        cache.reset();
        tasks::onMainThread([weak, result, failure] {
            if (weak->value) weak->value->finishAcross(std::move(*result), failure);
        });
    });
}

void AppModel::cancelAcross() {
    if (acrossCancel_) acrossCancel_->set();
}

void AppModel::finishAcross(AcrossResult result, const QString& failure) {
    setAcrossBusy(false);
    if (!failure.isEmpty()) {
        setError(tr("The search across disks stopped: %1").arg(failure));
        return;
    }
    // A cancelled search found only part: showing it as the answer would hide copies.
    if (result.cancelled) return;
    acrossResult_ = std::move(result);
    emit acrossResultChanged();
}

void AppModel::moveAcrossToTrash(const std::string& copy, const std::string& kept) {
    if (acrossBusy_) return;
    setAcrossBusy(true);
    tasks::run([copy, kept, journal = journal_, weak = weak_] {
        auto outcome = std::make_shared<TrashOutcome>();
        try {
            *outcome = TrashMover::moveCopy(copy, kept, *journal);
        } catch (const std::exception& error) {
            // The journal could not be written: the move did not happen, or is recorded as begun.
            outcome->result = TrashOutcome::Result::refused;
            outcome->reason = error.what();
        }
        tasks::onMainThread([weak, copy, outcome] {
            if (weak->value) weak->value->finishTrashMove(copy, *outcome);
        });
    });
}

void AppModel::finishTrashMove(const std::string& copy, const TrashOutcome& outcome) {
    trashOutcome_ = outcome;
    setAcrossBusy(false);
    const bool moved = outcome.result == TrashOutcome::Result::moved;
    if (moved && acrossResult_) {
        removeFromAcross(*acrossResult_, copy);
        emit acrossResultChanged();
    }
    reloadJournal();
    emit acrossMoved(describe(outcome, copy), moved);
}

QString AppModel::describe(const TrashOutcome& outcome, const std::string& copyPath) {
    const QString copy = QFile::decodeName(QByteArray::fromStdString(copyPath));
    switch (outcome.result) {
        case TrashOutcome::Result::moved:
            return tr("%1 is in the Trash. Its space comes back when the Trash is emptied; until then the Journal "
                      "can put it back.")
                .arg(copy);
        case TrashOutcome::Result::changed: {
            QStringList changes;
            for (const auto& change : outcome.changes) changes << QFile::decodeName(QByteArray::fromStdString(change));
            return tr("Nothing was moved: the copies are no longer identical since the search.\n%1")
                .arg(changes.join('\n'));
        }
        case TrashOutcome::Result::refused: break;
    }
    return tr("%1 cannot go to the Trash and stays where it is: %2").arg(copy, QFile::decodeName(QByteArray::fromStdString(outcome.reason)));
}

void AppModel::removeFromAcross(AcrossResult& result, const std::string& path) {
    std::erase_if(result.trees, [&](AcrossTreeGroup& group) {
        // Something taken out of one copy of a tree leaves the trees no longer identical.
        for (const auto& folder : group.folders) {
            if (path != folder && isAtOrInside(path, folder)) return true;
        }
        for (size_t i = group.folders.size(); i-- > 0;) {
            if (isAtOrInside(group.folders[i], path)) {
                group.folders.erase(group.folders.begin() + static_cast<std::ptrdiff_t>(i));
                group.volumes.erase(group.volumes.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        return !onSeveralDisks(group.volumes);
    });
    std::erase_if(result.files, [&](AcrossFileGroup& group) {
        for (size_t i = group.files.size(); i-- > 0;) {
            if (isAtOrInside(group.files[i].path, path)) {
                group.files.erase(group.files.begin() + static_cast<std::ptrdiff_t>(i));
                group.volumes.erase(group.volumes.begin() + static_cast<std::ptrdiff_t>(i));
            }
        }
        return !onSeveralDisks(group.volumes);
    });
    std::erase_if(result.nearlyIdentical, [&](const AcrossNearGroup& group) {
        return std::any_of(group.folders.begin(), group.folders.end(),
                           [&](const std::string& folder) { return isAtOrInside(folder, path); });
    });
}

}  // namespace dedup::app
