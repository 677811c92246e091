// The True Size screen: a folder chosen by the user, measured in the background by the model, shown
// as a tree of its subfolders with what deleting each frees against what the file manager counts,
// with bars for each one's share of the folder above it.
#pragma once

#include <QWidget>

#include "folder_size_model.h"

class QLabel;
class QPushButton;
class QTreeView;

namespace dedup::app {

class AppModel;

class TrueSizeView : public QWidget {
    Q_OBJECT
public:
    explicit TrueSizeView(AppModel& model, QWidget* parent = nullptr);

    FolderSizeModel& folders() { return folders_; }
    QString sentence() const;

public slots:
    void chooseFolder();

private:
    void showMeasurement();
    void showSentence();
    void showBusy();

    AppModel& model_;
    FolderSizeModel folders_;
    QPushButton* choose_;
    QPushButton* cancel_;
    QLabel* folder_;
    QLabel* status_;
    QTreeView* tree_;
    QLabel* sentence_;
    QLabel* sharingNote_;
};

}  // namespace dedup::app
