// Edits a ScanOptions value: the smallest file looked at, the kinds of file, the folders left out
// and whether the home folder's cache is looked at. Holds a copy; the owner reads options() when
// the user is done, so a cancelled dialog changes nothing.
#pragma once

#include <QWidget>

#include "scan_options.h"

class QCheckBox;
class QComboBox;
class QLineEdit;
class QListWidget;
class QPushButton;
class QSpinBox;

namespace dedup::app {

class ScanOptionsEditor : public QWidget {
    Q_OBJECT
public:
    explicit ScanOptionsEditor(QWidget* parent = nullptr);

    void setOptions(const ScanOptions& options);
    ScanOptions options() const;

signals:
    void edited();

private:
    ScanOptions base_;  // fields the editor does not show (home folder, cloud files) pass through
    QSpinBox* minimumSize_;
    QComboBox* minimumUnit_;
    QLineEdit* extensions_;
    QListWidget* excluded_;
    QPushButton* addExcluded_;
    QPushButton* removeExcluded_;
    QCheckBox* includeCache_;
};

}  // namespace dedup::app
