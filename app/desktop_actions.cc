#include "desktop_actions.h"

#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#include <QDesktopServices>
#include <QFile>
#include <QUrl>

#include "byte_format.h"

namespace dedup::app {

namespace {
// QUrl::fromLocalFile goes through QString; a name that is not UTF-8 must keep its bytes, so the
// URL is made from the percent-encoded bytes themselves.
QUrl urlOf(const std::string& path) {
    return QUrl(QStringLiteral("file://") + QString::fromLatin1(QByteArray::fromStdString(path).toPercentEncoding("/")));
}
}  // namespace

bool openFile(const std::string& path) { return QDesktopServices::openUrl(urlOf(path)); }

bool showInFileManager(const std::string& path) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QDBusInterface manager(QStringLiteral("org.freedesktop.FileManager1"),
                               QStringLiteral("/org/freedesktop/FileManager1"),
                               QStringLiteral("org.freedesktop.FileManager1"), bus);
        if (manager.isValid()) {
            QDBusReply<void> reply = manager.call(QStringLiteral("ShowItems"),
                                                  QStringList{urlOf(path).toString(QUrl::FullyEncoded)}, QString());
            if (reply.isValid()) return true;
        }
    }
    auto slash = path.find_last_of('/');
    return QDesktopServices::openUrl(urlOf(slash == 0 ? "/" : path.substr(0, slash)));
}

QString bytesText(long long bytes) { return QString::fromStdString(formatBytes(bytes)); }

}  // namespace dedup::app
