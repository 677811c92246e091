#include "automation_client.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <iostream>
#include <string_view>
#include <vector>

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QEventLoop>

#include "automation_service.h"
#include "desktop_session.h"

namespace dedup::app {

namespace {

// Waits for the reply with events flowing. `timeout` in milliseconds; INT_MAX waits as long as
// the work takes (a reclaim of a large folder takes hours).
QDBusMessage callAndWait(QDBusConnection& bus, const QDBusMessage& message, int timeout) {
    QDBusPendingCall pending = bus.asyncCall(message, timeout);
    if (!pending.isFinished()) {
        QDBusPendingCallWatcher watcher(pending);
        QEventLoop loop;
        QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return pending.reply();
}

QString methodFor(AutomationAction action, bool json) {
    QString name;
    switch (action) {
        case AutomationAction::find: name = QStringLiteral("FindIdenticalFiles"); break;
        case AutomationAction::reclaim: name = QStringLiteral("ReclaimIdenticalFiles"); break;
        case AutomationAction::trueSize: name = QStringLiteral("WhatDeletingFrees"); break;
    }
    return json ? name + QStringLiteral("Json") : name;
}

bool isUtf8(const std::string& text) {
    QString decoded = QString::fromUtf8(text);
    return decoded.toUtf8().toStdString() == text;
}

}  // namespace

std::optional<ActionOutcome> askRunningCopy(QDBusConnection bus, AutomationAction action, const QString& folder,
                                            bool json) {
    if (!bus.isConnected()) return std::nullopt;
    QDBusMessage call = QDBusMessage::createMethodCall(SingleInstance::serviceName, AutomationService::objectPath,
                                                       AutomationService::interfaceName, methodFor(action, json));
    call << folder;
    // No automatic start: a copy started only to answer would stay without a window.
    call.setAutoStartService(false);
    QDBusMessage reply = callAndWait(bus, call, INT_MAX);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
        return ActionOutcome{true, reply.arguments().constFirst().toString()};
    }
    const QString error = reply.errorName();
    if (error == QLatin1String(AutomationService::noFolderError) || error == QLatin1String(AutomationService::failedError)) {
        return ActionOutcome{false, reply.errorMessage()};
    }
    // Nobody owns the name, or the copy that does predates the automation interface.
    if (error == QDBusError::errorString(QDBusError::ServiceUnknown) ||
        error == QDBusError::errorString(QDBusError::UnknownObject) ||
        error == QDBusError::errorString(QDBusError::UnknownInterface) ||
        error == QDBusError::errorString(QDBusError::UnknownMethod) ||
        error == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")) {
        return std::nullopt;
    }
    // The copy took the call and then went away or stopped answering: it may have changed files
    // already, so the action is not run a second time behind its back.
    return ActionOutcome{false, QStringLiteral("VELMORA.dedup stopped answering before the action finished (%1). "
                                               "Its journal says what was done.")
                                    .arg(reply.errorMessage())};
}

ActionOutcome runHere(AutomationAction action, const std::optional<std::string>& folder, bool json,
                      const ActionPlaces& places) {
    try {
        ActionAnswer answer = runAction(action, folder, places);
        return {true, QString::fromStdString(
                          json ? answer.json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                               : answer.sentence)};
    } catch (const std::exception& error) {
        return {false, QString::fromUtf8(error.what())};
    }
}

bool notifyDesktop(QDBusConnection bus, const QString& title, const QString& body) {
    if (!bus.isConnected()) return false;
    // Waited for, unlike the application's own notes: a command that ends at once could not tell
    // whether anyone showed the answer.
    QDBusMessage reply = callAndWait(bus, notificationCall(title, body), 5000);
    return reply.type() == QDBusMessage::ReplyMessage;
}

bool handleActionCommand(int argc, char** argv, int& exitCode) {
    std::vector<std::string_view> args(argv + 1, argv + argc);
    auto end = std::find(args.begin(), args.end(), std::string_view("--"));
    auto at = std::find(args.begin(), end, std::string_view("--action"));
    if (at == end) return false;

    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("VELMORA.dedup");
    QCoreApplication::setOrganizationName("VELMORA");
    const char* usageText =
        "usage: velmora-dedup --action find|reclaim|true-size [--json] FOLDER...\n";
    if (at + 1 == end) {
        std::cerr << usageText;
        exitCode = 2;
        return true;
    }
    auto action = actionNamed(*(at + 1));
    if (!action) {
        std::cerr << "velmora-dedup: unknown action \"" << *(at + 1) << "\"; the actions are find, reclaim and true-size.\n"
                  << usageText;
        exitCode = 2;
        return true;
    }
    bool json = false;
    bool onlyFolders = false;  // after "--": a folder may be named "--json"
    std::vector<std::string> folders;
    for (auto it = args.begin(); it != args.end(); ++it) {
        if (!onlyFolders && (it == at || it == at + 1)) continue;
        if (onlyFolders) {
            folders.emplace_back(*it);
        } else if (*it == "--json") {
            json = true;
        } else if (*it == "--") {
            onlyFolders = true;
        } else if (it->starts_with("--")) {
            std::cerr << "velmora-dedup: unknown option " << *it << "\n" << usageText;
            exitCode = 2;
            return true;
        } else {
            folders.emplace_back(*it);
        }
    }
    // A menu run on nothing, or a script that forgot the folder: answered like any action.
    if (folders.empty()) folders.emplace_back();

    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString title = QString::fromUtf8(actionTitle(*action).data(), static_cast<int>(actionTitle(*action).size()));
    exitCode = 0;
    for (const auto& given : folders) {
        std::optional<std::string> folder;
        if (!given.empty()) folder = std::filesystem::absolute(given).lexically_normal().string();
        std::optional<ActionOutcome> outcome;
        // D-Bus carries only UTF-8 text: a name in another encoding is answered here, byte for byte.
        if (folder && isUtf8(*folder)) outcome = askRunningCopy(bus, *action, QString::fromStdString(*folder), json);
        if (!outcome) outcome = runHere(*action, folder, json);
        (outcome->ok ? std::cout : std::cerr) << outcome->text.toStdString() << "\n";
        if (!json) notifyDesktop(bus, title, outcome->text);
        if (!outcome->ok) exitCode = 1;
    }
    return true;
}

}  // namespace dedup::app
