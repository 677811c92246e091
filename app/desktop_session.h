// How the application lives in a desktop session: one running copy per session, reached again by
// a second launch, and a window whose closing leaves automatic reclaiming running.
//
// SingleInstance owns the session-bus name "org.velmora.dedup"; a second launch finds it taken,
// asks the first copy to show its window ("Raise") and ends. BackgroundMode watches the main
// window: closing it while automatic reclaiming runs hides it instead, says so (a tray icon where
// the desktop has a tray, a notification otherwise), and Quit ends the process. Both live on the
// main thread.
#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QObject>
#include <QString>

class QSystemTrayIcon;
class QWidget;

namespace dedup::app {

class AppModel;

// The org.freedesktop.Notifications call that shows `body` under `title`.
QDBusMessage notificationCall(const QString& title, const QString& body);

// Posts a desktop notification through org.freedesktop.Notifications without waiting for an
// answer; false when there is no session bus. A missing notification server loses only the note.
bool postDesktopNotification(const QString& title, const QString& body);

// Ends the event loop on SIGTERM, SIGINT and SIGHUP (a logout, a shutdown, Ctrl+C) instead of
// dying on the spot, so a replacement under way is finished and the lock released in order.
void quitOnTerminationSignals();

class SingleInstance : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.velmora.dedup")
public:
    static constexpr const char* serviceName = "org.velmora.dedup";
    static constexpr const char* objectPath = "/org/velmora/dedup";

    enum class Claim {
        first,    // this process is the session's copy now
        another,  // another copy runs and was asked to show itself
        noBus,    // no session bus: run alone, as nothing can tell two copies apart
    };

    explicit SingleInstance(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);
    ~SingleInstance() override;

    Claim claim();

public slots:
    // Called over the bus by a second launch.
    Q_SCRIPTABLE void Raise();

signals:
    void raiseRequested();

private:
    QDBusConnection bus_;
    bool registered_ = false;
};

class BackgroundMode : public QObject {
    Q_OBJECT
public:
    BackgroundMode(AppModel& model, QWidget& window, QObject* parent = nullptr);

    // Whether the process should go on without its window: only while it does automatic work.
    bool keepsRunning() const;
    bool inBackground() const { return inBackground_; }

    // Shows, raises and activates the window (a second launch, the tray icon).
    void showWindow();
    // For a start at login: stays hidden, with the tray icon where there is a tray. False when there
    // is nothing to do in the background, so the process may end.
    bool startHidden();

signals:
    // The user asked to end the application, or closed the window with nothing left to do.
    void quitRequested();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void goToBackground(bool announce);
    void ensureTrayIcon();

    AppModel& model_;
    QWidget& window_;
    QSystemTrayIcon* tray_ = nullptr;
    bool inBackground_ = false;
};

}  // namespace dedup::app
