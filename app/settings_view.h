// The Settings window: how replacements are made (replaced files to the Trash, folder dates kept,
// coordination with other programs), notifications, start at login, and the scan options. Every
// change goes to the model at once, which saves it.
#pragma once

#include <QWidget>

class QCheckBox;

namespace dedup::app {

class AppModel;
class ScanOptionsEditor;

class SettingsView : public QWidget {
    Q_OBJECT
public:
    explicit SettingsView(AppModel& model, QWidget* parent = nullptr);

private:
    void showSettings();

    AppModel& model_;
    QCheckBox* trash_;
    QCheckBox* folderDates_;
    QCheckBox* coordinate_;
    QCheckBox* notify_;
    QCheckBox* startAtLogin_;
    ScanOptionsEditor* options_;
};

}  // namespace dedup::app
