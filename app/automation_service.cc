#include "automation_service.h"

#include <mutex>
#include <optional>

#include <QDBusMessage>

#include "app_tasks.h"

namespace dedup::app {

namespace {

// Two reclaims over overlapping folders would only get in each other's way: one at a time.
std::mutex reclaiming;

}  // namespace

AutomationService::AutomationService(ActionPlaces places, QObject* parent)
    : QObject(parent), places_(std::move(places)) {}

AutomationService::~AutomationService() {
    stopped_->store(true);
    if (exported_) bus_.unregisterObject(objectPath);
}

bool AutomationService::exportOn(QDBusConnection bus) {
    if (!bus.isConnected()) return false;
    bus_ = bus;
    exported_ = bus_.registerObject(objectPath, interfaceName, this, QDBusConnection::ExportScriptableSlots);
    return exported_;
}

QString AutomationService::FindIdenticalFiles(const QString& folder) {
    return start(AutomationAction::find, folder, false);
}
QString AutomationService::ReclaimIdenticalFiles(const QString& folder) {
    return start(AutomationAction::reclaim, folder, false);
}
QString AutomationService::WhatDeletingFrees(const QString& folder) {
    return start(AutomationAction::trueSize, folder, false);
}
QString AutomationService::FindIdenticalFilesJson(const QString& folder) {
    return start(AutomationAction::find, folder, true);
}
QString AutomationService::ReclaimIdenticalFilesJson(const QString& folder) {
    return start(AutomationAction::reclaim, folder, true);
}
QString AutomationService::WhatDeletingFreesJson(const QString& folder) {
    return start(AutomationAction::trueSize, folder, true);
}

QString AutomationService::start(AutomationAction action, const QString& folder, bool json) {
    // Called from outside D-Bus (a test, another object): nothing to answer later.
    if (!calledFromDBus()) return {};
    setDelayedReply(true);
    QDBusMessage call = message();
    QDBusConnection bus = connection();
    std::optional<std::string> path;
    if (!folder.isEmpty()) path = folder.toStdString();
    tasks::run([action, path, json, call, bus, places = places_, stopped = stopped_]() mutable {
        QDBusMessage reply;
        try {
            std::unique_lock<std::mutex> one;
            if (action == AutomationAction::reclaim) one = std::unique_lock(reclaiming);
            ActionAnswer answer = runAction(action, path, places, [&stopped] { return stopped->load(); });
            const std::string text = json ? answer.json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                                          : answer.sentence;
            reply = call.createReply(QString::fromStdString(text));
        } catch (const ActionError& error) {
            const bool noFolder = error.what() == chooseAFolder;
            reply = call.createErrorReply(noFolder ? noFolderError : failedError, QString::fromUtf8(error.what()));
        } catch (const std::exception& error) {
            reply = call.createErrorReply(failedError, QString::fromUtf8(error.what()));
        }
        // A connection may be used from any thread; the caller waits on the bus, not on us.
        bus.send(reply);
    });
    return {};
}

}  // namespace dedup::app
