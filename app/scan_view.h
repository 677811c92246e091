// The Scan & Reclaim screen: the folders to look in, the scan with its progress, the groups of
// identical files with what each copy frees, the user's choices (copies left out, the copy kept),
// and the reclaim with its confirmation and summary. Reads and changes state only through
// AppModel; the list is a GroupsModel kept in step with the model's result and selection.
//
// Main thread only.
#pragma once

#include <QWidget>

#include "groups_model.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QTreeView;

namespace dedup::app {

class AppModel;
class ReclaimSummaryDialog;

class ScanView : public QWidget {
    Q_OBJECT
public:
    explicit ScanView(AppModel& model, QWidget* parent = nullptr);

    GroupsModel& groups() { return groups_; }
    QTreeView* groupList() const { return list_; }

public slots:
    void chooseFolders();
    void editOptions();
    void startReclaim();
    void compareSelected();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void showPhase();
    void showFolders();
    void showProgress();
    void showResult();
    void showTotal();
    void showMessage(const QString& text);
    void showSelectedFile();
    void applyFilter();
    void leaveOutFolder();
    void keepSelected();
    void showSummary();
    void showUnreadable();
    QModelIndex currentFile() const;

    AppModel& model_;
    GroupsModel groups_;

    QListWidget* folders_;
    QPushButton* addFolders_;
    QPushButton* removeFolder_;
    QComboBox* profile_;
    QPushButton* options_;
    QPushButton* scan_;
    QPushButton* cancel_;
    QProgressBar* progress_;
    QLabel* progressText_;
    QLabel* currentPath_;
    QLabel* message_;
    QLabel* scanFigures_;
    QPushButton* showUnreadable_;
    QPushButton* dismiss_;
    QComboBox* filterField_;
    QLineEdit* filterText_;
    QComboBox* minimumSize_;
    QTreeView* list_;
    QLabel* total_;
    QPushButton* keep_;
    QPushButton* keepEvery_;
    QPushButton* leaveOutFolder_;
    QPushButton* open_;
    QPushButton* reveal_;
    QPushButton* compare_;
    QPushButton* reclaim_;
    ReclaimSummaryDialog* summary_ = nullptr;
};

}  // namespace dedup::app
