#include "scan_view.h"

#include <filesystem>

#include <QComboBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QListWidget>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QShortcut>
#include <QSplitter>
#include <QTreeView>
#include <QUrl>
#include <QVBoxLayout>

#include "app_model.h"
#include "compare_dialog.h"
#include "desktop_actions.h"
#include "keep_rules.h"
#include "reclaim_summary_dialog.h"
#include "scan_options_editor.h"

namespace dedup::app {

namespace {

constexpr int64_t minimumSizes[] = {0, 1000 * 1000, 10 * 1000 * 1000, 100 * 1000 * 1000, 1000 * 1000 * 1000};

// The local files a drop names, as bytes. A uri-list carries each name's bytes percent-encoded,
// but QUrl decodes them as UTF-8 and turns any other byte into U+FFFD; where the bytes no longer
// name a file, the name is looked up on disk by the text the desktop shows.
std::vector<std::string> droppedPaths(const QMimeData& mime) {
    std::vector<std::string> paths;
    for (const QUrl& url : mime.urls()) {
        if (!url.isLocalFile()) continue;
        const QByteArray bytes = QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
        std::error_code failed;
        if (std::filesystem::exists(std::filesystem::symlink_status(bytes.toStdString(), failed))) {
            paths.push_back(bytes.toStdString());
            continue;
        }
        auto found = AppModel::folderFromText(url.toLocalFile());
        if (auto* path = std::get_if<std::string>(&found)) paths.push_back(*path);
    }
    return paths;
}

}  // namespace

ScanView::ScanView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    setAcceptDrops(true);

    // Folders and what to do with them.
    folders_ = new QListWidget(this);
    folders_->setAccessibleName(tr("Folders to look in"));
    folders_->setToolTip(tr("Drop folders here to add them"));
    folders_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    folders_->setMaximumHeight(folders_->fontMetrics().height() * 4 + folders_->frameWidth() * 2);
    folders_->setTextElideMode(Qt::ElideMiddle);
    addFolders_ = new QPushButton(QIcon::fromTheme(QStringLiteral("list-add")), tr("Add Folders…"), this);
    addFolders_->setShortcut(QKeySequence::Open);
    addFolders_->setToolTip(tr("Add folders to look in (%1)").arg(QKeySequence(QKeySequence::Open).toString(QKeySequence::NativeText)));
    removeFolder_ = new QPushButton(QIcon::fromTheme(QStringLiteral("list-remove")), tr("Remove"), this);
    removeFolder_->setEnabled(false);
    profile_ = new QComboBox(this);
    profile_->setAccessibleName(tr("Profile"));
    profile_->addItem(tr("Choose a Profile…"));
    profile_->addItem(tr("Developer folders"), static_cast<int>(Profile::Kind::developer));
    profile_->addItem(tr("Photos"), static_cast<int>(Profile::Kind::photo));
    profile_->addItem(tr("Whole home folder"), static_cast<int>(Profile::Kind::home));
    options_ = new QPushButton(tr("Scan Options…"), this);
    scan_ = new QPushButton(QIcon::fromTheme(QStringLiteral("edit-find")), tr("Scan"), this);
    scan_->setShortcut(QKeySequence::Refresh);
    scan_->setDefault(true);
    cancel_ = new QPushButton(tr("Cancel"), this);
    cancel_->setShortcut(Qt::Key_Escape);
    cancel_->setVisible(false);

    auto* folderButtons = new QVBoxLayout;
    folderButtons->addWidget(addFolders_);
    folderButtons->addWidget(removeFolder_);
    folderButtons->addWidget(profile_);
    folderButtons->addWidget(options_);
    folderButtons->addStretch();
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(folders_, 1);
    folderRow->addLayout(folderButtons);

    // Progress of the scan or reclaim under way.
    progress_ = new QProgressBar(this);
    progress_->setAccessibleName(tr("Progress"));
    progressText_ = new QLabel(this);
    currentPath_ = new QLabel(this);
    currentPath_->setTextFormat(Qt::PlainText);
    currentPath_->setMinimumWidth(1);  // a long path must not widen the window
    currentPath_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    auto* scanRow = new QHBoxLayout;
    scanRow->addWidget(scan_);
    scanRow->addWidget(cancel_);
    scanRow->addWidget(progress_, 1);
    scanRow->addWidget(progressText_);
    scanRow->addStretch();

    message_ = new QLabel(this);
    message_->setWordWrap(true);
    message_->setTextFormat(Qt::PlainText);
    message_->setVisible(false);
    message_->setAccessibleName(tr("Message"));
    message_->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
    dismiss_ = new QPushButton(tr("Dismiss"), this);
    dismiss_->setObjectName(QStringLiteral("dismiss"));
    dismiss_->setVisible(false);
    auto* messageRow = new QHBoxLayout;
    messageRow->addWidget(message_, 1);
    messageRow->addWidget(dismiss_);

    // What the last scan did, as `dedup scan` says it at its end.
    scanFigures_ = new QLabel(this);
    scanFigures_->setObjectName(QStringLiteral("scanFigures"));
    scanFigures_->setAccessibleName(tr("Scan figures"));
    scanFigures_->setTextFormat(Qt::PlainText);
    scanFigures_->setWordWrap(true);
    scanFigures_->setVisible(false);
    showUnreadable_ = new QPushButton(tr("Show Unreadable…"), this);
    showUnreadable_->setObjectName(QStringLiteral("showUnreadable"));
    showUnreadable_->setVisible(false);
    auto* figuresRow = new QHBoxLayout;
    figuresRow->addWidget(scanFigures_, 1);
    figuresRow->addWidget(showUnreadable_);

    // The groups, their filter and what can be done with a file.
    filterField_ = new QComboBox(this);
    filterField_->addItems({tr("Path"), tr("Name"), tr("Extension")});
    filterField_->setAccessibleName(tr("Filter by"));
    filterText_ = new QLineEdit(this);
    filterText_->setPlaceholderText(tr("Filter"));
    filterText_->setClearButtonEnabled(true);
    filterText_->setAccessibleName(tr("Filter text"));
    auto* findShortcut = new QShortcut(QKeySequence::Find, this);
    connect(findShortcut, &QShortcut::activated, filterText_, qOverload<>(&QWidget::setFocus));
    minimumSize_ = new QComboBox(this);
    minimumSize_->addItems({tr("Any size"), tr("1 MB and more"), tr("10 MB and more"), tr("100 MB and more"),
                            tr("1 GB and more")});
    minimumSize_->setAccessibleName(tr("Smallest size shown"));
    auto* filterRow = new QHBoxLayout;
    filterRow->addWidget(filterField_);
    filterRow->addWidget(filterText_, 1);
    filterRow->addWidget(minimumSize_);

    list_ = new QTreeView(this);
    list_->setModel(&groups_);
    list_->setAccessibleName(tr("Identical files"));
    list_->setUniformRowHeights(true);
    list_->setSortingEnabled(true);
    list_->header()->setSortIndicator(GroupsModel::freesColumn, Qt::DescendingOrder);
    list_->header()->setSectionResizeMode(GroupsModel::nameColumn, QHeaderView::Interactive);
    list_->header()->setSectionResizeMode(GroupsModel::folderColumn, QHeaderView::Stretch);
    list_->header()->setStretchLastSection(false);
    list_->setColumnWidth(GroupsModel::nameColumn, list_->fontMetrics().horizontalAdvance(QLatin1Char('M')) * 18);
    list_->setAlternatingRowColors(true);
    // The end of a path tells copies apart; the start is the same for all of them.
    list_->setTextElideMode(Qt::ElideMiddle);
    const int figure = list_->fontMetrics().horizontalAdvance(QStringLiteral("000.0 MB")) + list_->fontMetrics().height() * 2;
    list_->setColumnWidth(GroupsModel::sizeColumn, figure);
    list_->setColumnWidth(GroupsModel::freesColumn, figure);
    list_->header()->setSectionResizeMode(GroupsModel::copiesColumn, QHeaderView::ResizeToContents);
    list_->setSelectionBehavior(QAbstractItemView::SelectRows);
    list_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    list_->setContextMenuPolicy(Qt::ActionsContextMenu);

    total_ = new QLabel(this);
    total_->setAccessibleName(tr("Reclaimable total"));
    QFont big = total_->font();
    big.setBold(true);
    total_->setFont(big);
    keep_ = new QPushButton(tr("Keep This Copy"), this);
    keep_->setShortcut(Qt::CTRL | Qt::Key_K);
    keepEvery_ = new QPushButton(tr("Keep in Every Group"), this);
    keepEvery_->setObjectName(QStringLiteral("keepEvery"));
    auto* rules = new QMenu(keepEvery_);
    const std::pair<QString, KeepRule> ruleNames[] = {{tr("The Oldest Copy"), KeepRule::oldest},
                                                      {tr("The Newest Copy"), KeepRule::newest},
                                                      {tr("The Copy with the Shortest Path"), KeepRule::shortestPath}};
    for (const auto& [name, rule] : ruleNames) {
        rules->addAction(name, this, [this, rule = rule] {
            if (model_.result()) model_.keepCopies(copiesToKeep(model_.result()->groups, rule));
        });
    }
    keepEvery_->setMenu(rules);
    leaveOutFolder_ = new QPushButton(tr("Leave Out Folder"), this);
    leaveOutFolder_->setShortcut(Qt::CTRL | Qt::Key_L);
    open_ = new QPushButton(tr("Open"), this);
    open_->setShortcut(Qt::CTRL | Qt::Key_Return);
    reveal_ = new QPushButton(tr("Show in Folder"), this);
    reveal_->setShortcut(Qt::CTRL | Qt::SHIFT | Qt::Key_R);
    compare_ = new QPushButton(tr("Compare…"), this);
    compare_->setShortcut(Qt::CTRL | Qt::Key_D);
    reclaim_ = new QPushButton(tr("Reclaim…"), this);
    reclaim_->setShortcut(Qt::CTRL | Qt::SHIFT | Qt::Key_Return);
    for (QPushButton* b : {keep_, leaveOutFolder_, open_, reveal_, compare_}) {
        b->setToolTip(b->text() + QStringLiteral(" (") + b->shortcut().toString(QKeySequence::NativeText) + ')');
        b->setEnabled(false);
        auto* action = new QAction(b->text(), list_);
        connect(action, &QAction::triggered, b, &QPushButton::click);
        list_->addAction(action);
    }
    // Names for the tests and for accessibility tools that address controls by name.
    for (auto [button, name] : {std::pair{addFolders_, "addFolders"}, {removeFolder_, "removeFolder"}, {scan_, "scan"},
                                {cancel_, "cancel"}, {keep_, "keep"}, {leaveOutFolder_, "leaveOutFolder"},
                                {open_, "open"}, {reveal_, "reveal"}, {compare_, "compare"}, {reclaim_, "reclaim"}}) {
        button->setObjectName(QLatin1String(name));
    }
    auto* actionRow = new QHBoxLayout;
    actionRow->addWidget(keep_);
    actionRow->addWidget(keepEvery_);
    actionRow->addWidget(leaveOutFolder_);
    actionRow->addWidget(open_);
    actionRow->addWidget(reveal_);
    actionRow->addWidget(compare_);
    actionRow->addStretch();
    actionRow->addWidget(total_);
    actionRow->addWidget(reclaim_);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(folderRow);
    layout->addLayout(scanRow);
    layout->addWidget(currentPath_);
    layout->addLayout(messageRow);
    layout->addLayout(figuresRow);
    layout->addLayout(filterRow);
    layout->addWidget(list_, 1);
    layout->addLayout(actionRow);

    connect(addFolders_, &QPushButton::clicked, this, &ScanView::chooseFolders);
    connect(removeFolder_, &QPushButton::clicked, this, [this] {
        // By the folder's bytes: the text shown spells a name that is not UTF-8 with escapes.
        for (QListWidgetItem* item : folders_->selectedItems()) {
            model_.removePath(item->data(Qt::UserRole).toByteArray().toStdString());
        }
    });
    connect(folders_, &QListWidget::itemSelectionChanged, this,
            [this] { removeFolder_->setEnabled(!folders_->selectedItems().isEmpty()); });
    connect(profile_, &QComboBox::activated, this, [this](int row) {
        if (row <= 0) return;
        model_.choose(static_cast<Profile::Kind>(profile_->itemData(row).toInt()));
        profile_->setCurrentIndex(0);
    });
    connect(options_, &QPushButton::clicked, this, &ScanView::editOptions);
    connect(scan_, &QPushButton::clicked, &model_, &AppModel::scan);
    connect(cancel_, &QPushButton::clicked, &model_, &AppModel::cancelCurrent);
    connect(reclaim_, &QPushButton::clicked, this, &ScanView::startReclaim);
    connect(keep_, &QPushButton::clicked, this, &ScanView::keepSelected);
    connect(leaveOutFolder_, &QPushButton::clicked, this, &ScanView::leaveOutFolder);
    connect(open_, &QPushButton::clicked, this, [this] {
        if (const ScannedFile* f = groups_.fileAt(currentFile()); f && !openFile(f->path)) {
            model_.setError(tr("No application could open %1.").arg(displayPath(f->path)));
        }
    });
    connect(reveal_, &QPushButton::clicked, this, [this] {
        if (const ScannedFile* f = groups_.fileAt(currentFile()); f && !showInFileManager(f->path)) {
            model_.setError(tr("The file manager could not show %1.").arg(displayPath(f->path)));
        }
    });
    connect(compare_, &QPushButton::clicked, this, &ScanView::compareSelected);
    connect(showUnreadable_, &QPushButton::clicked, this, &ScanView::showUnreadable);
    connect(list_, &QTreeView::doubleClicked, this, [this](const QModelIndex& index) {
        if (groups_.fileAt(index)) open_->click();
    });
    connect(list_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &ScanView::showSelectedFile);
    connect(&groups_, &QAbstractItemModel::modelReset, this, &ScanView::showSelectedFile);
    connect(filterField_, &QComboBox::currentIndexChanged, this, &ScanView::applyFilter);
    connect(filterText_, &QLineEdit::textChanged, this, &ScanView::applyFilter);
    connect(minimumSize_, &QComboBox::currentIndexChanged, this, &ScanView::applyFilter);

    // The list asks; the model decides and answers through its own signals.
    connect(&groups_, &GroupsModel::excludeRequested, this, [this](const std::string& path, bool exclude) {
        Selection s = model_.selection();
        if (exclude) {
            s.excluded.insert(path);
        } else {
            s.excluded.erase(path);
        }
        model_.setSelection(std::move(s));
    });
    connect(&groups_, &GroupsModel::keepRequested, this,
            [this](int group, int file) { model_.keepCopy(static_cast<size_t>(group), static_cast<size_t>(file)); });
    connect(&groups_, &GroupsModel::reclaimableChanged, this, &ScanView::showTotal);
    connect(&groups_, &GroupsModel::busyChanged, this, &ScanView::showTotal);

    connect(&model_, &AppModel::sourcesChanged, this, [this] {
        showFolders();
        showPhase();
    });
    connect(&model_, &AppModel::phaseChanged, this, &ScanView::showPhase);
    connect(&model_, &AppModel::fileBusyChanged, this, &ScanView::showPhase);
    connect(&model_, &AppModel::progressChanged, this, &ScanView::showProgress);
    connect(&model_, &AppModel::resultChanged, this, &ScanView::showResult);
    connect(&model_, &AppModel::selectionChanged, this, [this] { groups_.setSelection(model_.selection()); });
    connect(&model_, &AppModel::keptCopyChanged, this, [this](int group) {
        const auto& result = model_.result();
        if (!result) return;
        if (group < 0 || group >= static_cast<int>(result->groups.size())) {
            showResult();
        } else {
            groups_.setGroup(group, result->groups[group]);
        }
    });
    connect(&model_, &AppModel::summaryChanged, this, &ScanView::showSummary);
    connect(&model_, &AppModel::errorChanged, this, [this] { showMessage(model_.error()); });
    connect(dismiss_, &QPushButton::clicked, this, [this] {
        if (model_.error().isEmpty()) {
            showMessage({});
        } else {
            model_.clearError();
        }
    });

    showFolders();
    showResult();
    showPhase();
    showMessage(model_.error());
}

void ScanView::showMessage(const QString& text) {
    message_->setText(text);
    message_->setVisible(!text.isEmpty());
    dismiss_->setVisible(!text.isEmpty());
}

void ScanView::chooseFolders() {
    QFileDialog dialog(this, tr("Choose the folders to look for identical files in"));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    // The desktop's own dialog takes one folder at a time; Qt's takes several.
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    dialog.setLabelText(QFileDialog::Accept, tr("Add"));
    if (auto* view = dialog.findChild<QListView*>(QStringLiteral("listView"))) {
        view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    }
    if (auto* tree = dialog.findChild<QTreeView*>()) tree->setSelectionMode(QAbstractItemView::ExtendedSelection);
    if (dialog.exec() == QDialog::Accepted) model_.add(dialog.selectedFiles());
}

void ScanView::editOptions() {
    QDialog dialog(this);
    dialog.setWindowTitle(tr("Scan Options"));
    auto* editor = new ScanOptionsEditor(&dialog);
    editor->setOptions(model_.options());
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, &dialog);
    connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* layout = new QVBoxLayout(&dialog);
    layout->addWidget(editor);
    layout->addWidget(buttons);
    if (dialog.exec() == QDialog::Accepted) model_.setOptions(editor->options());
}

void ScanView::dragEnterEvent(QDragEnterEvent* event) {
    if (!event->mimeData()->hasUrls()) return;
    for (const QUrl& url : event->mimeData()->urls()) {
        if (!url.isLocalFile()) return;
    }
    event->acceptProposedAction();
}

void ScanView::showFolders() {
    folders_->clear();
    for (const std::string& source : model_.sources()) {
        auto* item = new QListWidgetItem(AppModel::sourceText(source), folders_);
        item->setData(Qt::UserRole, QByteArray::fromStdString(source));
    }
}

void ScanView::dropEvent(QDropEvent* event) {
    std::vector<std::string> folders;
    QStringList notFolders;
    for (const std::string& path : droppedPaths(*event->mimeData())) {
        std::error_code failed;
        if (std::filesystem::is_directory(path, failed)) {
            folders.push_back(path);
        } else {
            notFolders << AppModel::sourceText(std::filesystem::path(path).filename().string());
        }
    }
    if (!folders.empty()) model_.addPaths(folders);
    if (!notFolders.isEmpty()) {
        model_.setError(tr("Only folders can be added; left out: %1.").arg(notFolders.join(QStringLiteral(", "))));
    }
    event->acceptProposedAction();
}

void ScanView::showPhase() {
    const auto phase = model_.phase();
    const bool idle = phase == AppModel::Phase::idle;
    scan_->setVisible(idle);
    // A scan started while a saved one is being opened would be overwritten by it.
    scan_->setEnabled(idle && !model_.fileBusy() && !model_.sources().empty());
    scan_->setToolTip(model_.sources().empty() ? tr("Add a folder first") : tr("Look for identical files (F5)"));
    cancel_->setVisible(!idle);
    progress_->setVisible(!idle);
    progressText_->setVisible(!idle);
    currentPath_->setVisible(!idle);
    addFolders_->setEnabled(idle);
    removeFolder_->setEnabled(idle && !folders_->selectedItems().isEmpty());
    profile_->setEnabled(idle);
    options_->setEnabled(idle);
    folders_->setEnabled(idle);
    showTotal();
    showProgress();
    showSelectedFile();
}

void ScanView::showProgress() {
    switch (model_.phase()) {
        case AppModel::Phase::scanning: {
            const ScanProgress& p = model_.scanProgress();
            progress_->setRange(0, 0);  // how many files there are is known only at the end
            const QString phase = p.phase == ScanProgress::Phase::walking ? tr("Looking at files") : tr("Comparing contents");
            progressText_->setText(tr("%1: %2 files seen, %3 read")
                                       .arg(phase, QLocale().toString(static_cast<qlonglong>(p.filesSeen)),
                                            bytesText(p.bytesRead)));
            currentPath_->setText(displayPath(p.current));
            break;
        }
        case AppModel::Phase::reclaiming: {
            const ReclaimProgress& p = model_.reclaimProgress();
            progress_->setRange(0, static_cast<int>(std::max<int64_t>(p.total, 1)));
            progress_->setValue(static_cast<int>(p.done));
            progressText_->setText(tr("Reclaiming: %1 of %2 copies, %3 freed")
                                       .arg(QLocale().toString(static_cast<qlonglong>(p.done)),
                                            QLocale().toString(static_cast<qlonglong>(p.total)), bytesText(p.freedBytes)));
            currentPath_->setText(displayPath(p.current));
            break;
        }
        case AppModel::Phase::idle:
            break;
    }
}

void ScanView::showResult() {
    const auto& result = model_.result();
    if (result) {
        groups_.setResult(result, model_.selection());
        list_->header()->setSortIndicator(GroupsModel::freesColumn, Qt::DescendingOrder);
        QStringList notes;
        if (result->groups.empty()) notes << tr("No identical files were found.");
        if (result->cancelled) notes << tr("The scan was cancelled: what is shown was found before that.");
        if (!result->leftovers.empty()) {
            notes << tr("%n temporary file(s) of an interrupted reclaim remain; Recover in the Journal puts them right.",
                        "", static_cast<int>(result->leftovers.size()));
        }
        if (model_.error().isEmpty()) showMessage(notes.join(' '));

        int64_t reclaimable = 0;
        for (const auto& group : result->groups) reclaimable += group.reclaimableBytes;
        const QLocale locale;
        auto count = [&](size_t n, const QString& one, const QString& many) {
            return n == 1 ? tr("1 %1").arg(one) : tr("%1 %2").arg(locale.toString(static_cast<qulonglong>(n)), many);
        };
        QString figures = tr("Looked at %1 files; read %2 to compare them. %3 can be reclaimed in %4.")
                              .arg(locale.toString(static_cast<qlonglong>(result->filesSeen)), bytesText(result->bytesRead),
                                   bytesText(reclaimable), count(result->groups.size(), tr("group"), tr("groups")));
        if (auto seconds = model_.scanSeconds()) {
            figures += ' ' + (*seconds < 1    ? tr("Took less than a second.")
                              : *seconds < 60 ? tr("Took %1 s.").arg(locale.toString(*seconds, 'f', 1))
                                            : tr("Took %1 min %2 s.")
                                                  .arg(static_cast<int>(*seconds) / 60)
                                                  .arg(static_cast<int>(*seconds) % 60));
        }
        QStringList unreadable;
        if (!result->unreadableFolders.empty()) {
            unreadable << count(result->unreadableFolders.size(), tr("folder"), tr("folders"));
        }
        if (!result->unreadableFiles.empty()) {
            unreadable << count(result->unreadableFiles.size(), tr("file"), tr("files"));
        }
        if (!unreadable.isEmpty()) {
            figures += ' ' + tr("%1 could not be read and were left out.").arg(unreadable.join(tr(" and ")));
        }
        scanFigures_->setText(figures);
        scanFigures_->setVisible(true);
        showUnreadable_->setVisible(!unreadable.isEmpty());
    } else {
        groups_.clear();
        scanFigures_->setVisible(false);
        showUnreadable_->setVisible(false);
    }
    showTotal();
}

void ScanView::showTotal() {
    const bool idle = model_.phase() == AppModel::Phase::idle;
    const auto result = model_.result();
    // While the list is being prepared, or a large change of the selection is being counted, the
    // figures are not yet those of the result.
    const bool ready = result && groups_.figuresCurrent();
    const int64_t bytes = ready ? groups_.reclaimableBytes() : 0;
    if (model_.fileBusy()) {
        total_->setText(tr("Working on the file…"));
    } else if (!result) {
        total_->setText(model_.phase() == AppModel::Phase::scanning ? tr("Scanning…") : tr("Nothing scanned yet"));
    } else if (!ready) {
        total_->setText(groups_.groupCount() == 0 && !result->groups.empty() ? tr("Preparing the list…") : tr("Counting…"));
    } else {
        total_->setText(tr("%1 to reclaim").arg(bytesText(bytes)));
    }
    reclaim_->setEnabled(idle && !model_.fileBusy() && bytes > 0);
    keepEvery_->setEnabled(idle && ready && !result->groups.empty());
}

QModelIndex ScanView::currentFile() const {
    QModelIndex index = list_->currentIndex();
    if (!index.isValid() || !groups_.fileAt(index)) return {};
    return index.siblingAtColumn(0);
}

void ScanView::showSelectedFile() {
    const bool idle = model_.phase() == AppModel::Phase::idle;
    QModelIndex file = currentFile();
    const bool isFile = file.isValid();
    keep_->setEnabled(idle && isFile && !file.data(GroupsModel::KeptRole).toBool());
    leaveOutFolder_->setEnabled(idle && isFile);
    open_->setEnabled(isFile);
    reveal_->setEnabled(isFile);
    const auto rows = list_->selectionModel()->selectedRows();
    compare_->setEnabled(rows.size() == 2 ? groups_.fileAt(rows[0]) && groups_.fileAt(rows[1]) : isFile);
}

void ScanView::applyFilter() {
    GroupsModel::Filter filter;
    filter.text = filterText_->text().toStdString();
    filter.field = static_cast<GroupsModel::FilterField>(filterField_->currentIndex());
    filter.minimumSize = minimumSizes[std::max(0, minimumSize_->currentIndex())];
    groups_.setFilter(filter);
}

void ScanView::leaveOutFolder() {
    const ScannedFile* f = groups_.fileAt(currentFile());
    if (!f) return;
    auto slash = f->path.find_last_of('/');
    if (slash == std::string::npos) return;
    Selection s = model_.selection();
    s.excluded.insert(slash == 0 ? std::string("/") : f->path.substr(0, slash));
    model_.setSelection(std::move(s));
}

void ScanView::keepSelected() { groups_.requestKeep(currentFile()); }

void ScanView::compareSelected() {
    const auto rows = list_->selectionModel()->selectedRows();
    const ScannedFile* left = nullptr;
    const ScannedFile* right = nullptr;
    if (rows.size() == 2) {
        left = groups_.fileAt(rows[0]);
        right = groups_.fileAt(rows[1]);
    } else if (QModelIndex file = currentFile(); file.isValid()) {
        // One copy chosen: side by side with the copy that is kept.
        left = groups_.fileAt(file.sibling(0, 0));
        right = groups_.fileAt(file);
    }
    if (!left || !right) return;
    auto* dialog = new CompareDialog(model_, left->path, right->path, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->show();
}

void ScanView::startReclaim() {
    if (model_.phase() != AppModel::Phase::idle || !model_.result() || !groups_.figuresCurrent()) return;
    // The list keeps these figures up to date as the selection changes; counting them afresh would
    // take a pass over every file.
    const PlannedReclaim plan{groups_.copiesToReclaim(), groups_.groupsToReclaim(), groups_.reclaimableBytes()};
    if (plan.copies == 0) return;
    QMessageBox ask(QMessageBox::Question, tr("Reclaim"),
                    tr("Make %n copies in %1 groups share the blocks of the copy kept, freeing %2?", "",
                       static_cast<int>(plan.copies))
                        .arg(QLocale().toString(static_cast<qlonglong>(plan.groups)), bytesText(plan.bytes)),
                    QMessageBox::Cancel, this);
    ask.setInformativeText(tr("Nothing is deleted: every copy keeps its place, name, dates and permissions."));
    QPushButton* go = ask.addButton(tr("Reclaim"), QMessageBox::AcceptRole);
    ask.setDefaultButton(go);
    ask.setObjectName(QStringLiteral("reclaimConfirmation"));
    ask.exec();
    if (ask.clickedButton() == go) model_.reclaim();
}

void ScanView::showUnreadable() {
    const auto result = model_.result();
    if (!result) return;
    auto* dialog = new QDialog(this);
    dialog->setObjectName(QStringLiteral("unreadable"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowTitle(tr("Could Not Be Read"));
    auto* explanation = new QLabel(tr("These were left out of the scan: their permissions do not let you read them, "
                                      "or they went away while the scan ran."),
                                   dialog);
    explanation->setWordWrap(true);
    auto* list = new QListWidget(dialog);
    list->setAccessibleName(tr("Folders and files that could not be read"));
    list->setUniformItemSizes(true);
    for (const auto& folder : result->unreadableFolders) list->addItem(tr("Folder: %1").arg(AppModel::sourceText(folder)));
    for (const auto& file : result->unreadableFiles) list->addItem(tr("File: %1").arg(AppModel::sourceText(file)));
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, dialog);
    connect(buttons, &QDialogButtonBox::rejected, dialog, &QDialog::reject);
    auto* layout = new QVBoxLayout(dialog);
    layout->addWidget(explanation);
    layout->addWidget(list, 1);
    layout->addWidget(buttons);
    dialog->resize(fontMetrics().horizontalAdvance(QLatin1Char('M')) * 50, fontMetrics().height() * 20);
    dialog->show();
}

void ScanView::showSummary() {
    if (!model_.summary()) return;
    if (!summary_) {
        summary_ = new ReclaimSummaryDialog(model_, this);
    }
    summary_->refresh();
    summary_->show();
    summary_->raise();
}

}  // namespace dedup::app
