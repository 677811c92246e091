// Tells the user that a newer release exists. At most once a day, and only once the user has said
// yes, it fetches a small JSON document from the feed address (the setting "updateFeed"):
//   {"version": "1.10", "download": "https://…", "notes": "…"}
// and, when "version" is newer than the running version, publishes it as `available` for the main
// window to announce with its link. It never downloads or installs anything itself.
//
// Settings (the application's QSettings): "updateCheck" (absent until the user was asked; then
// true or false), "updateChecked" (the time of the last successful check), "updateFeed".
// A failed fetch, an HTTP error, a body that is not such a document or one that is too large are
// silent and leave "updateChecked" as it was, so the next start tries again. A feed address that
// is not https (plain http is let through only to this machine, for tests) is never fetched: the
// answer is shown to the user as a link.
//
// Lives on the main thread; the fetch is asynchronous.
#pragma once

#include <memory>
#include <optional>

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QUrl>

class QNetworkAccessManager;
class QNetworkReply;
class QSettings;

namespace dedup::app {

struct Release {
    QString version;
    QUrl download;
    QString notes;
    bool operator==(const Release&) const = default;
};

// A feed document, or absent when it is not JSON, not an object, lacks "version" or "download",
// or has a "download" that is not an http(s) address. Other keys are ignored.
std::optional<Release> decodeRelease(const QByteArray& body);

// Compares two versions component by component, digit runs as numbers: "1.10" > "1.9", and a
// missing component counts as zero ("1.2" == "1.2.0"). Negative, zero or positive, as a - b.
int compareVersions(const QString& a, const QString& b);

// Whether the feed may be fetched from `url`, or a redirect followed there: https anywhere, plain
// http only to this machine.
bool feedAddressAllowed(const QUrl& url);

class UpdateCheck : public QObject {
    Q_OBJECT
public:
    static constexpr const char* defaultFeed = "https://updates.velmora.example/dedup/update.json";
    static constexpr qint64 interval = 86400;  // seconds between two successful checks
    static constexpr qint64 largestFeed = 64 * 1024;

    enum class Consent { notAsked, allowed, refused };

    // `settingsFile` empty: the desktop's standard place, as AppModel uses.
    explicit UpdateCheck(const QString& settingsFile = {}, QObject* parent = nullptr);
    ~UpdateCheck() override;

    const std::optional<Release>& available() const { return available_; }
    Consent consent() const;
    void setConsent(bool allowed);
    QUrl feed() const;
    // The running version: QCoreApplication::applicationVersion() unless set; "0" when empty.
    QString runningVersion() const;
    void setRunningVersion(const QString& version) { runningVersion_ = version; }
    // How long a fetch may take in all before it counts as failed.
    void setTimeout(int milliseconds) { timeout_ = milliseconds; }
    bool busy() const { return reply_ != nullptr; }

public slots:
    // One check, when allowed and due. The main window calls it once when it first appears.
    void check();

signals:
    void availableChanged();
    void consentChanged();
    // A check ended, whether it fetched, found nothing newer, failed or was not due.
    void checkFinished();

private:
    void finish(QNetworkReply* reply);

    std::unique_ptr<QSettings> settings_;
    QNetworkAccessManager* network_;
    QNetworkReply* reply_ = nullptr;
    std::optional<Release> available_;
    QString runningVersion_;
    int timeout_ = 30000;
};

}  // namespace dedup::app
