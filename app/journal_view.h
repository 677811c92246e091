// The Journal screen: every replacement and what became of it, newest first, filtered by what
// happened and by path; Verify checks each replaced file now and shows its verdict beside it, and
// Recover puts right what an interrupted run left. Both run in the model's background.
#pragma once

#include <QWidget>

#include "journal_model.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QTableView;

namespace dedup::app {

class AppModel;

class JournalView : public QWidget {
    Q_OBJECT
public:
    explicit JournalView(AppModel& model, QWidget* parent = nullptr);

    JournalModel& entries() { return entries_; }

protected:
    void showEvent(QShowEvent* event) override;

private:
    void applyFilter();
    void showBusy();

    AppModel& model_;
    JournalModel entries_;
    QComboBox* event_;
    QLineEdit* path_;
    QTableView* table_;
    QPushButton* verify_;
    QPushButton* recover_;
    QLabel* status_;
};

}  // namespace dedup::app
