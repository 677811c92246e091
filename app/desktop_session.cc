#include "desktop_session.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

#include <QAction>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <QCloseEvent>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QVariantMap>
#include <QWidget>

#include "app_model.h"

namespace dedup::app {

namespace {

int signalPipe[2] = {-1, -1};

void onTerminationSignal(int) {
    const char byte = 1;
    // Nothing else is safe in a signal handler; the event loop reads the byte.
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

}  // namespace

void quitOnTerminationSignals() {
    if (signalPipe[0] >= 0) return;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, signalPipe) != 0) return;
    auto* notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, [] {
        char bytes[16];
        while (::read(signalPipe[0], bytes, sizeof bytes) > 0) {
        }
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

QDBusMessage notificationCall(const QString& title, const QString& body) {
    QDBusMessage message = QDBusMessage::createMethodCall(
        "org.freedesktop.Notifications", "/org/freedesktop/Notifications", "org.freedesktop.Notifications", "Notify");
    message << QString("VELMORA.dedup") << uint(0) << QString("org.velmora.dedup") << title << body << QStringList()
            << QVariantMap() << int(-1);
    return message;
}

bool postDesktopNotification(const QString& title, const QString& body) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    return bus.send(notificationCall(title, body));
}

SingleInstance::SingleInstance(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {}

SingleInstance::~SingleInstance() {
    if (!registered_) return;
    bus_.unregisterObject(objectPath);
    bus_.unregisterService(serviceName);
}

SingleInstance::Claim SingleInstance::claim() {
    if (!bus_.isConnected()) return Claim::noBus;
    // The object first, so a second launch that sees the name can always reach it.
    bus_.registerObject(objectPath, this, QDBusConnection::ExportScriptableSlots);
    auto reply = bus_.interface()->registerService(serviceName, QDBusConnectionInterface::DontQueueService,
                                                   QDBusConnectionInterface::DontAllowReplacement);
    if (reply.isValid() && reply.value() == QDBusConnectionInterface::ServiceRegistered) {
        registered_ = true;
        return Claim::first;
    }
    bus_.unregisterObject(objectPath);
    QDBusMessage raise = QDBusMessage::createMethodCall(serviceName, objectPath, "org.velmora.dedup", "Raise");
    // Events keep flowing while waiting, so even a copy in this very process can answer. A copy
    // that holds the name but does not answer is still running: no second one starts beside it.
    bus_.call(raise, QDBus::BlockWithGui, 5000);
    return Claim::another;
}

void SingleInstance::Raise() { emit raiseRequested(); }

BackgroundMode::BackgroundMode(AppModel& model, QWidget& window, QObject* parent)
    : QObject(parent), model_(model), window_(window) {
    window_.installEventFilter(this);
    // Closing the last window must not end the process while automatic reclaiming runs: the
    // decision is taken here, on the window's close.
    QGuiApplication::setQuitOnLastWindowClosed(false);
    connect(&model_, &AppModel::automaticStateChanged, this, [this] {
        if (inBackground_ && !keepsRunning()) emit quitRequested();
    });
}

// A run being stopped still finishes its replacement under way; the process ends after it.
bool BackgroundMode::keepsRunning() const { return model_.automaticRunning() || model_.automaticStopping(); }

bool BackgroundMode::eventFilter(QObject* watched, QEvent* event) {
    if (watched != &window_ || event->type() != QEvent::Close) return QObject::eventFilter(watched, event);
    if (keepsRunning()) {
        event->ignore();
        goToBackground(true);
    } else {
        emit quitRequested();
    }
    return true;
}

void BackgroundMode::showWindow() {
    inBackground_ = false;
    window_.show();
    window_.setWindowState((window_.windowState() & ~Qt::WindowMinimized) | Qt::WindowActive);
    window_.raise();
    window_.activateWindow();
}

bool BackgroundMode::startHidden() {
    if (!keepsRunning()) return false;
    goToBackground(false);
    return true;
}

void BackgroundMode::goToBackground(bool announce) {
    inBackground_ = true;
    window_.hide();
    const QString title = tr("VELMORA.dedup keeps reclaiming");
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        ensureTrayIcon();
        if (announce) {
            tray_->showMessage(title, tr("Automatic reclaiming goes on while the window is closed. Use this icon to "
                                         "open the window again or to quit."));
        }
    } else if (announce) {
        postDesktopNotification(title, tr("Automatic reclaiming goes on while the window is closed. Start "
                                          "VELMORA.dedup again to open the window or to quit."));
    }
}

void BackgroundMode::ensureTrayIcon() {
    if (tray_) {
        tray_->show();
        return;
    }
    tray_ = new QSystemTrayIcon(QIcon::fromTheme("org.velmora.dedup", QIcon(":/org.velmora.dedup.svg")), this);
    tray_->setToolTip(tr("VELMORA.dedup: automatic reclaiming is on"));
    auto* menu = new QMenu(&window_);
    menu->addAction(tr("Open VELMORA.dedup"), this, &BackgroundMode::showWindow);
    menu->addSeparator();
    menu->addAction(tr("Quit"), this, &BackgroundMode::quitRequested);
    tray_->setContextMenu(menu);
    connect(tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick) showWindow();
    });
    tray_->show();
}

}  // namespace dedup::app
