// The bar at the top of the main window for the update check: first it asks whether to check at
// all (nothing is fetched before the user says yes), later it announces a newer release with its
// download link and notes. It never downloads anything; the link opens in the user's browser.
// Main thread.
#pragma once

#include <QFrame>

class QLabel;
class QPushButton;

namespace dedup::app {

class UpdateCheck;

class UpdateBar : public QFrame {
    Q_OBJECT
public:
    explicit UpdateBar(UpdateCheck& check, QWidget* parent = nullptr);

    // What the bar says now, as rich text; empty while hidden.
    QString text() const;

private:
    void refresh();

    UpdateCheck& check_;
    QLabel* label_;
    QPushButton* allow_;
    QPushButton* refuse_;
    QPushButton* dismiss_;
    bool dismissed_ = false;
};

}  // namespace dedup::app
