#include "main_window.h"

#include <QAction>
#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMessageBox>
#include <QMenuBar>
#include <QScrollArea>
#include <QStackedWidget>
#include <QStatusBar>
#include <QStyle>
#include <QVBoxLayout>

#include "across_view.h"
#include "app_model.h"
#include "automatic_view.h"
#include "desktop_actions.h"
#include "journal_view.h"
#include "scan_view.h"
#include "settings_view.h"
#include "true_size_view.h"
#if DEDUP_UPDATE_CHECK
#include "update_bar.h"
#include "update_check.h"
#endif

// The icon is compiled into a static library, whose resources are registered only when asked.
static void loadResources() { Q_INIT_RESOURCE(app_resources); }

namespace dedup::app {

MainWindow::MainWindow(AppModel& model, QWidget* parent) : QMainWindow(parent), model_(model) {
    loadResources();
    setWindowTitle(QStringLiteral("VELMORA.dedup"));
    setWindowIcon(QIcon::fromTheme(QStringLiteral("org.velmora.dedup"), QIcon(QStringLiteral(":/org.velmora.dedup.svg"))));

    scan_ = new ScanView(model_, this);
    trueSize_ = new TrueSizeView(model_, this);
    automatic_ = new AutomaticView(model_, this);
    journal_ = new JournalView(model_, this);
    screens_ = new QStackedWidget(this);
    screens_->addWidget(scan_);
    screens_->addWidget(trueSize_);
    across_ = new AcrossView(model_, this);
    screens_->addWidget(across_);
    screens_->addWidget(automatic_);
    screens_->addWidget(journal_);

    sidebar_ = new QListWidget(this);
    sidebar_->setAccessibleName(tr("Screens"));
    sidebar_->setFrameShape(QFrame::NoFrame);
    sidebar_->setIconSize(QSize(sidebar_->fontMetrics().height() * 3 / 2, sidebar_->fontMetrics().height() * 3 / 2));
    const struct {
        QString name;
        const char* icon;
        QStyle::StandardPixmap fallback;
    } entries[] = {
        {tr("Scan & Reclaim"), "edit-find", QStyle::SP_FileDialogContentsView},
        {tr("True Size"), "drive-harddisk", QStyle::SP_DriveHDIcon},
        {tr("Across Disks"), "drive-removable-media", QStyle::SP_DriveNetIcon},
        {tr("Automatic"), "media-playback-start", QStyle::SP_MediaPlay},
        {tr("Journal"), "document-open-recent", QStyle::SP_FileDialogDetailedView},
    };
    int widest = 0;
    for (int i = 0; i < screenCount; ++i) {
        auto* item = new QListWidgetItem(QIcon::fromTheme(QString::fromLatin1(entries[i].icon), style()->standardIcon(entries[i].fallback)),
                                         entries[i].name, sidebar_);
        item->setToolTip(tr("%1 (Ctrl+%2)").arg(entries[i].name).arg(i + 1));
        item->setSizeHint(QSize(0, sidebar_->fontMetrics().height() * 2));
        widest = std::max(widest, sidebar_->fontMetrics().horizontalAdvance(entries[i].name));
    }
    sidebar_->setFixedWidth(widest + sidebar_->iconSize().width() + sidebar_->fontMetrics().height() * 3);
    connect(sidebar_, &QListWidget::currentRowChanged, screens_, &QStackedWidget::setCurrentIndex);

    auto* central = new QWidget(this);
    auto* column = new QVBoxLayout(central);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
#if DEDUP_UPDATE_CHECK
    updates_ = new UpdateCheck(model_.places().settingsFile, this);
    updateBar_ = new UpdateBar(*updates_, central);
    column->addWidget(updateBar_);
#endif
    auto* layout = new QHBoxLayout;
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(sidebar_);
    layout->addWidget(screens_, 1);
    column->addLayout(layout, 1);
    setCentralWidget(central);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    // Ctrl+O belongs to the screen shown (Add Folders, or Choose Folder in True Size); a second
    // owner here would make the key ambiguous and do nothing.
    file->addAction(tr("&Add Folders…"), this, [this] {
        showScreen(scanScreen);
        scan_->chooseFolders();
    });
    openScan_ = file->addAction(tr("&Open Scan…"), this, &MainWindow::openScan);
    openScan_->setObjectName(QStringLiteral("openScan"));
    openScan_->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_O));
    saveScan_ = file->addAction(tr("&Save Scan…"), this, &MainWindow::saveScan);
    saveScan_->setObjectName(QStringLiteral("saveScan"));
    saveScan_->setShortcut(QKeySequence::Save);
    exportTable_ = file->addAction(tr("&Export Table (CSV)…"), this, &MainWindow::exportTable);
    exportTable_->setObjectName(QStringLiteral("exportTable"));
    exportTable_->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
    file->addSeparator();
    QAction* settings = file->addAction(tr("&Settings…"), this, &MainWindow::showSettings);
    settings->setShortcuts({QKeySequence::Preferences, QKeySequence(Qt::CTRL | Qt::Key_Comma)});
    file->addSeparator();
    QAction* quit = file->addAction(tr("&Quit"), qApp, &QApplication::quit);
    quit->setShortcut(QKeySequence::Quit);
    QMenu* view = menuBar()->addMenu(tr("&View"));
    for (int i = 0; i < screenCount; ++i) {
        QAction* go = view->addAction(entries[i].name, this, [this, i] { showScreen(static_cast<Screen>(i)); });
        go->setShortcut(QKeySequence(Qt::CTRL | static_cast<Qt::Key>(Qt::Key_1 + i)));
    }
    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("&About VELMORA.dedup"), this, &MainWindow::showAbout);

    // Errors the model reports reach the status bar as well as the screen they happened on, so a
    // failure behind another screen is not missed.
    connect(&model_, &AppModel::errorChanged, this, [this] {
        if (model_.error().isEmpty()) {
            statusBar()->clearMessage();
        } else {
            statusBar()->showMessage(model_.error());
        }
    });

    connect(&model_, &AppModel::fileBusyChanged, this, &MainWindow::updateFileActions);
    connect(&model_, &AppModel::phaseChanged, this, &MainWindow::updateFileActions);
    connect(&model_, &AppModel::resultChanged, this, &MainWindow::updateFileActions);
    connect(&model_, &AppModel::scanLoaded, this, [this](bool ok, const QString& message) {
        if (ok) {
            showScreen(scanScreen);
            statusBar()->showMessage(tr("The saved scan is open."), 5000);
        } else {
            statusBar()->showMessage(message);
        }
    });
    connect(&model_, &AppModel::exported, this, [this](bool ok, const QString& message) {
        statusBar()->showMessage(ok ? tr("Saved.") : message, ok ? 5000 : 0);
    });
    updateFileActions();

    chooseFile_ = [this](FileQuestion question) {
        switch (question) {
            case FileQuestion::openScan:
                return QFileDialog::getOpenFileName(this, tr("Open a Saved Scan"), {}, tr("Saved scans (*.json)"));
            case FileQuestion::saveScan:
                return QFileDialog::getSaveFileName(this, tr("Save the Scan"), tr("scan.json"), tr("Saved scans (*.json)"));
            case FileQuestion::exportTable:
                return QFileDialog::getSaveFileName(this, tr("Export the Table"), tr("copies.csv"), tr("Tables (*.csv)"));
        }
        return QString();
    };

    sidebar_->setCurrentRow(scanScreen);
    const int line = fontMetrics().height();
    resize(line * 66, line * 44);
}

void MainWindow::updateFileActions() {
    const bool free = !model_.fileBusy() && model_.phase() == AppModel::Phase::idle;
    openScan_->setEnabled(free);
    saveScan_->setEnabled(free && model_.hasResult());
    exportTable_->setEnabled(free && model_.hasResult());
    if (model_.fileBusy()) statusBar()->showMessage(tr("Working on the file…"));
}

QString MainWindow::askForFile(FileQuestion question) { return chooseFile_ ? chooseFile_(question) : QString(); }

void MainWindow::openScan() {
    const QString file = askForFile(FileQuestion::openScan);
    if (!file.isEmpty()) model_.loadScan(file);
}

void MainWindow::saveScan() {
    const QString file = askForFile(FileQuestion::saveScan);
    if (!file.isEmpty()) model_.exportScan(file);
}

void MainWindow::exportTable() {
    const QString file = askForFile(FileQuestion::exportTable);
    if (!file.isEmpty()) model_.exportCsv(file);
}

void MainWindow::showScreen(Screen screen) { sidebar_->setCurrentRow(screen); }

MainWindow::Screen MainWindow::currentScreen() const { return static_cast<Screen>(screens_->currentIndex()); }

QWidget* MainWindow::screen(Screen screen) const { return screens_->widget(screen); }

QDialog* MainWindow::settingsWindow() {
    if (!settings_) {
        settings_ = new QDialog(this);
        settings_->setWindowTitle(tr("Settings"));
        settings_->setObjectName(QStringLiteral("settings"));
        auto* area = new QScrollArea(settings_);
        area->setWidgetResizable(true);
        area->setFrameShape(QFrame::NoFrame);
        auto* view = new SettingsView(model_, area);
        if (updates_) view->addUpdateSwitch(*updates_);
        area->setWidget(view);
        auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, settings_);
        connect(buttons, &QDialogButtonBox::rejected, settings_, &QDialog::close);
        auto* layout = new QVBoxLayout(settings_);
        layout->addWidget(area, 1);
        layout->addWidget(buttons);
        const int line = fontMetrics().height();
        settings_->resize(line * 38, line * 42);
    }
    return settings_;
}

QString MainWindow::aboutText() {
    QString version = QCoreApplication::applicationVersion();
    if (version.isEmpty()) version = tr("unknown");
    return tr("<h3>VELMORA.dedup</h3>"
              "<p>Version %1</p>"
              "<p>Gives back the space that identical files take, without deleting any.</p>"
              "<p>Proprietary software. Copyright VELMORA. All rights reserved.</p>"
              "<p><a href=\"https://velmora.example/dedup\">https://velmora.example/dedup</a></p>")
        .arg(version.toHtmlEscaped());
}

void MainWindow::showAbout() { QMessageBox::about(this, tr("About VELMORA.dedup"), aboutText()); }

void MainWindow::showEvent(QShowEvent* event) {
    QMainWindow::showEvent(event);
    if (shown_) return;
    shown_ = true;
#if DEDUP_UPDATE_CHECK
    updates_->check();
#endif
}

void MainWindow::showSettings() {
    QDialog* dialog = settingsWindow();
    dialog->show();
    dialog->raise();
    dialog->activateWindow();
}

}  // namespace dedup::app
