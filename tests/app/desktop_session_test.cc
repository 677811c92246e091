// One copy of the application per session, and a window whose closing leaves automatic
// reclaiming running. Run on a private session bus (dbus-run-session) and the offscreen platform.
#include <QDBusConnection>
#include <QSignalSpy>
#include <QTest>
#include <QWidget>

#include "app_model.h"
#include "desktop_session.h"
#include "support/test_files.h"

using dedup::app::AppModel;
using dedup::app::BackgroundMode;
using dedup::app::SingleInstance;
namespace test = dedup::test;

class DesktopSessionTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { AppModel::waitForTasks(); }

    void secondLaunchRaisesTheFirstAndRunsNoSecondCopy() {
        // Each copy on a connection of its own, as two processes would be.
        auto first = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "first");
        auto second = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "second");
        if (!first.isConnected()) QSKIP("no session bus: run under dbus-run-session");
        {
            SingleInstance running(first);
            QSignalSpy raised(&running, &SingleInstance::raiseRequested);
            QCOMPARE(running.claim(), SingleInstance::Claim::first);

            SingleInstance launched(second);
            QCOMPARE(launched.claim(), SingleInstance::Claim::another);
            QCOMPARE(raised.count(), 1);
        }
        // Once the first copy has ended, the next launch is the session's copy.
        SingleInstance next(second);
        QCOMPARE(next.claim(), SingleInstance::Claim::first);
        QDBusConnection::disconnectFromBus("first");
    }

    void closingTheWindowKeepsAutomaticReclaimingRunning() {
        test::TempDir dir;
        test::writeFile(dir.path("files/a.bin"), "a");
        AppModel model({dir.path("data"), dir.path("cache"), QString::fromStdString(dir.path("settings.ini")),
                        dir.path("autostart")});
        QWidget window;
        BackgroundMode life(model, window);
        QSignalSpy quit(&life, &BackgroundMode::quitRequested);

        // Nothing runs unattended: closing ends the application, and a start at login ends at once.
        QVERIFY(!life.startHidden());
        window.show();
        window.close();
        QCOMPARE(quit.count(), 1);

        model.add({QString::fromStdString(dir.path("files"))});
        model.setAutomatic(true);
        QVERIFY(model.automaticRunning());
        life.showWindow();
        QVERIFY(window.isVisible());
        QVERIFY(!window.close());  // refused: the window hides, the process stays
        QVERIFY(!window.isVisible());
        QVERIFY(life.inBackground());
        QCOMPARE(quit.count(), 1);

        // A second launch brings the window back.
        life.showWindow();
        QVERIFY(window.isVisible());
        QVERIFY(!life.inBackground());

        // Hidden with automatic mode switched off (from another window, a settings change): nothing
        // is left to do, so the process ends.
        window.close();
        model.setAutomatic(false);
        QTRY_COMPARE_WITH_TIMEOUT(quit.count(), 2, 60000);  // once the run has stopped, and only once
        QTest::qWait(50);
        QCOMPARE(quit.count(), 2);
    }
};

QTEST_MAIN(DesktopSessionTest)
#include "desktop_session_test.moc"
