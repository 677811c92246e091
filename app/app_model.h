// The application's one owner of state: the folders the user chose, the scan options and reclaim
// settings, the last scan's result and the last reclaim's summary, the journal, and the unattended
// machinery (one automatic reclaimer and one backup-disk watcher). Every view reads and changes
// state only through it.
//
// Lives on the main thread; every method below is called there. Scans, reclaims, true-size
// measurements and journal checks run on background threads that hold the model only through a
// weak handle: their results come back by queued calls and are dropped when the model is gone.
// Progress reaches the model at most ten times a second.
//
// Failure: a journal that cannot be opened stops construction (StartError); everything else that
// goes wrong is shown through `error` and loses nothing the user chose.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include "duplicate_finder.h"
#include "journal.h"
#include "reclaim_plan.h"
#include "reclaimer.h"
#include "scan_options.h"
#include "scan_progress.h"
#include "space_holders.h"
#include "true_size.h"
#include "backup_disks.h"
#include "across_volumes.h"
#include "trash_mover.h"

class QSettings;
class QTimer;

namespace dedup::app {

// Where the application keeps what it persists. standard() follows the XDG folders (and
// DEDUP_DATA_DIR); tests point every place into a temporary folder.
struct AppPlaces {
    std::string data;       // journal, selection, folder set, backup disks
    std::string cache;      // digest cache
    QString settingsFile;   // an INI file for the settings; empty: the desktop's standard place
    std::string autostart;  // the folder of XDG autostart entries (~/.config/autostart)

    static AppPlaces standard();
};

// Set by the Cancel buttons, read by the engine's cancellation predicate on any thread. A new flag
// is made for each scan and each reclaim, so cancelling one never reaches the next.
class CancelFlag {
public:
    void set();
    bool cancelled() const;

private:
    mutable std::mutex lock_;
    bool cancelled_ = false;
};

// Lets through one progress report every tenth of a second, from any number of worker threads.
class LastUpdate {
public:
    bool due();

private:
    std::mutex lock_;
    std::chrono::steady_clock::time_point last_{};
    bool any_ = false;
};

// A marked backup disk as the Automatic screen shows it.
struct BackupDiskState {
    std::string volume;                     // the volume identifier that was marked
    std::optional<std::string> mountPoint;  // where it is mounted now; absent when not connected
    bool canClone = false;                  // its file system can share blocks
    bool watched = false;                   // a reclaimer runs over it now
    bool operator==(const BackupDiskState&) const = default;
};

// What a reclaim of the current selection would do: the confirmation's figures.
struct PlannedReclaim {
    int64_t copies = 0;
    int64_t groups = 0;
    int64_t bytes = 0;
    bool operator==(const PlannedReclaim&) const = default;
};

// A replaced file's state now, as Verify found it.
using JournalFinding = std::pair<JournalEntry, Journal::Finding>;

class AppModel : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool moveReplacedToTrash READ moveReplacedToTrash WRITE setMoveReplacedToTrash NOTIFY
                   moveReplacedToTrashChanged)
    Q_PROPERTY(bool restoreFolderDates READ restoreFolderDates WRITE setRestoreFolderDates NOTIFY
                   restoreFolderDatesChanged)
    Q_PROPERTY(bool coordinate READ coordinate WRITE setCoordinate NOTIFY coordinateChanged)
    Q_PROPERTY(bool notify READ notify WRITE setNotify NOTIFY notifyChanged)
    Q_PROPERTY(bool automatic READ automatic WRITE setAutomatic NOTIFY automaticChanged)
    Q_PROPERTY(bool anytime READ anytime WRITE setAnytime NOTIFY anytimeChanged)
    Q_PROPERTY(bool startsAtLogin READ startsAtLogin WRITE setStartsAtLogin NOTIFY startsAtLoginChanged)
    Q_PROPERTY(QStringList sources READ sourceList NOTIFY sourcesChanged)
    Q_PROPERTY(Phase phase READ phase NOTIFY phaseChanged)
    Q_PROPERTY(bool hasResult READ hasResult NOTIFY resultChanged)
    Q_PROPERTY(bool hasSummary READ hasSummary NOTIFY summaryChanged)
    Q_PROPERTY(qint64 reclaimableBytes READ reclaimableBytes NOTIFY reclaimableBytesChanged)
    Q_PROPERTY(QString error READ error WRITE setError NOTIFY errorChanged)
    Q_PROPERTY(bool fileBusy READ fileBusy NOTIFY fileBusyChanged)
    Q_PROPERTY(QString lastAutomatic READ lastAutomatic NOTIFY lastAutomaticChanged)
    Q_PROPERTY(QString automaticHolder READ automaticHolder NOTIFY automaticStateChanged)
    Q_PROPERTY(QString automaticWaitingFor READ automaticWaitingFor NOTIFY automaticStateChanged)

public:
    enum class Phase { scanning, reclaiming, idle };
    Q_ENUM(Phase)

    // How long a changed folder must stay quiet before the automatic reclaimer takes it, and how
    // often the backup-disk watcher looks for disks.
    static constexpr double automaticQuietPeriod = 120.0;
    static constexpr double backupPollInterval = 30.0;

    // The journal could not be opened: the application must not run without it.
    struct StartError : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    // Runs the start-up in order: backup disks, journal (throws StartError), options and the other
    // settings, selection, folders, recovery of interrupted replacements, automatic mode.
    explicit AppModel(AppPlaces places = AppPlaces::standard(), QObject* parent = nullptr);
    ~AppModel() override;

    const AppPlaces& places() const { return places_; }

    // Settings. Each is saved when it changes; "automatic" and "anytime" rebuild the unattended
    // machinery.
    const ScanOptions& options() const { return options_; }
    void setOptions(const ScanOptions& options);
    bool moveReplacedToTrash() const { return moveReplacedToTrash_; }
    void setMoveReplacedToTrash(bool on);
    bool restoreFolderDates() const { return restoreFolderDates_; }
    void setRestoreFolderDates(bool on);
    bool coordinate() const { return coordinate_; }
    void setCoordinate(bool on);
    bool notify() const { return notify_; }
    void setNotify(bool on);
    bool automatic() const { return automatic_; }
    void setAutomatic(bool on);
    bool anytime() const { return anytime_; }
    void setAnytime(bool on);
    // Whether the XDG autostart entry exists; setting writes or removes it.
    bool startsAtLogin() const;
    void setStartsAtLogin(bool on);

    // Folders, in the order added. Paths are the file system's bytes; sourceList() spells them as
    // shown, with each byte of a name that is not UTF-8 written "\xNN".
    const std::vector<std::string>& sources() const { return sources_; }
    QStringList sourceList() const;
    static QString sourceText(const std::string& path);
    // Folders as the desktop names them (open dialogs): a name Qt could not decode exactly is found
    // on disk by the name shown; one that could stand for several folders is refused with `error`.
    Q_INVOKABLE void add(const QStringList& folders);
    // Folders by their bytes (dropped URLs carry them exactly).
    void addPaths(const std::vector<std::string>& folders);
    // By the text shown in the list or the desktop's spelling; removePath by the bytes.
    Q_INVOKABLE void remove(const QString& folder);
    void removePath(const std::string& folder);
    // The bytes of the folder the desktop names `folder`, or why it cannot be told.
    static std::variant<std::string, QString> folderFromText(const QString& folder);
    // Applies a ready-made profile's options and adds the folders it suggests.
    void choose(Profile::Kind kind);

    // The work and its state.
    Phase phase() const { return phase_; }
    // The latest progress of the running scan or reclaim; meaningful while `phase` says so.
    const ScanProgress& scanProgress() const { return scanProgress_; }
    const ReclaimProgress& reclaimProgress() const { return reclaimProgress_; }
    // Nothing starts unless the phase is idle (and, for a scan, there are folders; for a reclaim,
    // a result).
    Q_INVOKABLE void scan();
    Q_INVOKABLE void reclaim();
    Q_INVOKABLE void cancelCurrent();
    // The main-thread half of a scan's progress report: dropped when no scan runs any more.
    void acceptScanProgress(const ScanProgress& progress);

    bool hasResult() const { return result_ != nullptr; }
    // The last scan's result, shared and never changed in place once handed out: views and
    // background work read it without a copy. A change of the kept copy replaces the value.
    std::shared_ptr<const ScanResult> result() const { return result_; }
    // How long the last scan took, in seconds; absent for a scan loaded from a file.
    std::optional<double> scanSeconds() const { return scanSeconds_; }
    bool hasSummary() const { return summary_.has_value(); }
    const std::optional<ReclaimSummary>& summary() const { return summary_; }
    const std::optional<SpaceHolders>& spaceHolders() const { return spaceHolders_; }
    qint64 reclaimableBytes() const;
    PlannedReclaim planned() const;

    // What the user leaves out; saved on every change.
    const Selection& selection() const { return selection_; }
    void setSelection(Selection selection);
    // After the saved selection could not be read: begin with nothing left out (the unreadable file
    // is kept beside). Any other change of the selection does the same.
    Q_INVOKABLE void startSelectionAfresh();
    bool selectionUnreadable() const { return selectionUnreadable_; }
    Q_INVOKABLE void exclude(const QString& path);
    Q_INVOKABLE void include(const QString& path);
    // Makes another copy of a group the one that is kept (the group's first file).
    void keepCopy(size_t group, size_t file);
    // Many groups at once (the selection helpers): pairs of group and file index.
    void keepCopies(const std::vector<std::pair<size_t, size_t>>& choices);

    // Opening a saved scan and saving the scan or the CSV table run in the background: a million
    // files take seconds to parse or write. The outcome comes by scanLoaded() or exported(), with
    // the reason in a user's words on failure (also set as `error`). One such task at a time, and
    // none while a scan or reclaim runs: a refused request is answered at once, and a failed open
    // leaves the current result as it was.
    Q_INVOKABLE void exportCsv(const QString& file);
    Q_INVOKABLE void exportScan(const QString& file);
    Q_INVOKABLE void loadScan(const QString& file);
    bool fileBusy() const { return fileBusy_; }

    // The journal, as last loaded (oldest first).
    const std::vector<JournalEntry>& journalEntries() const { return journalEntries_; }
    Q_INVOKABLE void reloadJournal();
    // Verify and recover run in the background; their results come by journalVerified() and
    // journalRecovered().
    Q_INVOKABLE void verifyJournal();
    Q_INVOKABLE void recoverJournal();
    bool journalBusy() const { return journalBusy_; }
    const std::vector<JournalFinding>& journalFindings() const { return journalFindings_; }

    // What deleting a folder frees, measured in the background; the answer comes by
    // trueSizeMeasured() or trueSizeFailed(). A new request supersedes the one under way.
    Q_INVOKABLE void measureTrueSize(const QString& folder);
    Q_INVOKABLE void cancelTrueSize();
    bool trueSizeBusy() const { return trueSizeBusy_; }
    const std::optional<FolderSize>& trueSize() const { return trueSize_; }
    TrueSize::Sharing trueSizeSharing() const { return trueSizeSharing_; }

    // Automatic mode as the Automatic screen shows it.
    bool automaticRunning() const;
    // A run switched off still finishes the replacement under way, off the main thread; a new run
    // starts (and the journal is put right) only once it has stopped.
    bool automaticStopping() const { return stopping_ > 0; }
    // The process that does the automatic work for this user instead of us; empty when none does.
    QString automaticHolder() const { return automaticHolder_; }
    // The chosen folders automatic mode leaves unwatched because their disk cannot make clones.
    QStringList automaticUnwatched() const { return automaticUnwatched_; }
    // Why the automatic reclaimer waits now ("on battery", "user active", ...); empty when it may
    // work or does not run.
    QString automaticWaitingFor() const { return automaticWaitingFor_; }
    QString lastAutomatic() const { return lastAutomatic_; }
    const BackupDisks& backupDisks() const { return backupDisks_; }
    std::vector<BackupDiskState> backupDiskStates() const;
    // Marks or unmarks the disk holding `path`; a disk that is not connected is unmarked by its
    // identifier (BackupDiskState::volume) in place of a path.
    void setBackupDisk(const QString& path, bool on);

    // A file's metadata now, for the comparison of two copies; absent with `failure` set (in words
    // a user reads) when it cannot be read. Reads the disk on the calling thread: two files at a time.
    std::optional<Snapshot> fileDetails(const std::string& path, QString* failure = nullptr) const;

    QString error() const { return error_; }
    void setError(const QString& message);
    Q_INVOKABLE void clearError() { setError({}); }

    // Background work still running, for an orderly exit: the process waits for a reclaim to finish
    // its replacement under way rather than cut it.
    static int runningTasks();
    static void waitForTasks();

signals:
    void optionsChanged();
    void moveReplacedToTrashChanged();
    void restoreFolderDatesChanged();
    void coordinateChanged();
    void notifyChanged();
    void automaticChanged();
    void anytimeChanged();
    void startsAtLoginChanged();
    void sourcesChanged();
    void phaseChanged();
    void progressChanged();
    void resultChanged();
    // The kept copy of one group changed (-1: of many groups).
    void keptCopyChanged(int group);
    void summaryChanged();
    void spaceHoldersChanged();
    void selectionChanged();
    void reclaimableBytesChanged();
    void errorChanged();
    void lastAutomaticChanged();
    void automaticStateChanged();
    void backupDisksChanged();
    void journalChanged();
    void journalBusyChanged();
    void fileBusyChanged();
    // `message` is empty on success, the reason otherwise.
    void scanLoaded(bool ok, const QString& message);
    void exported(bool ok, const QString& message);
    void journalVerified();
    void journalRecovered(int count);
    void trueSizeBusyChanged();
    void trueSizeProgress(const QString& folder, qint64 files);
    void trueSizeMeasured(const QString& folder);
    void trueSizeFailed(const QString& folder, const QString& message);
    // An automatic pass replaced files; `text` is what lastAutomatic now says.
    void automaticReclaimed(const QString& text);

private:
    // What background work holds instead of the model: cleared when the model goes, so a late
    // result finds nobody to give it to and is dropped.
    struct Weak {
        AppModel* value = nullptr;
    };

    std::string file(const std::string& name) const;
    QString autostartFile() const;
    void setSwitch(bool& field, bool on, const char* key, void (AppModel::*changed)());
    void loadSettings();
    void loadSelection();
    void loadSources();
    void saveSources();
    void saveSelection();
    void setPhase(Phase phase);
    struct AutomaticRun;
    struct AutomaticRecipe;
    void applyAutomatic();
    void startAutomatic(const std::shared_ptr<AutomaticRun>& run);
    void stopAutomatic();
    void automaticStopped();
    void refreshWaitingFor();
    void onAutomaticReclaim(const ReclaimSummary& summary);
    void finishScan(std::shared_ptr<ScanResult> result, const QString& failure);
    ScanResult* editableResult();
    void dropResult();
    void acceptReclaimProgress(const ReclaimProgress& progress);
    void finishReclaim(ReclaimSummary summary, std::optional<SpaceHolders> holders);
    void setJournalBusy(bool busy);
    void setFileBusy(bool busy);
    // Why a file task cannot start now; empty when it can.
    QString fileRefusal() const;
    void writeInBackground(const QString& file, std::function<std::string(const ScanResult&)> text, const QString& what);
    // The number of replacements put right, or who does automatic reclaiming now (and so may have
    // replacements under way): then nothing is touched.
    static std::variant<size_t, std::string> recoverInterrupted(Journal& journal, const std::string& dataDirectory);
    CloneEngine engine() const;

    AppPlaces places_;
    std::shared_ptr<Weak> weak_;
    std::unique_ptr<QSettings> settings_;
    std::shared_ptr<Journal> journal_;

    ScanOptions options_;
    bool moveReplacedToTrash_ = false;
    bool restoreFolderDates_ = true;
    bool coordinate_ = false;
    bool notify_ = true;
    bool automatic_ = false;
    bool anytime_ = false;

    std::vector<std::string> sources_;
    Selection selection_;
    // selection.json could not be read: it stays as it is, and nothing is reclaimed, until the user
    // chooses afresh.
    bool selectionUnreadable_ = false;

    Phase phase_ = Phase::idle;
    ScanProgress scanProgress_;
    ReclaimProgress reclaimProgress_;
    std::shared_ptr<CancelFlag> cancel_;
    // Set while a reclaim by hand runs: the automatic reclaimers start no pass meanwhile.
    std::shared_ptr<std::atomic<bool>> reclaimingByHand_ = std::make_shared<std::atomic<bool>>(false);

    // Changed in place only while nothing else holds it (see editableResult).
    std::shared_ptr<ScanResult> result_;
    std::chrono::steady_clock::time_point scanStarted_;
    std::optional<double> scanSeconds_;
    std::optional<ReclaimSummary> summary_;
    std::optional<SpaceHolders> spaceHolders_;
    QString error_;

    std::vector<JournalEntry> journalEntries_;
    std::vector<JournalFinding> journalFindings_;
    bool journalBusy_ = false;
    bool fileBusy_ = false;

    std::optional<FolderSize> trueSize_;
    TrueSize::Sharing trueSizeSharing_ = TrueSize::Sharing::unknown;
    bool trueSizeBusy_ = false;
    std::shared_ptr<CancelFlag> trueSizeCancel_;

    BackupDisks backupDisks_;
    // The running automatic mode (reclaimer, watcher and the per-user lock); absent when off or
    // when another process does the work.
    std::shared_ptr<AutomaticRun> run_;
    int stopping_ = 0;
    bool startWhenStopped_ = false;
    bool recoverWhenStopped_ = false;
    QTimer* waitingTimer_ = nullptr;
    QString automaticWaitingFor_;
    QString automaticHolder_;
    QStringList automaticUnwatched_;
    QString lastAutomatic_;

    // ---- Across disks (app_model_across.cc): identical files and folder trees on different
    // disks, and moving one copy to the Trash of its disk. Independent of the scan's phase.
public:
    // Searches `roots` on a background thread, at most one search or move at a time; the answer
    // comes by acrossResultChanged(), a failure through `error`. Paths are the file system's bytes.
    void searchAcross(const std::vector<std::string>& roots, bool folders);
    Q_INVOKABLE void cancelAcross();
    bool acrossBusy() const { return acrossBusy_; }
    const ScanProgress& acrossProgress() const { return acrossProgress_; }
    const std::optional<AcrossResult>& acrossResult() const { return acrossResult_; }
    // Moves `copy` to its disk's Trash once it and `kept` have been checked again, in the
    // background; the outcome comes by acrossMoved(). A copy that went leaves the result.
    void moveAcrossToTrash(const std::string& copy, const std::string& kept);
    const std::optional<TrashOutcome>& trashOutcome() const { return trashOutcome_; }
    // The outcome in the user's words.
    static QString describe(const TrashOutcome& outcome, const std::string& copy);
    // The Trash `path` would go to, to name it before the move; "" when `path` is gone.
    static std::string trashFolderFor(const std::string& path) { return TrashMover::trashFolderFor(path); }
    // Takes `path`, and everything inside it, out of a result: what is left of each group.
    static void removeFromAcross(AcrossResult& result, const std::string& path);
signals:
    void acrossBusyChanged();
    void acrossProgressChanged();
    void acrossResultChanged();
    void acrossMoved(const QString& text, bool moved);

private:
    void finishAcross(AcrossResult result, const QString& failure);
    void finishTrashMove(const std::string& copy, const TrashOutcome& outcome);
    void setAcrossBusy(bool busy);
    bool acrossBusy_ = false;
    ScanProgress acrossProgress_;
    std::optional<AcrossResult> acrossResult_;
    std::optional<TrashOutcome> trashOutcome_;
    std::shared_ptr<CancelFlag> acrossCancel_;
};

}  // namespace dedup::app
