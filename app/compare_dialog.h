// Two copies side by side: path, size, dates, owner, permissions, extended attributes and ACL as
// they are on disk now, with the lines that differ marked, and a preview of pictures and text.
// Reads the files once when opened; nothing here changes them.
#pragma once

#include <string>

#include <QDialog>

class QTableWidget;

namespace dedup::app {

class AppModel;

class CompareDialog : public QDialog {
    Q_OBJECT
public:
    CompareDialog(AppModel& model, const std::string& left, const std::string& right, QWidget* parent = nullptr);

    // Rows whose two sides differ, by their label: what a test or a screen reader may ask.
    QStringList differences() const;

protected:
    void showEvent(QShowEvent* event) override;

private:
    QTableWidget* table_;
};

}  // namespace dedup::app
