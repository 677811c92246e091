#include "automatic_view.h"

#include <QCheckBox>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "app_model.h"
#include "groups_model.h"

namespace dedup::app {

AutomaticView::AutomaticView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    automatic_ = new QCheckBox(tr("Reclaim new identical files automatically"), this);
    anytime_ = new QCheckBox(tr("Also while the computer is in use or on battery"), this);
    notify_ = new QCheckBox(tr("Tell me when space was reclaimed"), this);
    startAtLogin_ = new QCheckBox(tr("Start at login, in the background"), this);
    auto* modeBox = new QGroupBox(tr("Automatic mode"), this);
    auto* modeLayout = new QVBoxLayout(modeBox);
    for (QCheckBox* box : {automatic_, anytime_, notify_, startAtLogin_}) modeLayout->addWidget(box);
    auto* explain = new QLabel(tr("New copies are made to share blocks once they have stayed unchanged for two "
                                  "minutes. Closing the window keeps this running in the background."),
                               modeBox);
    explain->setWordWrap(true);
    explain->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::MinimumExpanding);
    modeLayout->addWidget(explain);

    state_ = new QLabel(this);
    state_->setWordWrap(true);
    state_->setTextFormat(Qt::PlainText);
    state_->setAccessibleName(tr("What automatic mode does now"));
    last_ = new QLabel(this);
    last_->setWordWrap(true);
    last_->setTextFormat(Qt::PlainText);
    folders_ = new QListWidget(this);
    folders_->setAccessibleName(tr("Folders watched"));
    folders_->setMaximumHeight(folders_->fontMetrics().height() * 3 + folders_->frameWidth() * 2);
    auto* watchBox = new QGroupBox(tr("Watched folders (the folders of Scan && Reclaim)"), this);
    auto* watchLayout = new QVBoxLayout(watchBox);
    watchLayout->addWidget(folders_);
    watchLayout->addWidget(state_);
    watchLayout->addWidget(last_);

    disks_ = new QTreeWidget(this);
    disks_->setAccessibleName(tr("Backup disks"));
    disks_->setHeaderLabels({tr("Disk"), tr("Connected"), tr("Can make clones"), tr("Kept reclaimed now")});
    disks_->setRootIsDecorated(false);
    disks_->setUniformRowHeights(true);
    disks_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    disks_->header()->setStretchLastSection(false);
    for (int c = 1; c < 4; ++c) disks_->header()->setSectionResizeMode(c, QHeaderView::ResizeToContents);
    mark_ = new QPushButton(tr("Mark the Disk of a Folder…"), this);
    unmark_ = new QPushButton(tr("Unmark"), this);
    unmark_->setEnabled(false);
    auto* diskButtons = new QHBoxLayout;
    diskButtons->addWidget(mark_);
    diskButtons->addWidget(unmark_);
    diskButtons->addStretch();
    auto* diskBox = new QGroupBox(tr("Backup disks, kept reclaimed while connected"), this);
    auto* diskLayout = new QVBoxLayout(diskBox);
    diskLayout->addWidget(disks_);
    diskLayout->addLayout(diskButtons);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(modeBox);
    layout->addWidget(watchBox);
    layout->addWidget(diskBox, 1);

    connect(automatic_, &QCheckBox::toggled, &model_, &AppModel::setAutomatic);
    connect(anytime_, &QCheckBox::toggled, &model_, &AppModel::setAnytime);
    connect(notify_, &QCheckBox::toggled, &model_, &AppModel::setNotify);
    connect(startAtLogin_, &QCheckBox::toggled, &model_, &AppModel::setStartsAtLogin);
    for (auto signal : {&AppModel::automaticChanged, &AppModel::anytimeChanged, &AppModel::notifyChanged,
                        &AppModel::startsAtLoginChanged, &AppModel::sourcesChanged}) {
        connect(&model_, signal, this, &AutomaticView::showSettings);
    }
    connect(&model_, &AppModel::automaticStateChanged, this, &AutomaticView::showState);
    connect(&model_, &AppModel::lastAutomaticChanged, this, &AutomaticView::showState);
    connect(&model_, &AppModel::backupDisksChanged, this, &AutomaticView::showDisks);
    connect(mark_, &QPushButton::clicked, this, &AutomaticView::markDisk);
    connect(unmark_, &QPushButton::clicked, this, [this] {
        if (QTreeWidgetItem* item = disks_->currentItem()) {
            // Unmarking goes by a path on the disk; a disk that is not connected has none, so its
            // identifier stands in and the model matches it.
            model_.setBackupDisk(item->data(0, Qt::UserRole).toString(), false);
        }
    });
    connect(disks_, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) { unmark_->setEnabled(item); });

    // What it waits for (battery, use, heat) changes without the model hearing of it.
    refresh_ = new QTimer(this);
    refresh_->setInterval(5000);
    connect(refresh_, &QTimer::timeout, this, &AutomaticView::showState);

    showSettings();
    showDisks();
}

void AutomaticView::showEvent(QShowEvent* event) {
    refresh_->start();
    showState();
    showDisks();
    QWidget::showEvent(event);
}

void AutomaticView::hideEvent(QHideEvent* event) {
    refresh_->stop();
    QWidget::hideEvent(event);
}

void AutomaticView::markDisk() {
    QString folder = QFileDialog::getExistingDirectory(this, tr("Choose a folder on the backup disk"));
    if (!folder.isEmpty()) model_.setBackupDisk(folder, true);
}

void AutomaticView::showSettings() {
    const QSignalBlocker b1(automatic_), b2(anytime_), b3(notify_), b4(startAtLogin_);
    automatic_->setChecked(model_.automatic());
    anytime_->setChecked(model_.anytime());
    notify_->setChecked(model_.notify());
    startAtLogin_->setChecked(model_.startsAtLogin());
    anytime_->setEnabled(model_.automatic());
    folders_->clear();
    folders_->addItems(model_.sourceList());
    showState();
}

void AutomaticView::showState() {
    QString state;
    if (!model_.automatic()) {
        // The replacement under way is finished first: a file is never left half replaced.
        state = model_.automaticStopping() ? tr("Stopping… (finishing the file being replaced)")
                                           : tr("Automatic mode is off.");
    } else if (!model_.automaticHolder().isEmpty()) {
        state = tr("Another program already does this work for you: %1. Nothing more is started here.")
                    .arg(model_.automaticHolder());
    } else if (model_.sources().empty() && model_.backupDisks().volumes.empty()) {
        state = tr("Nothing to watch: add folders in Scan & Reclaim or mark a backup disk.");
    } else if (model_.automaticUnwatched().size() == static_cast<qsizetype>(model_.sources().size()) &&
               model_.backupDisks().volumes.empty()) {
        state = tr("None of these folders is on a disk that can make clones: there is nothing to keep reclaimed.");
    } else if (QString waiting = model_.automaticWaitingFor(); !waiting.isEmpty()) {
        state = tr("Waiting: %1.").arg(waiting);
    } else {
        state = model_.automaticRunning() ? tr("Watching; new copies are reclaimed as they settle.") : tr("Starting…");
    }
    const bool noneWatched = model_.automaticUnwatched().size() == static_cast<qsizetype>(model_.sources().size());
    if (model_.automatic() && model_.automaticHolder().isEmpty() && !noneWatched) {
        for (const QString& folder : model_.automaticUnwatched()) {
            state += "\n" + tr("%1 is not watched: its disk cannot make clones.").arg(folder);
        }
    }
    state_->setText(state);
    last_->setText(model_.lastAutomatic().isEmpty() ? tr("No automatic reclaim yet in this session.")
                                                    : tr("Last automatic reclaim: %1").arg(model_.lastAutomatic()));
}

void AutomaticView::showDisks() {
    disks_->clear();
    for (const BackupDiskState& d : model_.backupDiskStates()) {
        QString name = d.mountPoint ? displayPath(*d.mountPoint) : QString::fromStdString(d.volume);
        auto* item = new QTreeWidgetItem(disks_, {name, d.mountPoint ? tr("yes") : tr("no"),
                                                  d.mountPoint ? (d.canClone ? tr("yes") : tr("no")) : tr("unknown"),
                                                  d.watched ? tr("yes") : tr("no")});
        item->setToolTip(0, QString::fromStdString(d.volume));
        item->setData(0, Qt::UserRole, d.mountPoint ? displayPath(*d.mountPoint) : QString::fromStdString(d.volume));
    }
    unmark_->setEnabled(disks_->currentItem());
}

}  // namespace dedup::app
