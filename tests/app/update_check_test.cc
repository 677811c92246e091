// The daily look for a newer release, against a feed served on this machine's loopback: what is
// announced, what is recorded, what is never fetched, and the window's bar, switch and About box.
#include <map>

#include <QCheckBox>
#include <QCoreApplication>
#include <QDialog>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include "app_model.h"
#include "main_window.h"
#include "settings_view.h"
#include "support/test_files.h"
#include "update_bar.h"
#include "update_check.h"

using namespace dedup::app;
namespace test = dedup::test;

namespace {

// A small HTTP server on 127.0.0.1: each path answers with its status, headers and body, or not at
// all ("silent"). Counts the requests per path.
class FeedServer : public QObject {
public:
    struct Answer {
        Answer(int status = 200, QByteArray body = {}, QByteArray location = {}, bool silent = false)
            : status(status), body(std::move(body)), location(std::move(location)), silent(silent) {}
        int status;
        QByteArray body;
        QByteArray location;  // for a redirect
        bool silent;
    };

    FeedServer() {
        QObject::connect(&server_, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket* socket = server_.nextPendingConnection()) {
                socket->setParent(this);
                QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] { answer(socket); });
            }
        });
        server_.listen(QHostAddress::LocalHost);
    }

    QString url(const QString& path) const {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(server_.serverPort()).arg(path);
    }
    std::map<QByteArray, Answer> routes;
    std::map<QByteArray, int> requests;

private:
    void answer(QTcpSocket* socket) {
        QByteArray& request = pending_[socket];
        request += socket->readAll();
        if (!request.contains("\r\n\r\n")) return;
        const QByteArray path = request.split(' ').value(1);
        ++requests[path];
        auto found = routes.find(path);
        if (found == routes.end()) {
            socket->write("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
            socket->disconnectFromHost();
            return;
        }
        const Answer& a = found->second;
        if (a.silent) return;
        QByteArray head = "HTTP/1.1 " + QByteArray::number(a.status) + " X\r\nContent-Type: application/json\r\n";
        if (!a.location.isEmpty()) head += "Location: " + a.location + "\r\n";
        head += "Content-Length: " + QByteArray::number(a.body.size()) + "\r\nConnection: close\r\n\r\n";
        socket->write(head + a.body);
        socket->disconnectFromHost();
    }

    QTcpServer server_;
    std::map<QTcpSocket*, QByteArray> pending_;
};

QByteArray feed(const char* version, const char* notes = nullptr) {
    QByteArray body = QByteArray("{\"version\": \"") + version + "\", \"download\": \"https://velmora.example/get\"";
    if (notes) body += QByteArray(", \"notes\": \"") + notes + "\"";
    return body + ", \"size\": 12}";
}

// Runs one check to its end.
void checkOnce(UpdateCheck& check) {
    QSignalSpy finished(&check, &UpdateCheck::checkFinished);
    check.check();
    QVERIFY(finished.count() == 1 || finished.wait(60000));
}

}  // namespace

class UpdateCheckTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareNumberByNumber() {
        QVERIFY(compareVersions("1.10", "1.9") > 0);
        QVERIFY(compareVersions("1.9", "1.10") < 0);
        QCOMPARE(compareVersions("1.2", "1.2.0"), 0);
        QCOMPARE(compareVersions("1.2.0.0", "1.2"), 0);
        QVERIFY(compareVersions("1.2.1", "1.2") > 0);
        QVERIFY(compareVersions("2", "1.99.99") > 0);
        QCOMPARE(compareVersions("01.002", "1.2"), 0);
        QVERIFY(compareVersions("1.100000000000000000000001", "1.99999999999999999999999") > 0);
        QVERIFY(compareVersions("0.1.0", "0") > 0);
    }

    void feedDocumentsDecodeOnlyWithVersionAndADownloadAddress() {
        auto release = decodeRelease(feed("1.4", "Faster scans"));
        QVERIFY(release);
        QCOMPARE(release->version, QString("1.4"));
        QCOMPARE(release->download, QUrl("https://velmora.example/get"));
        QCOMPARE(release->notes, QString("Faster scans"));
        QVERIFY(decodeRelease(feed("1.4")));  // notes are optional
        QVERIFY(!decodeRelease("{\"version\": \"1.4\"}"));
        QVERIFY(!decodeRelease("{\"download\": \"https://velmora.example/get\"}"));
        QVERIFY(!decodeRelease("{\"version\": 2, \"download\": \"https://velmora.example/get\"}"));
        QVERIFY(!decodeRelease("{\"version\": \"1.4\", \"download\": \"not an address\"}"));
        QVERIFY(!decodeRelease("{\"version\": \"1.4\", \"download\": \"javascript:alert(1)\"}"));
        QVERIFY(!decodeRelease("{\"version\": \"1.4\", \"download\": \"file:///etc/passwd\"}"));
        QVERIFY(!decodeRelease("{\"version\": \"1.4\", \"download\": \"https://velmora.example/get\""));
        QVERIFY(!decodeRelease("[{\"version\": \"1.4\", \"download\": \"https://velmora.example/get\"}]"));
    }

    void onlyHttpsOrThisMachineIsEverAsked() {
        QVERIFY(feedAddressAllowed(QUrl("https://updates.velmora.example/dedup/update.json")));
        QVERIFY(feedAddressAllowed(QUrl("http://127.0.0.1:8080/update.json")));
        QVERIFY(feedAddressAllowed(QUrl("http://localhost/update.json")));
        QVERIFY(feedAddressAllowed(QUrl("http://[::1]/update.json")));
        QVERIFY(!feedAddressAllowed(QUrl("http://updates.velmora.example/update.json")));
        QVERIFY(!feedAddressAllowed(QUrl("http://192.168.1.1/update.json")));
        QVERIFY(!feedAddressAllowed(QUrl("ftp://127.0.0.1/update.json")));
        QVERIFY(!feedAddressAllowed(QUrl("update.json")));
    }

    void newerReleaseIsAnnouncedOnceAndTheDayIsRecorded() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        server.routes["/update.json"] = {200, feed("1.10", "Faster scans")};
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/update.json"));
        UpdateCheck check(settings);
        check.setRunningVersion("1.9");
        QSignalSpy announced(&check, &UpdateCheck::availableChanged);

        // Nothing is fetched before the user says yes.
        checkOnce(check);
        QCOMPARE(server.requests["/update.json"], 0);
        check.setConsent(true);
        checkOnce(check);
        QCOMPARE(server.requests["/update.json"], 1);
        QVERIFY(check.available());
        QCOMPARE(check.available()->version, QString("1.10"));
        QCOMPARE(announced.count(), 1);
        QVERIFY(QSettings(settings, QSettings::IniFormat).value("updateChecked").toDateTime().isValid());

        // Within the day nothing is fetched, however often the window opens, and in a new process too.
        checkOnce(check);
        UpdateCheck restarted(settings);
        restarted.setRunningVersion("1.9");
        checkOnce(restarted);
        QCOMPARE(server.requests["/update.json"], 1);

        // A day later: the same release again is no news.
        QSettings(settings, QSettings::IniFormat)
            .setValue("updateChecked", QDateTime::currentDateTimeUtc().addSecs(-UpdateCheck::interval - 60));
        checkOnce(check);
        QCOMPARE(server.requests["/update.json"], 2);
        QCOMPARE(announced.count(), 1);

        // Switched off in Settings: never fetched again.
        QSettings(settings, QSettings::IniFormat).remove("updateChecked");
        check.setConsent(false);
        checkOnce(check);
        QCOMPARE(server.requests["/update.json"], 2);
    }

    void sameOrOlderReleaseIsNotAnnounced() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/update.json"));
        QSettings(settings, QSettings::IniFormat).setValue("updateCheck", true);
        for (const char* version : {"1.9", "1.9.0", "1.8.12", "0.9"}) {
            server.routes["/update.json"] = {200, feed(version)};
            QSettings(settings, QSettings::IniFormat).remove("updateChecked");
            UpdateCheck check(settings);
            check.setRunningVersion("1.9");
            checkOnce(check);
            QVERIFY2(!check.available(), version);
            // A check that worked counts as the day's check all the same.
            QVERIFY(QSettings(settings, QSettings::IniFormat).value("updateChecked").toDateTime().isValid());
        }
        QCOMPARE(server.requests["/update.json"], 4);

        // Without a version of its own, any release is newer.
        server.routes["/update.json"] = {200, feed("0.0.1")};
        QSettings(settings, QSettings::IniFormat).remove("updateChecked");
        QCoreApplication::setApplicationVersion(QString());
        UpdateCheck unversioned(settings);
        checkOnce(unversioned);
        QVERIFY(unversioned.available());
    }

    void failedChecksAreSilentAndNotRecorded() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        server.routes["/malformed.json"] = {200, "{\"version\": \"9.0\", "};
        server.routes["/no-download.json"] = {200, "{\"version\": \"9.0\", \"notes\": \"x\"}"};
        server.routes["/error.json"] = {500, feed("9.0")};
        server.routes["/silent.json"] = {200, {}, {}, true};
        server.routes["/huge.json"] = {200, feed("9.0", QByteArray(200 * 1024, 'x').constData())};
        QSettings(settings, QSettings::IniFormat).setValue("updateCheck", true);
        for (const char* path :
             {"/malformed.json", "/no-download.json", "/error.json", "/silent.json", "/huge.json", "/missing.json"}) {
            QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url(path));
            UpdateCheck check(settings);
            check.setRunningVersion("1.0");
            check.setTimeout(500);
            QSignalSpy announced(&check, &UpdateCheck::availableChanged);
            checkOnce(check);
            QVERIFY2(!check.available(), path);
            QCOMPARE(announced.count(), 0);
            QVERIFY2(!QSettings(settings, QSettings::IniFormat).contains("updateChecked"), path);
            // Not recorded, so the next check asks again.
            checkOnce(check);
            QCOMPARE(server.requests[path], 2);
        }
    }

    void redirectIsFollowedOnlyWhereTheFeedCouldBe() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        server.routes["/update.json"] = {301, {}, server.url("/moved.json").toUtf8()};
        server.routes["/moved.json"] = {200, feed("2.0")};
        // 0.0.0.0 reaches this machine too, yet is no loopback address: a redirect there would be
        // followed only by a check that lets plain http go anywhere.
        server.routes["/away.json"] = {302, {}, server.url("/moved.json").replace("127.0.0.1", "0.0.0.0").toUtf8()};
        QSettings(settings, QSettings::IniFormat).setValue("updateCheck", true);
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/update.json"));
        {
            UpdateCheck check(settings);
            check.setRunningVersion("1.0");
            checkOnce(check);
            QVERIFY(check.available());
            QCOMPARE(check.available()->version, QString("2.0"));
        }
        // Plain http to anything but the loopback is not followed.
        QSettings(settings, QSettings::IniFormat).remove("updateChecked");
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/away.json"));
        UpdateCheck check(settings);
        check.setRunningVersion("1.0");
        checkOnce(check);
        QVERIFY(!check.available());
        QVERIFY(!QSettings(settings, QSettings::IniFormat).contains("updateChecked"));
        QCOMPARE(server.requests["/moved.json"], 1);
    }

    void windowAsksFirstThenAnnouncesWithALinkAndTheAboutBoxShowsTheVersion() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        server.routes["/update.json"] = {200, feed("7.1", "<b>Safer</b> reclaiming")};
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/update.json"));
        QCoreApplication::setApplicationVersion("7.0.2");
        AppModel model({dir.path("data"), dir.path("cache"), settings, dir.path("autostart")});
        MainWindow window(model);
        window.show();
        UpdateBar* bar = window.updateBar();
        QVERIFY(bar);
        QVERIFY(bar->isVisible());
        QVERIFY(bar->text().contains("127.0.0.1"));
        QCOMPARE(server.requests["/update.json"], 0);

        QSignalSpy finished(window.updateCheck(), &UpdateCheck::checkFinished);
        QTest::mouseClick(bar->findChild<QPushButton*>("allowUpdateCheck"), Qt::LeftButton);
        QVERIFY(finished.count() == 1 || finished.wait(60000));
        QCOMPARE(server.requests["/update.json"], 1);
        QVERIFY(bar->isVisible());
        QVERIFY(bar->text().contains("VELMORA.dedup 7.1 is out (you have 7.0.2)"));
        QVERIFY(bar->text().contains("href=\"https://velmora.example/get\""));
        // The feed's text is shown as text, never as markup.
        QVERIFY(bar->text().contains("&lt;b&gt;Safer&lt;/b&gt; reclaiming"));
        QTest::mouseClick(bar->findChild<QPushButton*>("dismissUpdate"), Qt::LeftButton);
        QVERIFY(!bar->isVisible());

        // The Settings switch shows and changes the same choice.
        auto* toggle = window.settingsWindow()->findChild<QCheckBox*>("updateCheck");
        QVERIFY(toggle);
        QVERIFY(toggle->isChecked());
        toggle->click();
        QCOMPARE(window.updateCheck()->consent(), UpdateCheck::Consent::refused);

        QVERIFY(MainWindow::aboutText().contains("Version 7.0.2"));
        QVERIFY(MainWindow::aboutText().contains("https://velmora.example/dedup"));
        AppModel::waitForTasks();
    }

    void refusingAtFirstStartNeverFetches() {
        test::TempDir dir;
        const QString settings = QString::fromStdString(dir.path("settings.ini"));
        FeedServer server;
        server.routes["/update.json"] = {200, feed("7.1")};
        QSettings(settings, QSettings::IniFormat).setValue("updateFeed", server.url("/update.json"));
        {
            AppModel model({dir.path("data"), dir.path("cache"), settings, dir.path("autostart")});
            MainWindow window(model);
            window.show();
            QTest::mouseClick(window.updateBar()->findChild<QPushButton*>("refuseUpdateCheck"), Qt::LeftButton);
            QVERIFY(!window.updateBar()->isVisible());
            AppModel::waitForTasks();
        }
        // The next start neither asks again nor fetches.
        AppModel model({dir.path("data"), dir.path("cache"), settings, dir.path("autostart")});
        MainWindow window(model);
        window.show();
        QVERIFY(!window.updateBar()->isVisible());
        checkOnce(*window.updateCheck());
        QCOMPARE(server.requests["/update.json"], 0);
        AppModel::waitForTasks();
    }
};

QTEST_MAIN(UpdateCheckTest)
#include "update_check_test.moc"
