// The Automatic screen: automatic mode and when it may run, the folders it watches, what it waits
// for now, its last reclaim, and the backup disks (mark the disk of a folder, unmark one, whether
// each is connected and can make clones). Refreshes what it waits for while it is shown.
#pragma once

#include <QWidget>

class QCheckBox;
class QLabel;
class QListWidget;
class QPushButton;
class QTimer;
class QTreeWidget;

namespace dedup::app {

class AppModel;

class AutomaticView : public QWidget {
    Q_OBJECT
public:
    explicit AutomaticView(AppModel& model, QWidget* parent = nullptr);

    QTreeWidget* backupDisks() const { return disks_; }

public slots:
    void markDisk();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    void showSettings();
    void showState();
    void showDisks();

    AppModel& model_;
    QCheckBox* automatic_;
    QCheckBox* anytime_;
    QCheckBox* notify_;
    QCheckBox* startAtLogin_;
    QListWidget* folders_;
    QLabel* state_;
    QLabel* last_;
    QTreeWidget* disks_;
    QPushButton* mark_;
    QPushButton* unmark_;
    QTimer* refresh_;
};

}  // namespace dedup::app
