#include "app_model.h"

#include <QSettings>

#include "auto_reclaimer.h"

namespace dedup::app {

AppPlaces AppPlaces::standard() {
    return AppPlaces{Locations::data(), Locations::cache(), {}, {}};
}

void CancelFlag::set() {
    std::lock_guard guard(lock_);
    cancelled_ = true;
}

bool CancelFlag::cancelled() const {
    std::lock_guard guard(lock_);
    return cancelled_;
}

bool LastUpdate::due() {
    auto now = std::chrono::steady_clock::now();
    std::lock_guard guard(lock_);
    if (any_ && now - last_ < std::chrono::milliseconds(100)) return false;
    any_ = true;
    last_ = now;
    return true;
}

AppModel::AppModel(AppPlaces places, QObject* parent) : QObject(parent), places_(std::move(places)) {}
AppModel::~AppModel() = default;

void AppModel::setOptions(const ScanOptions&) {}
void AppModel::setMoveReplacedToTrash(bool) {}
void AppModel::setRestoreFolderDates(bool) {}
void AppModel::setCoordinate(bool) {}
void AppModel::setNotify(bool) {}
void AppModel::setAutomatic(bool) {}
void AppModel::setAnytime(bool) {}
bool AppModel::startsAtLogin() const { return false; }
void AppModel::setStartsAtLogin(bool) {}
QStringList AppModel::sourceList() const { return {}; }
void AppModel::add(const QStringList&) {}
void AppModel::remove(const QString&) {}
void AppModel::choose(Profile::Kind) {}
void AppModel::scan() {}
void AppModel::reclaim() {}
void AppModel::cancelCurrent() {}
void AppModel::acceptScanProgress(const ScanProgress&) {}
qint64 AppModel::reclaimableBytes() const { return 0; }
PlannedReclaim AppModel::planned() const { return {}; }
void AppModel::setSelection(Selection) {}
void AppModel::exclude(const QString&) {}
void AppModel::include(const QString&) {}
void AppModel::keepCopy(size_t, size_t) {}
void AppModel::keepCopies(const std::vector<std::pair<size_t, size_t>>&) {}
bool AppModel::exportCsv(const QString&) { return false; }
bool AppModel::exportScan(const QString&) { return false; }
bool AppModel::loadScan(const QString&) { return false; }
void AppModel::reloadJournal() {}
void AppModel::verifyJournal() {}
void AppModel::recoverJournal() {}
void AppModel::measureTrueSize(const QString&) {}
void AppModel::cancelTrueSize() {}
bool AppModel::automaticRunning() const { return false; }
QString AppModel::automaticWaitingFor() const { return {}; }
std::vector<BackupDiskState> AppModel::backupDiskStates() const { return {}; }
void AppModel::setBackupDisk(const QString&, bool) {}
void AppModel::setError(const QString&) {}
int AppModel::runningTasks() { return 0; }
void AppModel::waitForTasks() {}

}  // namespace dedup::app
