// Start-up, the settings, the folders and the selection: the state the user chose and how it is
// kept across runs.
#include "app_model.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>

#include <nlohmann/json.hpp>

#include "app_tasks.h"
#include "path_text.h"
#include "auto_reclaimer.h"
#include "backup_disks.h"
#include "clone_engine.h"
#include "report_export.h"
#include "saved_choices.h"

namespace dedup::app {

namespace fs = std::filesystem;

namespace {

std::string xdgConfigHome() {
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config && *config == '/') return config;
    return QDir::homePath().toStdString() + "/.config";
}

// Paths are bytes; Qt's file functions decode and encode them the same way, so a folder named in
// the system's encoding comes back as it was.
QString fromPath(const std::string& path) { return QFile::decodeName(QByteArray::fromStdString(path)); }
std::string toPath(const QString& path) { return QFile::encodeName(path).toStdString(); }

// A file that held the user's choices but cannot be read is moved out of the way under a name
// that says so, never overwritten: the user (or support) can still get it back.
std::string keepAside(const std::string& path) {
    std::string aside = path + ".unreadable";
    for (int n = 2; fs::exists(fs::symlink_status(aside)); ++n) aside = path + ".unreadable-" + std::to_string(n);
    std::error_code ignored;
    fs::rename(path, aside, ignored);
    return ignored ? std::string() : aside;
}

}  // namespace

AppPlaces AppPlaces::standard() {
    return AppPlaces{Locations::data(), Locations::cache(), {}, xdgConfigHome() + "/autostart"};
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

AppModel::AppModel(AppPlaces places, QObject* parent)
    : QObject(parent), places_(std::move(places)), weak_(std::make_shared<Weak>(Weak{this})) {
    if (places_.settingsFile.isEmpty()) {
        settings_ = std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, "VELMORA", "dedup");
    } else {
        settings_ = std::make_unique<QSettings>(places_.settingsFile, QSettings::IniFormat);
    }

    try {
        backupDisks_ = BackupDisks::load(file("backup-disks.json"));
    } catch (const SavedChoicesError& error) {
        // No disk is kept reclaimed, and the file is never saved over, until it can be read.
        setError(QString("Your backup disks (saved in %1) cannot be read: %2. No backup disk is kept reclaimed "
                         "until that file is repaired or removed.")
                     .arg(fromPath(error.file), QString::fromStdString(error.reason)));
    }

    // Nothing runs without the journal: a reclaim that cannot be written down cannot be put right
    // after a crash, and the user could not see what was done to their files.
    const std::string journalPath = file("journal.jsonl");
    try {
        journal_ = std::make_shared<Journal>(journalPath);
    } catch (const std::exception& error) {
        throw StartError("The journal " + journalPath + " cannot be opened: " + error.what());
    }
    QFile probe(fromPath(journalPath));
    if (!probe.open(QIODevice::ReadWrite | QIODevice::Append)) {
        throw StartError("The journal " + journalPath + " cannot be opened: " + probe.errorString().toStdString());
    }
    probe.close();

    loadSettings();
    loadSelection();
    loadSources();

    try {
        recoverInterrupted(*journal_, places_.data);
    } catch (const std::exception&) {
        // What could not be put right stays interrupted in the journal and is tried again next time.
    }

    applyAutomatic();
}

AppModel::~AppModel() {
    weak_->value = nullptr;
    if (cancel_) cancel_->set();
    if (trueSizeCancel_) trueSizeCancel_->set();
    stopAutomatic();
}

std::string AppModel::file(const std::string& name) const { return places_.data + "/" + name; }

void AppModel::loadSettings() {
    options_ = ScanOptions::recommended();
    const QVariant stored = settings_->value("options");
    if (stored.isValid()) {
        try {
            options_ = nlohmann::json::parse(stored.toString().toStdString()).get<ScanOptions>();
        } catch (const std::exception&) {
            options_ = ScanOptions::recommended();
        }
    }
    // A missing "folderDates" or "notify" means on; the other switches are off until turned on.
    auto onUnlessSaid = [&](const char* key) {
        const QVariant value = settings_->value(key);
        return value.isValid() ? value.toBool() : true;
    };
    moveReplacedToTrash_ = settings_->value("trash", false).toBool();
    restoreFolderDates_ = onUnlessSaid("folderDates");
    coordinate_ = settings_->value("coordinate", false).toBool();
    notify_ = onUnlessSaid("notify");
    automatic_ = settings_->value("automatic", false).toBool();
    anytime_ = settings_->value("anytime", false).toBool();
}

void AppModel::loadSelection() {
    const std::string path = file("selection.json");
    if (!fs::exists(fs::symlink_status(path))) return;
    try {
        selection_ = Selection::load(path);
    } catch (const std::exception& error) {
        // Left where it is: the automatic reclaimer reads the same file and must see that it holds
        // choices it cannot read. It is moved aside only when the user chooses afresh.
        selectionUnreadable_ = true;
        setError(QString("The files you left out of reclaiming (saved in %1) cannot be read: %2. Nothing is "
                         "reclaimed until you choose again which files to leave out.")
                     .arg(fromPath(path), QString::fromUtf8(error.what())));
    }
}

void AppModel::loadSources() {
    const std::string path = file("sources.json");
    if (!fs::exists(fs::symlink_status(path))) return;
    try {
        sources_ = SourceSet::load(path).resolve();
    } catch (const std::exception& error) {
        sources_.clear();
        const std::string aside = keepAside(path);
        setError(QString("Your saved folders could not be read (%1); the file was kept as %2.")
                     .arg(QString::fromUtf8(error.what()), fromPath(aside.empty() ? path : aside)));
    }
}

void AppModel::setOptions(const ScanOptions& options) {
    if (options == options_) return;
    options_ = options;
    settings_->setValue("options", QString::fromStdString(nlohmann::json(options_).dump()));
    emit optionsChanged();
    saveSources();
}

void AppModel::setSwitch(bool& field, bool on, const char* key, void (AppModel::*changed)()) {
    if (field == on) return;
    field = on;
    settings_->setValue(key, on);
    emit(this->*changed)();
}

void AppModel::setMoveReplacedToTrash(bool on) {
    setSwitch(moveReplacedToTrash_, on, "trash", &AppModel::moveReplacedToTrashChanged);
}
void AppModel::setRestoreFolderDates(bool on) {
    setSwitch(restoreFolderDates_, on, "folderDates", &AppModel::restoreFolderDatesChanged);
}
void AppModel::setCoordinate(bool on) { setSwitch(coordinate_, on, "coordinate", &AppModel::coordinateChanged); }
void AppModel::setNotify(bool on) { setSwitch(notify_, on, "notify", &AppModel::notifyChanged); }

void AppModel::setAutomatic(bool on) {
    if (automatic_ == on) return;
    setSwitch(automatic_, on, "automatic", &AppModel::automaticChanged);
    applyAutomatic();
}

void AppModel::setAnytime(bool on) {
    if (anytime_ == on) return;
    setSwitch(anytime_, on, "anytime", &AppModel::anytimeChanged);
    applyAutomatic();
}

QString AppModel::autostartFile() const { return fromPath(places_.autostart + "/VELMORA.dedup.desktop"); }

bool AppModel::startsAtLogin() const { return QFile::exists(autostartFile()); }

void AppModel::setStartsAtLogin(bool on) {
    if (on == startsAtLogin()) return;
    if (on) {
        QDir().mkpath(fromPath(places_.autostart));
        QSaveFile entry(autostartFile());
        QString program = QCoreApplication::applicationFilePath();
        program.replace('\\', "\\\\").replace('"', "\\\"");
        const QString text = QString("[Desktop Entry]\nType=Application\nName=VELMORA.dedup\n"
                                     "Comment=Keeps your folders reclaimed in the background\n"
                                     "Exec=\"%1\" --background\nIcon=org.velmora.dedup\nTerminal=false\n"
                                     "X-GNOME-Autostart-enabled=true\n")
                                 .arg(program);
        if (!entry.open(QIODevice::WriteOnly) || entry.write(text.toUtf8()) < 0 || !entry.commit()) {
            setError(QString("VELMORA.dedup cannot be set to start at login: %1").arg(entry.errorString()));
        }
    } else if (!QFile::remove(autostartFile())) {
        setError(QString("VELMORA.dedup cannot stop starting at login: %1 cannot be removed.").arg(autostartFile()));
    }
    emit startsAtLoginChanged();
}

QString AppModel::sourceText(const std::string& path) { return QString::fromStdString(pathText(path)); }

QStringList AppModel::sourceList() const {
    QStringList list;
    for (const auto& source : sources_) list << sourceText(source);
    return list;
}

std::variant<std::string, QString> AppModel::folderFromText(const QString& folder) {
    const QString absolute = QDir::cleanPath(QDir(folder).absolutePath());
    const std::string direct = toPath(absolute);
    std::error_code failed;
    if (fs::exists(fs::symlink_status(direct, failed))) return direct;
    // Qt reads each byte of a name that is not valid in the locale's encoding as U+FFFD, so such a
    // name from an open dialog cannot be encoded back. Each part that does not exist as written is
    // found among its folder's entries by the name the desktop showed.
    std::string resolved;
    for (const QString& part : absolute.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        const std::string parent = resolved.empty() ? std::string("/") : resolved;
        std::string next = resolved + "/" + toPath(part);
        if (!fs::exists(fs::symlink_status(next, failed))) {
            std::vector<std::string> matches;
            for (fs::directory_iterator it(parent, failed), end; !failed && it != end; it.increment(failed)) {
                const std::string name = it->path().filename().string();
                if (fromPath(name) == part) matches.push_back(name);
            }
            if (matches.size() > 1) {
                return tr("%1 could stand for %n folders whose names are not readable text; drag the one you mean "
                          "onto the window instead.",
                          "", static_cast<int>(matches.size()))
                    .arg(folder);
            }
            // Not there at all: taken as written, like any folder that is missing now.
            if (matches.empty()) return direct;
            next = resolved + "/" + matches.front();
        }
        resolved = std::move(next);
    }
    return resolved.empty() ? std::string("/") : resolved;
}

void AppModel::add(const QStringList& folders) {
    std::vector<std::string> paths;
    QStringList problems;
    for (const QString& folder : folders) {
        auto found = folderFromText(folder);
        if (auto* path = std::get_if<std::string>(&found)) {
            paths.push_back(std::move(*path));
        } else {
            problems << std::get<QString>(found);
        }
    }
    addPaths(paths);
    if (!problems.isEmpty()) setError(problems.join(QLatin1Char(' ')));
}

void AppModel::addPaths(const std::vector<std::string>& folders) {
    bool changed = false;
    for (const std::string& folder : folders) {
        if (folder.empty()) continue;
        // The engine works on absolute paths; a folder given relative or with a trailing slash is
        // the same folder the user meant. Done on the bytes, so no name is re-encoded on the way.
        std::string path = fs::path(folder).is_absolute() ? folder : (fs::current_path() / folder).string();
        path = fs::path(path).lexically_normal().string();
        while (path.size() > 1 && path.back() == '/') path.pop_back();
        if (std::find(sources_.begin(), sources_.end(), path) != sources_.end()) continue;
        sources_.push_back(std::move(path));
        changed = true;
    }
    if (!changed) return;
    emit sourcesChanged();
    saveSources();
}

void AppModel::remove(const QString& folder) {
    // Matched as shown (with a name that is not UTF-8 spelled byte by byte) or as the desktop spells it.
    const std::string text = folder.toStdString();
    if (std::erase_if(sources_, [&](const std::string& source) {
            return pathText(source) == text || fromPath(source) == folder;
        }) == 0) {
        return;
    }
    emit sourcesChanged();
    saveSources();
}

void AppModel::removePath(const std::string& folder) {
    if (std::erase(sources_, folder) == 0) return;
    emit sourcesChanged();
    saveSources();
}

void AppModel::choose(Profile::Kind kind) {
    Profile profile(kind, QDir::homePath().toStdString(), Profile::externalCloneVolumes());
    setOptions(profile.options);
    addPaths(profile.roots);
}

void AppModel::saveSources() {
    try {
        fs::create_directories(places_.data);
        SourceSet::make("sources", sources_, options_).save(file("sources.json"));
    } catch (const std::exception&) {
        // The folders stay chosen in this run; the next change tries to save them again.
    }
    if (automatic_) applyAutomatic();
}

void AppModel::setSelection(Selection selection) {
    if (selection == selection_ && !selectionUnreadable_) return;
    selection_ = std::move(selection);
    saveSelection();
    emit selectionChanged();
    emit reclaimableBytesChanged();
}

void AppModel::exclude(const QString& path) {
    Selection next = selection_;
    next.excluded.insert(toPath(path));
    setSelection(std::move(next));
}

void AppModel::include(const QString& path) {
    Selection next = selection_;
    next.excluded.erase(toPath(path));
    setSelection(std::move(next));
}

void AppModel::startSelectionAfresh() { setSelection(Selection{}); }

void AppModel::saveSelection() {
    const std::string path = file("selection.json");
    if (selectionUnreadable_) {
        // The user has now chosen afresh; the old choices are kept beside, not written over.
        const std::string aside = keepAside(path);
        if (aside.empty() && fs::exists(fs::symlink_status(path))) return;  // still unreadable, still there
        selectionUnreadable_ = false;
        setError({});
    }
    try {
        fs::create_directories(places_.data);
        selection_.save(path);
    } catch (const std::exception&) {
        // Kept in memory for this run; the next change tries again.
    }
}

qint64 AppModel::reclaimableBytes() const {
    if (!result_) return 0;
    return Report::reclaimableBytes(result_->groups, selection_);
}

PlannedReclaim AppModel::planned() const {
    PlannedReclaim plan;
    if (!result_) return plan;
    for (const auto& group : result_->groups) {
        auto targets = Report::targets({group}, selection_);
        if (targets.empty()) continue;
        ++plan.groups;
        plan.copies += static_cast<int64_t>(targets.size());
        for (const auto& target : targets) plan.bytes += target.frees;
    }
    return plan;
}

ScanResult* AppModel::editableResult() {
    if (!result_) return nullptr;
    // Whoever still holds the value handed out (a reclaim under way, a list being built) keeps
    // reading it unchanged; we go on with a copy of our own.
    if (result_.use_count() > 1) result_ = std::make_shared<ScanResult>(*result_);
    return result_.get();
}

void AppModel::dropResult() {
    // A million paths take tens of milliseconds to hand back: that happens on a worker.
    if (result_) tasks::run([old = std::move(result_)]() mutable { old.reset(); });
    result_ = nullptr;
}

void AppModel::keepCopy(size_t group, size_t file) {
    if (!result_ || group >= result_->groups.size() || file == 0 || file >= result_->groups[group].files.size()) return;
    auto& files = editableResult()->groups[group].files;
    if (file == 0 || file >= files.size()) return;
    std::rotate(files.begin(), files.begin() + static_cast<std::ptrdiff_t>(file),
                files.begin() + static_cast<std::ptrdiff_t>(file) + 1);
    emit keptCopyChanged(static_cast<int>(group));
    emit reclaimableBytesChanged();
}

void AppModel::keepCopies(const std::vector<std::pair<size_t, size_t>>& choices) {
    if (!result_) return;
    bool changed = false;
    ScanResult& result = *editableResult();
    for (auto [group, file] : choices) {
        if (group >= result.groups.size()) continue;
        auto& files = result.groups[group].files;
        if (file == 0 || file >= files.size()) continue;
        std::rotate(files.begin(), files.begin() + static_cast<std::ptrdiff_t>(file),
                    files.begin() + static_cast<std::ptrdiff_t>(file) + 1);
        changed = true;
    }
    if (!changed) return;
    emit keptCopyChanged(-1);
    emit reclaimableBytesChanged();
}

namespace {

// Runs on a worker: QSaveFile replaces the file only once every byte is written, so a failed save
// leaves what was there before.
bool writeText(const QString& file, const std::string& text, QString& failure) {
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(text.data(), static_cast<qint64>(text.size())) < 0 ||
        !out.commit()) {
        failure = out.errorString();
        const QFileInfo folder(QFileInfo(file).absolutePath());
        if (!folder.exists()) {
            failure = QString("the folder %1 does not exist").arg(folder.filePath());
        } else if (!folder.isDir()) {
            failure = QString("%1 is not a folder").arg(folder.filePath());
        }
        return false;
    }
    return true;
}

}  // namespace

void AppModel::setFileBusy(bool busy) {
    if (fileBusy_ == busy) return;
    fileBusy_ = busy;
    emit fileBusyChanged();
}

QString AppModel::fileRefusal() const {
    if (fileBusy_) return tr("Another file is being opened or saved. Try again when it is done.");
    if (phase_ != Phase::idle) return tr("Wait until the scan or reclaim has finished.");
    return {};
}

void AppModel::writeInBackground(const QString& file, std::function<std::string(const ScanResult&)> text,
                                 const QString& what) {
    QString refusal = fileRefusal();
    if (refusal.isEmpty() && !result_) refusal = tr("There is no scan to save yet.");
    if (!refusal.isEmpty()) {
        emit exported(false, refusal);
        return;
    }
    setFileBusy(true);
    // The worker reads the result as it is now (and the caller's text the selection as it is now);
    // later changes do not reach a file already being written.
    tasks::run([file, text = std::move(text), result = std::shared_ptr<const ScanResult>(result_), what, weak = weak_] {
        QString failure;
        try {
            writeText(file, text(*result), failure);
        } catch (const std::exception& error) {
            failure = QString::fromUtf8(error.what());
        }
        tasks::onMainThread([weak, file, failure, what] {
            AppModel* model = weak->value;
            if (!model) return;
            model->setFileBusy(false);
            if (failure.isEmpty()) {
                emit model->exported(true, {});
                return;
            }
            const QString message = what.arg(file, failure);
            model->setError(message);
            emit model->exported(false, message);
        });
    });
}

void AppModel::exportCsv(const QString& file) {
    writeInBackground(
        file, [selection = selection_](const ScanResult& result) { return Report::csv(result.groups, selection); },
        tr("The table could not be saved as %1: %2"));
}

void AppModel::exportScan(const QString& file) {
    writeInBackground(
        file, [](const ScanResult& result) { return Report::json(result); }, tr("The scan could not be saved as %1: %2"));
}

void AppModel::loadScan(const QString& file) {
    if (const QString refusal = fileRefusal(); !refusal.isEmpty()) {
        emit scanLoaded(false, refusal);
        return;
    }
    setFileBusy(true);
    tasks::run([file, weak = weak_] {
        std::shared_ptr<ScanResult> loaded;
        QString failure;
        QFile in(file);
        if (!in.open(QIODevice::ReadOnly)) {
            failure = QString("%1 cannot be opened: %2").arg(file, in.errorString());
        } else {
            const QByteArray bytes = in.readAll();
            try {
                loaded = std::make_shared<ScanResult>(
                    Report::load(std::string_view(bytes.constData(), static_cast<size_t>(bytes.size()))));
            } catch (const std::exception& error) {
                failure = QString("%1 is not a saved scan: %2").arg(file, QString::fromUtf8(error.what()));
            }
        }
        tasks::onMainThread([weak, loaded, failure]() mutable {
            AppModel* model = weak->value;
            if (!model) {
                // The last handle to a million paths goes here, still off the main thread's path.
                if (loaded) tasks::run([old = std::move(loaded)]() mutable { old.reset(); });
                return;
            }
            model->setFileBusy(false);
            if (!failure.isEmpty()) {
                // The result on screen stays: nothing the user had is given up for a bad file.
                model->setError(failure);
                emit model->scanLoaded(false, failure);
                return;
            }
            model->dropResult();
            model->result_ = std::move(loaded);
            model->scanSeconds_.reset();
            emit model->resultChanged();
            emit model->reclaimableBytesChanged();
            emit model->scanLoaded(true, {});
        });
    });
}

void AppModel::setError(const QString& message) {
    if (message == error_) return;
    error_ = message;
    emit errorChanged();
}

}  // namespace dedup::app
