#include "settings_view.h"

#include <QCheckBox>
#include <QGroupBox>
#include <QVBoxLayout>

#include "app_model.h"
#include "scan_options_editor.h"
#if DEDUP_UPDATE_CHECK
#include "update_check.h"
#endif

namespace dedup::app {

SettingsView::SettingsView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    trash_ = new QCheckBox(tr("Move what a replacement leaves over to the Trash"), this);
    trash_->setToolTip(tr("Where a copy is swapped for a clone, its old blocks go to the Trash instead of away"));
    folderDates_ = new QCheckBox(tr("Keep the dates of the folders that hold replaced copies"), this);
    coordinate_ = new QCheckBox(tr("Leave alone copies another program has open"), this);
    notify_ = new QCheckBox(tr("Tell me when automatic mode reclaimed space"), this);
    startAtLogin_ = new QCheckBox(tr("Start at login, in the background"), this);
    auto* reclaimBox = new QGroupBox(tr("Reclaiming"), this);
    auto* reclaimLayout = new QVBoxLayout(reclaimBox);
    for (QCheckBox* box : {trash_, folderDates_, coordinate_}) reclaimLayout->addWidget(box);
    auto* appBox = new QGroupBox(tr("Application"), this);
    appLayout_ = new QVBoxLayout(appBox);
    appLayout_->addWidget(notify_);
    appLayout_->addWidget(startAtLogin_);
    auto* scanBox = new QGroupBox(tr("Scanning"), this);
    auto* scanLayout = new QVBoxLayout(scanBox);
    options_ = new ScanOptionsEditor(scanBox);
    scanLayout->addWidget(options_);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(reclaimBox);
    layout->addWidget(appBox);
    layout->addWidget(scanBox, 1);

    connect(trash_, &QCheckBox::toggled, &model_, &AppModel::setMoveReplacedToTrash);
    connect(folderDates_, &QCheckBox::toggled, &model_, &AppModel::setRestoreFolderDates);
    connect(coordinate_, &QCheckBox::toggled, &model_, &AppModel::setCoordinate);
    connect(notify_, &QCheckBox::toggled, &model_, &AppModel::setNotify);
    connect(startAtLogin_, &QCheckBox::toggled, &model_, &AppModel::setStartsAtLogin);
    connect(options_, &ScanOptionsEditor::edited, this, [this] { model_.setOptions(options_->options()); });
    for (auto signal : {&AppModel::moveReplacedToTrashChanged, &AppModel::restoreFolderDatesChanged,
                        &AppModel::coordinateChanged, &AppModel::notifyChanged, &AppModel::startsAtLoginChanged}) {
        connect(&model_, signal, this, &SettingsView::showSettings);
    }
    connect(&model_, &AppModel::optionsChanged, this, [this] {
        // Only when it came from elsewhere: redrawing while the user types would move the cursor.
        if (!(options_->options() == model_.options())) options_->setOptions(model_.options());
    });
    options_->setOptions(model_.options());
    showSettings();
}

void SettingsView::addUpdateSwitch([[maybe_unused]] UpdateCheck& check) {
#if DEDUP_UPDATE_CHECK
    if (updates_) return;
    updates_ = new QCheckBox(tr("Look once a day whether a newer version is out"), this);
    updates_->setObjectName(QStringLiteral("updateCheck"));
    updates_->setToolTip(tr("Asks %1; nothing is downloaded").arg(check.feed().host()));
    appLayout_->addWidget(updates_);
    auto show = [this, &check] {
        const QSignalBlocker blocker(updates_);
        updates_->setChecked(check.consent() == UpdateCheck::Consent::allowed);
    };
    show();
    connect(&check, &UpdateCheck::consentChanged, updates_, show);
    connect(updates_, &QCheckBox::toggled, &check, [&check](bool on) {
        check.setConsent(on);
        if (on) check.check();
    });
#endif
}

void SettingsView::showSettings() {
    const QSignalBlocker b1(trash_), b2(folderDates_), b3(coordinate_), b4(notify_), b5(startAtLogin_);
    trash_->setChecked(model_.moveReplacedToTrash());
    folderDates_->setChecked(model_.restoreFolderDates());
    coordinate_->setChecked(model_.coordinate());
    notify_->setChecked(model_.notify());
    startAtLogin_->setChecked(model_.startsAtLogin());
}

}  // namespace dedup::app
