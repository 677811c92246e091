// The application's model driven as the windows drive it, headless. Every model lives in a
// temporary folder of its own: data, cache, settings and autostart entries.
#include <filesystem>
#include <fstream>
#include <memory>
#include <variant>
#include <atomic>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

#include <nlohmann/json.hpp>

#include "app_model.h"
#include "auto_lock.h"
#include "journal.h"
#include "platform/trash.h"
#include "trash_mover.h"
#include "saved_selection.h"
#include "support/loop_volume.h"
#include "support/test_files.h"

using dedup::app::AppModel;
using dedup::app::AppPlaces;
namespace fs = std::filesystem;
namespace test = dedup::test;

namespace {

constexpr int workTimeout = 120000;  // only bounds a hang; nothing here is about speed

AppPlaces placesIn(const test::TempDir& dir) {
    return AppPlaces{dir.path("data"), dir.path("cache"), QString::fromStdString(dir.path("settings.ini")),
                     dir.path("autostart")};
}

// Three identical files and one that differs, above the recommended minimum size.
void writeCopies(const std::string& folder, uint64_t seed) {
    const std::string bytes = test::randomBytes(300000, seed);
    test::writeFile(folder + "/a.bin", bytes);
    test::writeFile(folder + "/b.bin", bytes);
    test::writeFile(folder + "/keep/c.bin", bytes);
    test::writeFile(folder + "/sub/d.bin", bytes);
    test::writeRandomFile(folder + "/other.bin", 300000, seed + 1);
}

// A replacement cut short by a crash, as the journal knows it: the copy was swapped away and only
// its temporary name is left. Answers the temporary's path.
std::string leaveInterruptedReplacement(const test::TempDir& dir, const std::string& target) {
    const std::string temporary = dir.path("folder/.photo.jpg.dedup-" + dedup::makeUUID());
    test::writeFile(temporary, "the user's photo");
    dedup::Journal journal(dir.path("data/journal.jsonl"));
    auto started = dedup::JournalEntry::make(dedup::JournalEntry::Event::started, target);
    started.temporary = temporary;
    journal.append(started);
    return temporary;
}

bool waitUntilIdle(AppModel& model) {
    return QTest::qWaitFor([&] { return model.phase() == AppModel::Phase::idle; }, workTimeout);
}

// Stands in for the desktop's notification server on the test's private session bus.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList bodies;

public slots:
    Q_SCRIPTABLE uint Notify(const QString&, uint, const QString&, const QString&, const QString& body,
                             const QStringList&, const QVariantMap&, int) {
        bodies << body;
        return uint(bodies.size());
    }
};

}  // namespace

class AppModelTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { AppModel::waitForTasks(); }

    void freshInstallDefaultsAndSettingsKeptAcrossRuns() {
        test::TempDir dir;
        {
            AppModel model(placesIn(dir));
            QVERIFY(model.restoreFolderDates());
            QVERIFY(model.notify());
            QVERIFY(!model.moveReplacedToTrash());
            QVERIFY(!model.coordinate());
            QVERIFY(!model.automatic());
            QVERIFY(!model.anytime());
            QVERIFY(model.options() == dedup::ScanOptions::recommended());
            QVERIFY(model.sources().empty());
            QCOMPARE(model.phase(), AppModel::Phase::idle);
            QVERIFY(model.error().isEmpty());

            // The same options again are no change: nothing is written.
            QSignalSpy optionsChanged(&model, &AppModel::optionsChanged);
            model.setOptions(dedup::ScanOptions::recommended());
            QCOMPARE(optionsChanged.count(), 0);
            QVERIFY(!QSettings(placesIn(dir).settingsFile, QSettings::IniFormat).contains("options"));

            dedup::ScanOptions options = model.options();
            options.minimumSize = 4096;
            options.allowedExtensions = std::set<std::string>{"jpg"};
            model.setOptions(options);
            QCOMPARE(optionsChanged.count(), 1);
            model.setRestoreFolderDates(false);
            model.setNotify(false);
            model.setMoveReplacedToTrash(true);
            model.add({QString::fromStdString(dir.path("photos")), QString::fromStdString(dir.path("music/"))});
            model.add({QString::fromStdString(dir.path("photos"))});
            QCOMPARE(model.sources().size(), size_t{2});
        }
        AppModel again(placesIn(dir));
        QVERIFY(!again.restoreFolderDates());
        QVERIFY(!again.notify());
        QVERIFY(again.moveReplacedToTrash());
        QCOMPARE(again.options().minimumSize, int64_t{4096});
        QVERIFY(again.options().allowedExtensions == std::set<std::string>{"jpg"});
        QCOMPARE(again.sourceList(),
                 QStringList({QString::fromStdString(dir.path("photos")), QString::fromStdString(dir.path("music"))}));
    }

    void unreadableSettingsFallBackAndUnreadableFoldersAreKept() {
        test::TempDir dir;
        {
            QSettings settings(placesIn(dir).settingsFile, QSettings::IniFormat);
            settings.setValue("options", "{not json");
        }
        test::writeFile(dir.path("data/sources.json"), "{\"name\": 3");
        AppModel model(placesIn(dir));
        QVERIFY(model.options() == dedup::ScanOptions::recommended());
        QVERIFY(model.sources().empty());
        // The folder set the user saved is not written over by the next save.
        model.add({QString::fromStdString(dir.path("new"))});
        QCOMPARE(QString::fromStdString(test::readFile(dir.path("data/sources.json.unreadable"))),
                 QString("{\"name\": 3"));
        QVERIFY(!model.error().isEmpty());
    }

    void unopenableJournalStopsStartUp() {
        test::TempDir dir;
        fs::create_directories(dir.path("data/journal.jsonl"));  // a folder where the file should be
        QVERIFY_THROWS_EXCEPTION(AppModel::StartError, AppModel{placesIn(dir)});
    }

    void startUpRecoversInterruptedReplacementsBeforeAutomaticModeStarts() {
        test::TempDir dir;
        const std::string target = dir.path("folder/photo.jpg");
        const std::string temporary = leaveInterruptedReplacement(dir, target);
        {
            QSettings settings(placesIn(dir).settingsFile, QSettings::IniFormat);
            settings.setValue("automatic", true);
        }
        dedup::SourceSet::make("sources", {dir.path("folder")}, dedup::ScanOptions::recommended())
            .save(dir.path("data/sources.json"));

        AppModel model(placesIn(dir));
        QCOMPARE(QString::fromStdString(test::readFile(target)), QString("the user's photo"));
        QVERIFY(!fs::exists(temporary));
        QVERIFY(dedup::Journal(dir.path("data/journal.jsonl")).interrupted().empty());
        // Automatic mode found the saved folders and setting, so it ran after both were read.
        QVERIFY(model.automatic());
        QVERIFY(model.automaticRunning());
        QVERIFY(model.automaticHolder().isEmpty());
    }

    void replacementsUnderWayInAnotherReclaimerAreNotTakenForInterrupted() {
        test::TempDir dir;
        const std::string target = dir.path("folder/photo.jpg");
        const std::string temporary = leaveInterruptedReplacement(dir, target);
        // "dedup auto" runs and may be in the middle of this very replacement.
        auto other = dedup::AutoLock::acquire(dir.path("data"), "dedup auto");
        QVERIFY(std::holds_alternative<dedup::AutoLock>(other));
        AppModel model(placesIn(dir));
        QVERIFY(fs::exists(temporary));
        QVERIFY(!fs::exists(target));

        QSignalSpy recovered(&model, &AppModel::journalRecovered);
        model.recoverJournal();
        QVERIFY(QTest::qWaitFor([&] { return !model.journalBusy(); }, workTimeout));
        QCOMPARE(recovered.count(), 0);
        QVERIFY(model.error().contains("dedup auto"));
        QVERIFY(fs::exists(temporary));

        // Once it has stopped, Recover puts the file back.
        other = dedup::AutoLock::Holder{};
        model.recoverJournal();
        QVERIFY(recovered.wait(workTimeout));
        QCOMPARE(recovered.takeFirst().at(0).toInt(), 1);
        QCOMPARE(QString::fromStdString(test::readFile(target)), QString("the user's photo"));
    }

    void phaseMachineStartsNothingOutOfTurnAndDropsLateProgress() {
        test::TempDir dir;
        AppModel model(placesIn(dir));
        QSignalSpy phases(&model, &AppModel::phaseChanged);

        model.scan();  // no folders
        model.reclaim();  // no result
        QCOMPARE(phases.count(), 0);
        QCOMPARE(model.phase(), AppModel::Phase::idle);

        writeCopies(dir.path("files"), 1);
        model.add({QString::fromStdString(dir.path("files"))});
        model.scan();
        QCOMPARE(model.phase(), AppModel::Phase::scanning);
        QVERIFY(!model.hasResult());
        model.scan();
        model.reclaim();
        QCOMPARE(phases.count(), 1);
        QVERIFY(waitUntilIdle(model));
        QVERIFY(model.hasResult());
        QCOMPARE(model.result()->groups.size(), size_t{1});
        QCOMPARE(model.result()->groups[0].files.size(), size_t{4});
        QCOMPARE(model.reclaimableBytes(), qint64{900000});

        // A report that was on its way when the scan ended.
        QSignalSpy progress(&model, &AppModel::progressChanged);
        dedup::ScanProgress late;
        late.filesSeen = 3;
        model.acceptScanProgress(late);
        QCOMPARE(model.phase(), AppModel::Phase::idle);
        QCOMPARE(progress.count(), 0);

        // Kept copy and leaving out change what a reclaim would free, and nothing else.
        const auto& files = model.result()->groups[0].files;
        const std::string kept = dir.path("files/keep/c.bin");
        for (size_t i = 1; i < files.size(); ++i) {
            if (files[i].path == kept) model.keepCopy(0, i);
        }
        QCOMPARE(model.result()->groups[0].files[0].path, kept);
        model.exclude(QString::fromStdString(dir.path("files/sub")));
        QCOMPARE(model.reclaimableBytes(), qint64{600000});
        QCOMPARE(model.planned().copies, int64_t{2});
        QCOMPARE(model.planned().groups, int64_t{1});

        // A model closed while its scan runs: the scan's answer finds nobody and is dropped.
        auto closing = std::make_unique<AppModel>(placesIn(dir));
        closing->scan();
        closing.reset();
        AppModel::waitForTasks();
        QCoreApplication::processEvents();
    }

    void unreadableSelectionIsNeverWrittenOverNorReclaimedWithout() {
        test::TempDir dir;
        writeCopies(dir.path("files"), 2);
        const std::string saved = dir.path("data/selection.json");
        // Nothing saved yet: an automatic pass leaves nothing out.
        QVERIFY(dedup::app::SavedSelection::readable(saved));
        QVERIFY(dedup::app::SavedSelection::forPass(saved).excluded.empty());
        test::writeFile(saved, "{\"excluded\": [\"/home/x/keep");
        // An automatic pass neither starts nor, should the file break under it, replaces anything.
        QVERIFY(!dedup::app::SavedSelection::readable(saved));
        QVERIFY(dedup::app::SavedSelection::forPass(saved).excludes(dir.path("files/a.bin")));
        AppModel model(placesIn(dir));
        QVERIFY(model.selectionUnreadable());
        QVERIFY(!model.error().isEmpty());
        model.add({QString::fromStdString(dir.path("files"))});
        model.scan();
        QVERIFY(waitUntilIdle(model));
        QVERIFY(model.hasResult());

        model.reclaim();
        QCOMPARE(model.phase(), AppModel::Phase::idle);
        QVERIFY(!model.hasSummary());
        QCOMPARE(QString::fromStdString(test::readFile(dir.path("data/selection.json"))),
                 QString("{\"excluded\": [\"/home/x/keep"));

        // Choosing afresh keeps the old file beside and saves the new choice.
        model.exclude(QString::fromStdString(dir.path("files/keep")));
        QVERIFY(!model.selectionUnreadable());
        QCOMPARE(QString::fromStdString(test::readFile(dir.path("data/selection.json.unreadable"))),
                 QString("{\"excluded\": [\"/home/x/keep"));
        QVERIFY(dedup::Selection::load(saved).excludes(dir.path("files/keep/c.bin")));
        QVERIFY(dedup::app::SavedSelection::forPass(saved) == model.selection());
    }

    // The application starts after a move to the Trash was killed once the copy was in the Trash:
    // the journal then says where the copy went, so it can be put back.
    void startUpFindsAMoveToTheTrashCutShort() {
        const std::string unavailable = test::LoopVolume::unavailableReason(test::LoopVolume::Kind::xfs);
        if (!unavailable.empty()) QSKIP(unavailable.c_str());
        auto volume = test::LoopVolume::create(test::LoopVolume::Kind::xfs);
        test::TempDir dir;
        const std::string copy = volume->path("film.mkv");
        test::writeRandomFile(copy, 50000, 9);
        std::string id;
        {
            dedup::Journal journal(dir.path("data/journal.jsonl"));
            auto started = dedup::JournalEntry::make(dedup::JournalEntry::Event::started, copy);
            started.detail = std::string(dedup::JournalEntry::trashMove);
            started.before = dedup::Snapshot::take(copy);
            started.owner = dedup::makeUUID();  // a process that is gone
            journal.append(started);
            id = started.id;
        }
        QVERIFY(dedup::platform::moveToTrashOfItsDisk(copy).moved);
        {
            AppModel model(placesIn(dir));
            model.reloadJournal();
            QTRY_VERIFY_WITH_TIMEOUT(!model.journalEntries().empty(), workTimeout);
            const auto& last = model.journalEntries().back();
            QCOMPARE(last.id, id);
            QCOMPARE(last.event, dedup::JournalEntry::Event::trashed);
            QVERIFY(last.detail && std::filesystem::exists(*last.detail));
        }
        AppModel::waitForTasks();
        dedup::Journal journal(dir.path("data/journal.jsonl"));
        QVERIFY(dedup::TrashMover::restore(journal, copy).restored);
        QCOMPARE(test::readFile(copy), test::randomBytes(50000, 9));
    }

    void scanAndReclaimOfABtrfsVolumeHonourTheSelection() {
        const std::string unavailable = test::LoopVolume::unavailableReason(test::LoopVolume::Kind::btrfs);
        if (!unavailable.empty()) QSKIP(unavailable.c_str());
        auto volume = test::LoopVolume::create(test::LoopVolume::Kind::btrfs);
        test::TempDir dir;
        const std::string folder = volume->path("photos");
        writeCopies(folder, 3);
        const std::string original = test::readFile(folder + "/a.bin");
        {
            AppModel model(placesIn(dir));
            model.add({QString::fromStdString(folder)});
            model.exclude(QString::fromStdString(folder + "/keep"));
            QVERIFY(dedup::Selection::load(dir.path("data/selection.json")).excludes(folder + "/keep/c.bin"));
        }
        // The choice made in one run is honoured in the next.
        AppModel model(placesIn(dir));
        model.scan();
        QVERIFY(waitUntilIdle(model));
        QCOMPARE(model.planned().copies, int64_t{2});

        std::vector<AppModel::Phase> seen;
        connect(&model, &AppModel::phaseChanged, &model, [&] { seen.push_back(model.phase()); });
        model.reclaim();
        QCOMPARE(model.phase(), AppModel::Phase::reclaiming);
        // Reclaiming, then idle, then by itself a new scan, then idle with what is left.
        QVERIFY(QTest::qWaitFor([&] { return seen.size() >= 4 && model.phase() == AppModel::Phase::idle; },
                                workTimeout));
        QCOMPARE(seen, (std::vector<AppModel::Phase>{AppModel::Phase::reclaiming, AppModel::Phase::idle,
                                                      AppModel::Phase::scanning, AppModel::Phase::idle}));
        QVERIFY(model.hasSummary());
        QCOMPARE(model.summary()->replaced, int64_t{2});
        QVERIFY(model.spaceHolders().has_value());
        // Only the copy left out still has blocks of its own: taken back in, it alone would free any.
        QVERIFY(model.hasResult());
        QCOMPARE(model.reclaimableBytes(), qint64{0});
        model.include(QString::fromStdString(folder + "/keep"));
        QCOMPARE(model.reclaimableBytes(), qint64{300000});
        for (const char* name : {"/a.bin", "/b.bin", "/keep/c.bin", "/sub/d.bin"}) {
            QCOMPARE(test::readFile(folder + name), original);
        }
        QSignalSpy journalChanged(&model, &AppModel::journalChanged);
        model.reloadJournal();
        QVERIFY(journalChanged.wait(workTimeout));
        int replaced = 0;
        for (const auto& entry : model.journalEntries()) {
            QVERIFY(entry.target != folder + "/keep/c.bin");
            if (entry.event == dedup::JournalEntry::Event::replaced) ++replaced;
        }
        QCOMPARE(replaced, 2);

        // Automatic mode's first pass takes the duplicates already there but the copy left out
        // again, and says what it did.
        model.exclude(QString::fromStdString(folder + "/keep"));
        test::writeRandomFile(folder + "/new/x.bin", 300000, 30);
        test::writeFile(folder + "/new/y.bin", test::readFile(folder + "/new/x.bin"));
        QSignalSpy automaticReclaimed(&model, &AppModel::automaticReclaimed);
        FakeNotifications server;
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "notifications");
        const bool served = bus.registerObject("/org/freedesktop/Notifications", &server,
                                               QDBusConnection::ExportScriptableSlots) &&
                            bus.registerService("org.freedesktop.Notifications");
        model.setAnytime(true);
        model.setAutomatic(true);
        QVERIFY(automaticReclaimed.wait(workTimeout));
        QCOMPARE(model.lastAutomatic(), QString("1 files became clones; 300.0 kB reclaimed"));
        if (served) {
            QVERIFY(QTest::qWaitFor([&] { return !server.bodies.isEmpty(); }, workTimeout));
            QCOMPARE(server.bodies, QStringList{model.lastAutomatic()});
        }
        QDBusConnection::disconnectFromBus("notifications");
        QCOMPARE(test::readFile(folder + "/new/y.bin"), test::readFile(folder + "/new/x.bin"));

        // With no folders, a marked backup disk still has automatic mode run, over the disk alone.
        model.remove(QString::fromStdString(folder));
        QVERIFY(!model.automaticRunning());
        model.setBackupDisk(QString::fromStdString(folder), true);
        // It starts once the run over the folder has stopped and freed this user's lock.
        QTRY_VERIFY_WITH_TIMEOUT(model.automaticRunning(), workTimeout);
        auto disks = model.backupDiskStates();
        QCOMPARE(disks.size(), size_t{1});
        QCOMPARE(disks[0].mountPoint.value_or(""), volume->mountPoint());
        QVERIFY(disks[0].canClone);
        QVERIFY(disks[0].watched);
        model.setAutomatic(false);
        QVERIFY(!model.automaticRunning());
        QVERIFY(!model.backupDiskStates()[0].watched);
        // Unmarked by its identifier, as a disk that is not connected must be.
        model.setBackupDisk(QString::fromStdString(disks[0].volume), false);
        QVERIFY(model.backupDiskStates().empty());
    }

    void automaticModeStopsAtOnceAndYieldsToAnotherProcess() {
        test::TempDir dir;
        writeCopies(dir.path("files"), 4);
        AppModel model(placesIn(dir));
        QSignalSpy state(&model, &AppModel::automaticStateChanged);

        model.setAutomatic(true);  // no folders and no backup disks: nothing to run
        QVERIFY(!model.automaticRunning());
        model.add({QString::fromStdString(dir.path("files"))});
        QVERIFY(model.automaticRunning());
        // While it runs, this user's lock is taken.
        QVERIFY(std::holds_alternative<dedup::AutoLock::Holder>(dedup::AutoLock::acquire(dir.path("data"), "test")));

        model.setAutomatic(false);
        QVERIFY(!model.automaticRunning());
        // The run stops on a worker; its lock is free once it says so.
        QTRY_VERIFY_WITH_TIMEOUT(!model.automaticStopping(), workTimeout);
        auto other = dedup::AutoLock::acquire(dir.path("data"), "dedup auto");
        QVERIFY(std::holds_alternative<dedup::AutoLock>(other));

        // Another process holds it: the model says which and starts nothing.
        model.setAutomatic(true);
        QVERIFY(!model.automaticRunning());
        QVERIFY(model.automaticHolder().contains("dedup auto"));
        other = dedup::AutoLock::Holder{};
        model.setAnytime(true);  // any change of the settings tries again
        QVERIFY(model.automaticRunning());
        QVERIFY(model.automaticHolder().isEmpty());
        QVERIFY(state.count() >= 4);
    }

    void switchingAutomaticOffReturnsAtOnceWhileItsWorkerIsHeld() {
        const std::string unavailable = test::LoopVolume::unavailableReason(test::LoopVolume::Kind::btrfs);
        if (!unavailable.empty()) QSKIP(unavailable.c_str());
        auto volume = test::LoopVolume::create(test::LoopVolume::Kind::btrfs);
        test::TempDir dir;
        const std::string folder = volume->path("photos");
        writeCopies(folder, 5);
        AppModel model(placesIn(dir));
        model.add({QString::fromStdString(folder)});
        model.setAnytime(true);

        // The user's choices are a pipe that another program holds open without writing: the
        // automatic pass that reads them is held on its thread, as in a long replacement.
        const std::string choices = dir.path("data/selection.json");
        QVERIFY(::mkfifo(choices.c_str(), 0600) == 0);
        QSignalSpy state(&model, &AppModel::automaticStateChanged);
        model.setAutomatic(true);
        QVERIFY(model.automaticRunning());
        int writer = -1;
        // Opening the write end succeeds only once the pass waits at the read end.
        QVERIFY(QTest::qWaitFor([&] { return (writer = ::open(choices.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; },
                                workTimeout));

        // Should switching off wait for the held worker, this watchdog lets it go after a while,
        // and the test sees that it had to.
        std::atomic<bool> watchdogFired = false;
        std::atomic<bool> done = false;
        std::thread watchdog([&] {
            for (int i = 0; i < 600 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (!done) {
                watchdogFired = true;
                ::close(writer);
            }
        });
        state.clear();
        model.setAutomatic(false);
        const bool returnedByItself = !watchdogFired;
        done = true;
        watchdog.join();
        QVERIFY2(returnedByItself, "switching automatic mode off waited for the worker");
        QVERIFY(!model.automaticRunning());
        QVERIFY(model.automaticStopping());
        QVERIFY(state.count() >= 1);
        // While it stops, the lock is still this process's, and a reclaim by hand waits.
        QVERIFY(std::holds_alternative<dedup::AutoLock::Holder>(dedup::AutoLock::acquire(dir.path("data"), "test")));

        // The pass is let go: the run finishes, says so, and frees the lock.
        if (!watchdogFired) ::close(writer);
        QTRY_VERIFY_WITH_TIMEOUT(!model.automaticStopping(), workTimeout);
        QVERIFY(std::holds_alternative<dedup::AutoLock>(dedup::AutoLock::acquire(dir.path("data"), "test")));
        std::filesystem::remove(choices);
        AppModel::waitForTasks();
    }

    void startAtLoginIsAnAutostartEntryThatStartsHidden() {
        test::TempDir dir;
        AppModel model(placesIn(dir));
        QVERIFY(!model.startsAtLogin());
        model.setStartsAtLogin(true);
        QVERIFY(model.startsAtLogin());
        const std::string entry = test::readFile(dir.path("autostart/VELMORA.dedup.desktop"));
        QVERIFY(entry.find("[Desktop Entry]") == 0);
        QVERIFY(entry.find("--background") != std::string::npos);
        model.setStartsAtLogin(false);
        QVERIFY(!model.startsAtLogin());
        QVERIFY(!fs::exists(dir.path("autostart/VELMORA.dedup.desktop")));
    }
};

QTEST_GUILESS_MAIN(AppModelTest)
#include "app_model_test.moc"
