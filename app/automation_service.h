// The automation actions on the session bus, for scripts and programs: the running application
// exports them at /org/velmora/dedup/Automation under the name it already owns ("org.velmora.dedup").
//
//   FindIdenticalFiles(s folder) -> s          "<bytes> can be reclaimed in <n> groups."
//   ReclaimIdenticalFiles(s folder) -> s       "<bytes> reclaimed; <n> files are clones now."
//   WhatDeletingFrees(s folder) -> s           "Deleting it frees <bytes>; the file manager says <bytes>."
//   FindIdenticalFilesJson, ReclaimIdenticalFilesJson, WhatDeletingFreesJson (s folder) -> s (JSON)
//
// A refusal is a D-Bus error: org.velmora.dedup.Automation.NoFolder with "Choose a folder.", or
// org.velmora.dedup.Automation.Failed with a sentence saying why. Each call is answered later (a
// delayed reply) from a thread of its own, so the window stays responsive and the bus is never
// blocked; reclaims run one at a time. Lives on the main thread; destroying it stops the work
// under way (a reclaim finishes its replacement first).
#pragma once

#include <atomic>
#include <memory>

#include <QDBusConnection>
#include <QDBusContext>
#include <QObject>
#include <QString>

#include "automation_actions.h"

namespace dedup::app {

class AutomationService : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.velmora.dedup.Automation")
public:
    static constexpr const char* objectPath = "/org/velmora/dedup/Automation";
    static constexpr const char* interfaceName = "org.velmora.dedup.Automation";
    static constexpr const char* noFolderError = "org.velmora.dedup.Automation.NoFolder";
    static constexpr const char* failedError = "org.velmora.dedup.Automation.Failed";

    explicit AutomationService(ActionPlaces places, QObject* parent = nullptr);
    ~AutomationService() override;

    // Exports the object on `bus`; false when the bus is not connected or the path is taken.
    bool exportOn(QDBusConnection bus);

public slots:
    Q_SCRIPTABLE QString FindIdenticalFiles(const QString& folder);
    Q_SCRIPTABLE QString ReclaimIdenticalFiles(const QString& folder);
    Q_SCRIPTABLE QString WhatDeletingFrees(const QString& folder);
    Q_SCRIPTABLE QString FindIdenticalFilesJson(const QString& folder);
    Q_SCRIPTABLE QString ReclaimIdenticalFilesJson(const QString& folder);
    Q_SCRIPTABLE QString WhatDeletingFreesJson(const QString& folder);

private:
    QString start(AutomationAction action, const QString& folder, bool json);

    ActionPlaces places_;
    std::shared_ptr<std::atomic<bool>> stopped_ = std::make_shared<std::atomic<bool>>(false);
    QDBusConnection bus_{QString()};
    bool exported_ = false;
};

}  // namespace dedup::app
