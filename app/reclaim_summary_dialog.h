// What the last reclaim did: the space freed, how many copies now share blocks, every copy left
// alone with its reason, every failure with its cause, and what still holds space on the disk
// (snapshots and the Trash). Shown without blocking the window, refreshed as the model learns more.
#pragma once

#include <QDialog>

class QLabel;
class QTreeWidget;

namespace dedup::app {

class AppModel;

class ReclaimSummaryDialog : public QDialog {
    Q_OBJECT
public:
    explicit ReclaimSummaryDialog(AppModel& model, QWidget* parent = nullptr);

    void refresh();
    QString headline() const;

private:
    AppModel& model_;
    QLabel* headline_;
    QTreeWidget* leftAlone_;
    QLabel* holders_;
};

}  // namespace dedup::app
