// The application's window: a sidebar of screens (Scan & Reclaim, True Size, Across Disks,
// Automatic, Journal) beside the screen chosen, a Settings window, and the menus and shortcuts
// that reach them. Every screen talks only to the AppModel it is given; the window outlives none
// of them and owns them all.
#pragma once

#include <functional>

#include <QMainWindow>

class QAction;
class QDialog;
class QListWidget;
class QStackedWidget;

namespace dedup::app {

class AcrossView;
class AppModel;
class AutomaticView;
class JournalView;
class ScanView;
class TrueSizeView;
class UpdateBar;
class UpdateCheck;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    enum Screen { scanScreen, trueSizeScreen, acrossScreen, automaticScreen, journalScreen, screenCount };

    explicit MainWindow(AppModel& model, QWidget* parent = nullptr);

    void showScreen(Screen screen);
    Screen currentScreen() const;
    QWidget* screen(Screen screen) const;
    ScanView* scanView() const { return scan_; }
    TrueSizeView* trueSizeView() const { return trueSize_; }
    AcrossView* acrossView() const { return across_; }
    AutomaticView* automaticView() const { return automatic_; }
    JournalView* journalView() const { return journal_; }
    // Made on first use, kept afterwards.
    QDialog* settingsWindow();
    // The check for a newer release; null where the build leaves it out.
    UpdateCheck* updateCheck() const { return updates_; }
    UpdateBar* updateBar() const { return updateBar_; }
    // The About box's text: the version, the licence and the project's address.
    static QString aboutText();

    // What File > Open Scan, Save Scan and Export Table ask the user for: a file to read, or one
    // to write with the given suggested suffix. An empty answer cancels. Tests put in their own.
    enum class FileQuestion { openScan, saveScan, exportTable };
    using FileChooser = std::function<QString(FileQuestion)>;
    void setFileChooser(FileChooser chooser) { chooseFile_ = std::move(chooser); }

public slots:
    void showSettings();
    void showAbout();
    void openScan();
    void saveScan();
    void exportTable();

protected:
    // The update check starts once, when the window first appears.
    void showEvent(QShowEvent* event) override;

private:
    QString askForFile(FileQuestion question);
    // Open, Save and Export are offered only while no file task, scan or reclaim runs.
    void updateFileActions();

    AppModel& model_;
    FileChooser chooseFile_;
    QAction* openScan_ = nullptr;
    QAction* saveScan_ = nullptr;
    QAction* exportTable_ = nullptr;
    QListWidget* sidebar_;
    QStackedWidget* screens_;
    ScanView* scan_;
    TrueSizeView* trueSize_;
    AcrossView* across_;
    AutomaticView* automatic_;
    JournalView* journal_;
    QDialog* settings_ = nullptr;
    UpdateCheck* updates_ = nullptr;
    UpdateBar* updateBar_ = nullptr;
    bool shown_ = false;
};

}  // namespace dedup::app
