// The actions other programs run on one folder: their sentences, the saved selection honoured, the
// session-bus interface of the running copy, the --action entry point of the folder menus, and the
// notification that shows the answer. Run on a private session bus (dbus-run-session).
#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusReply>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <nlohmann/json.hpp>

#include "app_model.h"
#include "automation_actions.h"
#include "automation_client.h"
#include "automation_service.h"
#include "byte_format.h"
#include "journal.h"
#include "reclaim_plan.h"
#include "support/loop_volume.h"
#include "support/test_files.h"

using namespace dedup;
using namespace dedup::app;

namespace {

ino_t inodeOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return 0;
    return st.st_ino;
}

QString answerOf(AutomationAction action, const std::optional<std::string>& folder, const ActionPlaces& places) {
    try {
        return QString::fromStdString(runAction(action, folder, places).sentence);
    } catch (const ActionError& error) {
        return QStringLiteral("error: ") + QString::fromUtf8(error.what());
    }
}

// Stands in for the desktop's notification server on the test's own bus.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList shown;
public slots:
    uint Notify(const QString&, uint, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap&, int) {
        shown += summary + QStringLiteral(": ") + body;
        return uint(shown.size());
    }
};

}  // namespace

class AutomationTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { AppModel::waitForTasks(); }

    void findAndTrueSizeAnswerWithTheirSentences() {
        test::TempDir dir;
        const ActionPlaces places{dir.path("data"), dir.path("cache")};
        test::writeRandomFile(dir.path("photos/a.jpg"), 300000, 1);
        test::writeFile(dir.path("photos/album/a copy.jpg"), test::readFile(dir.path("photos/a.jpg")));
        test::writeRandomFile(dir.path("photos/b.jpg"), 150000, 2);
        test::writeFile(dir.path("photos/b again.jpg"), test::readFile(dir.path("photos/b.jpg")));
        test::writeFile(dir.path("photos/b third.jpg"), test::readFile(dir.path("photos/b.jpg")));
        test::writeRandomFile(dir.path("photos/small.txt"), 1000, 3);  // below the recommended minimum
        test::writeFile(dir.path("photos/small copy.txt"), test::readFile(dir.path("photos/small.txt")));

        QCOMPARE(answerOf(AutomationAction::find, dir.path("photos"), places),
                 QString("600.0 kB can be reclaimed in 2 groups."));
        auto json = runAction(AutomationAction::find, dir.path("photos/"), places).json;
        QCOMPARE(json["reclaimableBytes"].get<int64_t>(), 600000);
        QCOMPARE(json["groups"].get<int>(), 2);
        QCOMPARE(json["folder"].get<std::string>(), dir.path("photos"));
        QCOMPARE(json["action"].get<std::string>(), std::string("find"));

        // Nothing shares blocks here, so deleting frees every block the files take.
        int64_t allocated = 0;
        for (const char* name : {"a.jpg", "album/a copy.jpg", "b.jpg", "b again.jpg", "b third.jpg", "small.txt",
                                 "small copy.txt"}) {
            allocated += test::allocatedOf(dir.path("photos/") + name);
        }
        QCOMPARE(answerOf(AutomationAction::trueSize, dir.path("photos"), places),
                 QString::fromStdString("Deleting it frees " + formatBytes(allocated) +
                                        "; the file manager says 1.1 MB."));
        json = runAction(AutomationAction::trueSize, dir.path("photos"), places).json;
        QCOMPARE(json["logical"].get<int64_t>(), 1052000);
        QCOMPARE(json["freedIfDeleted"].get<int64_t>(), allocated);

        // A folder without duplicates.
        QCOMPARE(answerOf(AutomationAction::find, dir.path("photos/album"), places),
                 QString("0 bytes can be reclaimed in 0 groups."));
    }

    void everyActionRefusesWhatIsNotAFolderAndChangesNothing() {
        test::TempDir dir;
        const ActionPlaces places{dir.path("data"), dir.path("cache")};
        test::writeFile(dir.path("file.txt"), "x");
        for (auto action : {AutomationAction::find, AutomationAction::reclaim, AutomationAction::trueSize}) {
            QCOMPARE(answerOf(action, std::nullopt, places), QString("error: Choose a folder."));
            QCOMPARE(answerOf(action, std::string(), places), QString("error: Choose a folder."));
            QCOMPARE(answerOf(action, dir.path("gone"), places),
                     QString::fromStdString("error: There is no folder " + dir.path("gone") + "."));
            QVERIFY(answerOf(action, dir.path("file.txt"), places).contains("is not a folder"));
        }
        // Refused before the journal was even opened.
        QVERIFY(!QFile::exists(QString::fromStdString(dir.path("data/journal.jsonl"))));

        // The application closing stops an action: no figure too small is given as the answer.
        test::writeRandomFile(dir.path("docs/a.pdf"), 120000, 4);
        test::writeFile(dir.path("docs/b.pdf"), test::readFile(dir.path("docs/a.pdf")));
        for (auto action : {AutomationAction::find, AutomationAction::reclaim, AutomationAction::trueSize}) {
            try {
                runAction(action, dir.path("docs"), places, [] { return true; });
                QFAIL("a stopped action answered");
            } catch (const ActionError& error) {
                QVERIFY(QString(error.what()).contains("closed before the answer was ready"));
            }
        }
    }

    void reclaimHonoursTheSavedSelectionAndIsJournalled() {
        const auto kind = test::LoopVolume::Kind::xfs;
        if (auto why = test::LoopVolume::unavailableReason(kind); !why.empty()) QSKIP(why.c_str());
        auto volume = test::LoopVolume::create(kind);
        test::TempDir dir;
        const ActionPlaces places{dir.path("data"), dir.path("cache")};
        const std::string folder = volume->path("photos");
        test::writeRandomFile(folder + "/kept.jpg", 200000, 7);
        for (const char* copy : {"/copy 1.jpg", "/keep apart/copy 2.jpg"}) {
            test::writeFile(folder + copy, test::readFile(folder + "/kept.jpg"));
        }
        // The user kept one folder apart in the window; the file menu's reclaim must not touch it.
        Selection selection;
        selection.excluded.insert(folder + "/keep apart");
        std::filesystem::create_directories(places.data);
        selection.save(places.data + "/selection.json");
        const ino_t apart = inodeOf(folder + "/keep apart/copy 2.jpg");

        QCOMPARE(answerOf(AutomationAction::reclaim, folder, places),
                 QString("200.0 kB reclaimed; 1 files are clones now."));
        QCOMPARE(test::readFile(folder + "/copy 1.jpg"), test::readFile(folder + "/kept.jpg"));
        QCOMPARE(inodeOf(folder + "/keep apart/copy 2.jpg"), apart);
        QStringList journalled;
        for (const auto& entry : Journal(places.data + "/journal.jsonl").entries()) {
            if (entry.event == JournalEntry::Event::replaced) journalled += QString::fromStdString(entry.target);
        }
        // Which of the two is kept is the finder's choice; the one left apart is never replaced.
        QCOMPARE(journalled.size(), 1);
        QVERIFY(journalled.front() == QString::fromStdString(folder + "/copy 1.jpg") ||
                journalled.front() == QString::fromStdString(folder + "/kept.jpg"));
        // The copy left apart is all that is left to find; a second reclaim replaces nothing.
        QCOMPARE(answerOf(AutomationAction::find, folder, places), QString("200.0 kB can be reclaimed in 1 groups."));
        QCOMPARE(answerOf(AutomationAction::reclaim, folder, places),
                 QString("0 bytes reclaimed; 0 files are clones now."));

        // A saved selection that cannot be read may hold copies kept apart: nothing is replaced.
        test::writeFile(places.data + "/selection.json", "{ not json");
        selection.excluded.clear();
        const QString refused = answerOf(AutomationAction::reclaim, folder, places);
        QVERIFY2(refused.startsWith("error: Nothing was reclaimed"), qPrintable(refused));
        QCOMPARE(inodeOf(folder + "/keep apart/copy 2.jpg"), apart);
        QCOMPARE(test::readFile(places.data + "/selection.json"), std::string("{ not json"));
    }

    void runningCopyAnswersOverTheSessionBusOffItsMainThread() {
        auto owner = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "owner");
        auto caller = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "caller");
        if (!owner.isConnected()) QSKIP("no session bus: run under dbus-run-session");
        test::TempDir dir;
        test::writeRandomFile(dir.path("docs/a.pdf"), 120000, 4);
        test::writeFile(dir.path("docs/b.pdf"), test::readFile(dir.path("docs/a.pdf")));
        {
            AutomationService service({dir.path("data"), dir.path("cache")});
            QVERIFY(service.exportOn(owner));
            QVERIFY(owner.registerService("org.velmora.dedup"));
            QDBusInterface automation("org.velmora.dedup", "/org/velmora/dedup/Automation",
                                      "org.velmora.dedup.Automation", caller);
            QVERIFY(automation.isValid());
            const QString docs = QString::fromStdString(dir.path("docs"));

            QDBusReply<QString> found = automation.call(QDBus::BlockWithGui, "FindIdenticalFiles", docs);
            QVERIFY2(found.isValid(), qPrintable(found.error().message()));
            QCOMPARE(found.value(), QString("120.0 kB can be reclaimed in 1 groups."));

            QDBusReply<QString> asJson = automation.call(QDBus::BlockWithGui, "FindIdenticalFilesJson", docs);
            QVERIFY(asJson.isValid());
            auto json = nlohmann::json::parse(asJson.value().toStdString());
            QCOMPARE(json["groups"].get<int>(), 1);
            QCOMPARE(json["sentence"].get<std::string>(), std::string("120.0 kB can be reclaimed in 1 groups."));

            QDBusReply<QString> measured = automation.call(QDBus::BlockWithGui, "WhatDeletingFrees", docs);
            QVERIFY(measured.isValid());
            QVERIFY(measured.value().endsWith("; the file manager says 240.0 kB."));
            QDBusReply<QString> measuredJson = automation.call(QDBus::BlockWithGui, "WhatDeletingFreesJson", docs);
            QCOMPARE(nlohmann::json::parse(measuredJson.value().toStdString())["logical"].get<int64_t>(), 240000);

            // The temporary folder here cannot share blocks: every copy is left alone, and journalled.
            QDBusReply<QString> reclaimed = automation.call(QDBus::BlockWithGui, "ReclaimIdenticalFiles", docs);
            QVERIFY(reclaimed.isValid());
            QCOMPARE(reclaimed.value(), QString("0 bytes reclaimed; 0 files are clones now."));
            QDBusReply<QString> reclaimedJson =
                automation.call(QDBus::BlockWithGui, "ReclaimIdenticalFilesJson", docs);
            QCOMPARE(nlohmann::json::parse(reclaimedJson.value().toStdString())["replaced"].get<int>(), 0);
            QVERIFY(!Journal(dir.path("data/journal.jsonl")).entries().empty());

            // Refusals are D-Bus errors with the sentence, and the copy keeps answering after them.
            QDBusReply<QString> missing =
                automation.call(QDBus::BlockWithGui, "FindIdenticalFiles", QString::fromStdString(dir.path("gone")));
            QVERIFY(!missing.isValid());
            QCOMPARE(missing.error().name(), QString("org.velmora.dedup.Automation.Failed"));
            QVERIFY(missing.error().message().contains(QString::fromStdString(dir.path("gone"))));
            QDBusReply<QString> none = automation.call(QDBus::BlockWithGui, "ReclaimIdenticalFiles", QString());
            QCOMPARE(none.error().name(), QString("org.velmora.dedup.Automation.NoFolder"));
            QCOMPARE(none.error().message(), QString("Choose a folder."));

            // The menus' entry point reaches the same copy and gets the same answers.
            auto asked = askRunningCopy(caller, AutomationAction::find, docs, false);
            QVERIFY(asked && asked->ok);
            QCOMPARE(asked->text, QString("120.0 kB can be reclaimed in 1 groups."));
            asked = askRunningCopy(caller, AutomationAction::trueSize, QString::fromStdString(dir.path("gone")), false);
            QVERIFY(asked && !asked->ok);
            owner.unregisterService("org.velmora.dedup");
        }
        // No copy runs: the entry point is told so, and runs the action itself.
        QVERIFY(!askRunningCopy(caller, AutomationAction::find, QString::fromStdString(dir.path("docs")), false));
        QDBusConnection::disconnectFromBus("owner");
        QDBusConnection::disconnectFromBus("caller");
    }

    void actionEntryPointAsksTheRunningCopyElseRunsItselfAndNotifies() {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected()) QSKIP("no session bus: run under dbus-run-session");
        test::TempDir dir;
        test::writeRandomFile(dir.path("docs/a.pdf"), 120000, 4);
        test::writeFile(dir.path("docs/b.pdf"), test::readFile(dir.path("docs/a.pdf")));
        FakeNotifications notifications;
        QVERIFY(bus.registerObject("/org/freedesktop/Notifications", &notifications, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService("org.freedesktop.Notifications"));

        auto run = [&](const QStringList& arguments, QString* err = nullptr) {
            QProcess process;
            auto environment = QProcessEnvironment::systemEnvironment();
            environment.insert("DEDUP_DATA_DIR", QString::fromStdString(dir.path("own data")));
            process.setProcessEnvironment(environment);
            process.start(QStringLiteral(VELMORA_DEDUP_BINARY), arguments);
            // The copy in this process must keep answering while the command waits on it.
            QSignalSpy finished(&process, &QProcess::finished);
            if (!finished.wait(120000)) process.kill();
            if (err) *err = QString::fromUtf8(process.readAllStandardError()).trimmed();
            return std::make_pair(process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()).trimmed());
        };
        const QString docs = QString::fromStdString(dir.path("docs"));

        // No copy runs: the command answers itself, prints, and shows the answer.
        auto [code, out] = run({"--action", "find", docs});
        QCOMPARE(code, 0);
        QCOMPARE(out, QString("120.0 kB can be reclaimed in 1 groups."));
        QCOMPARE(notifications.shown.size(), 1);
        QCOMPARE(notifications.shown.back(), QString("Find Identical Files: 120.0 kB can be reclaimed in 1 groups."));
        QString err;
        std::tie(code, out) = run({"--action", "true-size"}, &err);
        QCOMPARE(code, 1);
        QCOMPARE(err, QString("Choose a folder."));
        QCOMPARE(notifications.shown.back(), QString("What Deleting a Folder Frees: Choose a folder."));
        std::tie(code, out) = run({"--action", "delete", docs});
        QCOMPARE(code, 2);

        // A copy runs: the reclaim is done by it, in its journal, not in the command's own data folder.
        {
            AutomationService service({dir.path("app data"), dir.path("app cache")});
            QVERIFY(service.exportOn(bus));
            QVERIFY(bus.registerService("org.velmora.dedup"));
            std::tie(code, out) = run({"--action", "reclaim", "--json", docs});
            QCOMPARE(code, 0);
            QCOMPARE(nlohmann::json::parse(out.toStdString())["sentence"].get<std::string>(),
                     std::string("0 bytes reclaimed; 0 files are clones now."));
            QVERIFY(QFile::exists(QString::fromStdString(dir.path("app data/journal.jsonl"))));
            QVERIFY(!QFile::exists(QString::fromStdString(dir.path("own data/journal.jsonl"))));
            QCOMPARE(notifications.shown.size(), 2);  // --json is for programs: no notification
            bus.unregisterService("org.velmora.dedup");
        }
        bus.unregisterService("org.freedesktop.Notifications");
        bus.unregisterObject("/org/freedesktop/Notifications");
        QVERIFY(!notifyDesktop(bus, "Find Identical Files", "nobody shows this"));
    }
};

QTEST_GUILESS_MAIN(AutomationTest)
#include "automation_test.moc"
