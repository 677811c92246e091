// The Across Disks screen: folders on two or more disks, the search for identical files and
// folder trees among them with its progress, the list largest first, a comparison of two copies,
// and moving the chosen copy to the Trash of its disk after both are checked again. Reads and
// changes state only through AppModel; the list is an AcrossModel kept in step with its result.
//
// Main thread only.
#pragma once

#include <string>
#include <vector>

#include <QWidget>

#include "across_model.h"

class QCheckBox;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QTreeView;

namespace dedup::app {

class AppModel;

class AcrossView : public QWidget {
    Q_OBJECT
public:
    explicit AcrossView(AppModel& model, QWidget* parent = nullptr);

    AcrossModel& results() { return results_; }
    QTreeView* list() const { return list_; }
    // The folders the next search looks in, as the file system's bytes.
    const std::vector<std::string>& folders() const { return folders_; }
    void setFolders(std::vector<std::string> folders);
    // What the last move to the Trash came to, in the user's words.
    QString outcome() const;
    // What the details below the list say about the chosen row.
    QString details() const;

public slots:
    void chooseFolder();
    void search();
    void compareSelected();
    void moveSelectedToTrash();

private:
    void showFolders();
    void showBusy();
    void showProgress();
    void showResult();
    void showSelected();
    // The copy kept when `copy` goes: the first other copy of its group on another disk.
    std::string keptFor(const QModelIndex& copy) const;

    AppModel& model_;
    AcrossModel results_;
    std::vector<std::string> folders_;
    bool searched_ = false;

    QListWidget* folderList_;
    QPushButton* addFolder_;
    QPushButton* removeFolder_;
    QPushButton* useScanFolders_;
    QCheckBox* alsoFolders_;
    QPushButton* search_;
    QPushButton* cancel_;
    QProgressBar* progress_;
    QLabel* progressText_;
    QLabel* summary_;
    QTreeView* list_;
    QLabel* details_;
    QPushButton* compare_;
    QPushButton* trash_;
    QLabel* outcome_;
};

}  // namespace dedup::app
