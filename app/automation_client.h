// `velmora-dedup --action find|reclaim|true-size [--json] FOLDER...`: the one entry point of the
// file managers' folder menus and of scripts. It asks the running application over the session bus,
// so a reclaim is journalled and serialised by the copy the user sees, and runs the engine itself
// when no copy runs. The answer is printed and, unless --json, shown as a desktop notification.
// Main thread.
#pragma once

#include <optional>
#include <string>

#include <QDBusConnection>
#include <QString>

#include "automation_actions.h"

namespace dedup::app {

// What one action answered, wherever it ran.
struct ActionOutcome {
    bool ok = false;
    QString text;  // the sentence or JSON when ok, else why not
};

// Asks the copy of the application that owns "org.velmora.dedup" on `bus`. Absent when no copy
// runs there (or the bus is gone): then the caller may run the action itself. Events keep flowing
// while it waits, so a copy in this very process can answer too.
std::optional<ActionOutcome> askRunningCopy(QDBusConnection bus, AutomationAction action, const QString& folder,
                                            bool json);

// Runs the action in this process.
ActionOutcome runHere(AutomationAction action, const std::optional<std::string>& folder, bool json,
                      const ActionPlaces& places = ActionPlaces::standard());

// Shows `body` through org.freedesktop.Notifications; false when no notification server answers.
bool notifyDesktop(QDBusConnection bus, const QString& title, const QString& body);

// Handles argv when it asks for an action: sets `exitCode` and answers true; false when argv is an
// ordinary start of the application. Makes its own QCoreApplication: call before any other.
bool handleActionCommand(int argc, char** argv, int& exitCode);

}  // namespace dedup::app
