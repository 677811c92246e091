#include "update_check.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSettings>
#include <QStringList>

namespace dedup::app {

namespace {

constexpr const char* consentKey = "updateCheck";
constexpr const char* checkedKey = "updateChecked";
constexpr const char* feedKey = "updateFeed";

bool isWebAddress(const QUrl& url) {
    return url.isValid() && !url.host().isEmpty() &&
           (url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
}

}  // namespace

// What the feed says reaches the user as a link, so no one on the way may write it.
bool feedAddressAllowed(const QUrl& url) {
    if (!url.isValid() || url.host().isEmpty()) return false;
    if (url.scheme() == QLatin1String("https")) return true;
    if (url.scheme() != QLatin1String("http")) return false;
    if (url.host() == QLatin1String("localhost")) return true;
    QHostAddress address(url.host());
    return !address.isNull() && address.isLoopback();
}

namespace {

// Compares one component ("10", "2rc1") with digit runs as numbers.
int compareComponent(const QString& a, const QString& b) {
    qsizetype i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (a[i].isDigit() && b[j].isDigit()) {
            qsizetype endA = i, endB = j;
            while (endA < a.size() && a[endA].isDigit()) ++endA;
            while (endB < b.size() && b[endB].isDigit()) ++endB;
            // Without leading zeros, a longer run is a larger number; runs of one length compare
            // digit by digit, however long (no overflow).
            while (i < endA - 1 && a[i] == QLatin1Char('0')) ++i;
            while (j < endB - 1 && b[j] == QLatin1Char('0')) ++j;
            if (endA - i != endB - j) return endA - i < endB - j ? -1 : 1;
            if (int c = QStringView(a).mid(i, endA - i).compare(QStringView(b).mid(j, endB - j)); c != 0) {
                return c < 0 ? -1 : 1;
            }
            i = endA;
            j = endB;
            continue;
        }
        if (a[i] != b[j]) return a[i] < b[j] ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

}  // namespace

std::optional<Release> decodeRelease(const QByteArray& body) {
    QJsonParseError error{};
    QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) return std::nullopt;
    QJsonObject object = document.object();
    const QJsonValue version = object.value(QLatin1String("version"));
    const QJsonValue download = object.value(QLatin1String("download"));
    const QJsonValue notes = object.value(QLatin1String("notes"));
    if (!version.isString() || version.toString().trimmed().isEmpty() || !download.isString()) return std::nullopt;
    if (!notes.isUndefined() && !notes.isNull() && !notes.isString()) return std::nullopt;
    QUrl link(download.toString(), QUrl::StrictMode);
    if (!isWebAddress(link)) return std::nullopt;
    return Release{version.toString().trimmed(), link, notes.toString()};
}

int compareVersions(const QString& a, const QString& b) {
    const QStringList left = a.trimmed().split(QLatin1Char('.'));
    const QStringList right = b.trimmed().split(QLatin1Char('.'));
    for (qsizetype k = 0; k < std::max(left.size(), right.size()); ++k) {
        const QString x = k < left.size() ? left[k] : QStringLiteral("0");
        const QString y = k < right.size() ? right[k] : QStringLiteral("0");
        if (int c = compareComponent(x, y); c != 0) return c;
    }
    return 0;
}

UpdateCheck::UpdateCheck(const QString& settingsFile, QObject* parent)
    : QObject(parent), network_(new QNetworkAccessManager(this)) {
    if (settingsFile.isEmpty()) {
        settings_ = std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, "VELMORA", "dedup");
    } else {
        settings_ = std::make_unique<QSettings>(settingsFile, QSettings::IniFormat);
    }
}

UpdateCheck::~UpdateCheck() {
    if (reply_) {
        // Finished by abort() at once; nothing is recorded for a check cut short.
        QNetworkReply* reply = reply_;
        reply_ = nullptr;
        reply->disconnect(this);
        reply->abort();
    }
}

UpdateCheck::Consent UpdateCheck::consent() const {
    const QVariant value = settings_->value(consentKey);
    if (!value.isValid()) return Consent::notAsked;
    return value.toBool() ? Consent::allowed : Consent::refused;
}

void UpdateCheck::setConsent(bool allowed) {
    const Consent before = consent();
    settings_->setValue(consentKey, allowed);
    settings_->sync();
    if (consent() != before) emit consentChanged();
}

QUrl UpdateCheck::feed() const {
    return QUrl(settings_->value(feedKey, QString::fromLatin1(defaultFeed)).toString());
}

QString UpdateCheck::runningVersion() const {
    QString version = runningVersion_.isEmpty() ? QCoreApplication::applicationVersion() : runningVersion_;
    return version.trimmed().isEmpty() ? QStringLiteral("0") : version;
}

void UpdateCheck::check() {
    if (reply_) return;  // the check under way answers
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QDateTime last = settings_->value(checkedKey).toDateTime();
    // A time ahead of now (a clock set back) says nothing about when the last check was.
    const bool due = !last.isValid() || last > now || last.secsTo(now) >= interval;
    const QUrl url = feed();
    if (consent() != Consent::allowed || !due || !feedAddressAllowed(url)) {
        emit checkFinished();
        return;
    }
    QNetworkRequest request(url);
    request.setTransferTimeout(timeout_);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::UserVerifiedRedirectPolicy);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("VELMORA.dedup/") + runningVersion());
    reply_ = network_->get(request);
    QNetworkReply* reply = reply_;
    // A redirect is followed only where the feed itself could be.
    connect(reply, &QNetworkReply::redirected, this, [reply](const QUrl& to) {
        if (feedAddressAllowed(to)) {
            emit reply->redirectAllowed();
        } else {
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::downloadProgress, this, [reply](qint64 received, qint64 total) {
        if (received > largestFeed || total > largestFeed) reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { finish(reply); });
}

void UpdateCheck::finish(QNetworkReply* reply) {
    reply->deleteLater();
    if (reply != reply_) return;
    reply_ = nullptr;
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QByteArray body = reply->read(largestFeed + 1);
    std::optional<Release> release;
    if (reply->error() == QNetworkReply::NoError && status == 200 && body.size() <= largestFeed) {
        release = decodeRelease(body);
    }
    if (!release) {
        // Silent, and not recorded: the next start tries again.
        emit checkFinished();
        return;
    }
    settings_->setValue(checkedKey, QDateTime::currentDateTimeUtc());
    settings_->sync();
    if (compareVersions(release->version, runningVersion()) > 0 && available_ != release) {
        available_ = std::move(release);
        emit availableChanged();
    }
    emit checkFinished();
}

}  // namespace dedup::app
