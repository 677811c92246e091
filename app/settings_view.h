// The Settings window: how replacements are made (replaced files to the Trash, folder dates kept,
// coordination with other programs), notifications, start at login, and the scan options. Every
// change goes to the model at once, which saves it.
#pragma once

#include <QWidget>

class QCheckBox;
class QVBoxLayout;

namespace dedup::app {

class AppModel;
class ScanOptionsEditor;
class UpdateCheck;

class SettingsView : public QWidget {
    Q_OBJECT
public:
    explicit SettingsView(AppModel& model, QWidget* parent = nullptr);
    // The switch of the daily check for a newer release, where the build has it.
    void addUpdateSwitch(UpdateCheck& check);
    QCheckBox* updateSwitch() const { return updates_; }

private:
    void showSettings();

    AppModel& model_;
    QCheckBox* trash_;
    QCheckBox* folderDates_;
    QCheckBox* coordinate_;
    QCheckBox* notify_;
    QCheckBox* startAtLogin_;
    QCheckBox* updates_ = nullptr;
    QVBoxLayout* appLayout_;
    ScanOptionsEditor* options_;
};

}  // namespace dedup::app
