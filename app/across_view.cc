#include "across_view.h"

#include <QCheckBox>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QTreeView>
#include <QVBoxLayout>

#include "app_model.h"
#include "compare_dialog.h"
#include "desktop_actions.h"

namespace dedup::app {

namespace {

QString shown(const std::string& path) { return QFile::decodeName(QByteArray::fromStdString(path)); }

QString count(int64_t n) { return QLocale().toString(static_cast<qlonglong>(n)); }

// "1 folder", "3 folders".
QString counted(int64_t n, const QString& one, const QString& many) { return count(n) + ' ' + (n == 1 ? one : many); }

// Two folders side by side: where they are, on which disk, and how much they hold; for nearly
// identical folders also what each has that the other lacks and what changed.
class FolderCompareDialog : public QDialog {
public:
    FolderCompareDialog(const AcrossModel& results, const QModelIndex& group, QWidget* parent) : QDialog(parent) {
        setWindowTitle(tr("Compare Folders"));
        setObjectName(QStringLiteral("compareFolders"));
        const auto copies = results.copiesOf(group);
        table_ = new QTableWidget(0, 2, this);
        auto* table = table_;
        table->setSelectionMode(QAbstractItemView::NoSelection);
        table->setFocusPolicy(Qt::NoFocus);
        table->setAccessibleName(tr("The two folders side by side"));
        table->setHorizontalHeaderLabels({tr("First copy"), tr("Second copy")});
        table->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
        table->setEditTriggers(QAbstractItemView::NoEditTriggers);
        table->setWordWrap(true);
        auto row = [&](const QString& label, const QString& left, const QString& right) {
            int r = table->rowCount();
            table->insertRow(r);
            table->setVerticalHeaderItem(r, new QTableWidgetItem(label));
            table->setItem(r, 0, new QTableWidgetItem(left));
            table->setItem(r, 1, new QTableWidgetItem(right));
        };
        const std::string left = copies.size() > 0 ? copies[0] : std::string();
        const std::string right = copies.size() > 1 ? copies[1] : std::string();
        row(tr("Folder"), shown(left), shown(right));
        row(tr("Disk"), results.diskOf(left), results.diskOf(right));
        if (const AcrossTreeGroup* tree = results.treeOf(group)) {
            row(tr("Files"), count(tree->fileCount), count(tree->fileCount));
            row(tr("Size"), bytesText(tree->bytes), bytesText(tree->bytes));
            row(tr("Contents"), tr("identical, file by file"), tr("identical, file by file"));
        } else if (const AcrossNearGroup* near = results.nearOf(group)) {
            auto list = [](const std::vector<std::string>& paths) {
                QStringList lines;
                for (const auto& path : paths) lines << shown(path);
                return lines.isEmpty() ? tr("nothing") : lines.join('\n');
            };
            row(tr("Alike"), tr("%1 files, %2").arg(count(near->sameFiles), bytesText(near->sameBytes)),
                tr("%1 files, %2").arg(count(near->sameFiles), bytesText(near->sameBytes)));
            row(tr("Only here"), list(near->onlyInFirst), list(near->onlyInSecond));
            row(tr("Changed"), list(near->changed), list(near->changed));
        }
        auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
        connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
        auto* layout = new QVBoxLayout(this);
        layout->addWidget(table, 1);
        layout->addWidget(buttons);
        const int line = fontMetrics().height();
        resize(line * 56, line * 16);
    }

protected:
    // Rows are as tall as their wrapped text only once the columns have their real width.
    void showEvent(QShowEvent* event) override {
        QDialog::showEvent(event);
        table_->resizeRowsToContents();
    }

private:
    QTableWidget* table_;
};

}  // namespace

AcrossView::AcrossView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    auto* intro = new QLabel(tr("Copies on different disks cannot share their blocks: the space comes back only when "
                                "one copy goes to the Trash. Choose folders on two or more disks."),
                             this);
    intro->setWordWrap(true);

    folderList_ = new QListWidget(this);
    folderList_->setAccessibleName(tr("Folders to search across disks"));
    folderList_->setMaximumHeight(folderList_->fontMetrics().height() * 4 + folderList_->frameWidth() * 2);
    folderList_->setTextElideMode(Qt::ElideMiddle);
    addFolder_ = new QPushButton(QIcon::fromTheme(QStringLiteral("list-add")), tr("Add Folder…"), this);
    removeFolder_ = new QPushButton(QIcon::fromTheme(QStringLiteral("list-remove")), tr("Remove"), this);
    removeFolder_->setEnabled(false);
    useScanFolders_ = new QPushButton(tr("Use the Scan Folders"), this);
    useScanFolders_->setObjectName(QStringLiteral("useScanFolders"));
    useScanFolders_->setToolTip(tr("Search the folders chosen on the Scan & Reclaim screen"));
    auto* folderButtons = new QVBoxLayout;
    folderButtons->addWidget(addFolder_);
    folderButtons->addWidget(removeFolder_);
    folderButtons->addWidget(useScanFolders_);
    folderButtons->addStretch();
    auto* folderRow = new QHBoxLayout;
    folderRow->addWidget(folderList_, 1);
    folderRow->addLayout(folderButtons);

    alsoFolders_ = new QCheckBox(tr("Also find identical folders"), this);
    alsoFolders_->setChecked(true);
    search_ = new QPushButton(QIcon::fromTheme(QStringLiteral("edit-find")), tr("Search"), this);
    search_->setObjectName(QStringLiteral("search"));
    search_->setDefault(true);
    cancel_ = new QPushButton(tr("Cancel"), this);
    cancel_->setObjectName(QStringLiteral("cancel"));
    cancel_->setShortcut(Qt::Key_Escape);
    progress_ = new QProgressBar(this);
    progress_->setAccessibleName(tr("Progress"));
    progress_->setRange(0, 0);  // how much there is to read is known only at the end
    progressText_ = new QLabel(this);
    auto* searchRow = new QHBoxLayout;
    searchRow->addWidget(alsoFolders_);
    searchRow->addStretch();
    searchRow->addWidget(progress_, 1);
    searchRow->addWidget(progressText_);
    searchRow->addWidget(search_);
    searchRow->addWidget(cancel_);

    summary_ = new QLabel(this);
    summary_->setWordWrap(true);
    list_ = new QTreeView(this);
    list_->setModel(&results_);
    list_->setAccessibleName(tr("Identical copies on different disks"));
    list_->setUniformRowHeights(true);
    list_->setAlternatingRowColors(true);
    list_->setTextElideMode(Qt::ElideMiddle);
    list_->header()->setStretchLastSection(false);
    list_->header()->setSectionResizeMode(AcrossModel::nameColumn, QHeaderView::Stretch);
    const int figure = list_->fontMetrics().horizontalAdvance(QStringLiteral("000.0 MB alike")) + list_->fontMetrics().height();
    list_->setColumnWidth(AcrossModel::freesColumn, figure);
    list_->setColumnWidth(AcrossModel::diskColumn, list_->fontMetrics().horizontalAdvance(QLatin1Char('M')) * 16);
    list_->setColumnWidth(AcrossModel::detailsColumn, list_->fontMetrics().horizontalAdvance(QLatin1Char('M')) * 24);

    details_ = new QLabel(this);
    details_->setWordWrap(true);
    details_->setTextFormat(Qt::PlainText);
    details_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    compare_ = new QPushButton(tr("Compare…"), this);
    compare_->setObjectName(QStringLiteral("compare"));
    trash_ = new QPushButton(QIcon::fromTheme(QStringLiteral("user-trash")), tr("Move to Trash…"), this);
    trash_->setObjectName(QStringLiteral("moveToTrash"));
    trash_->setToolTip(tr("Move the chosen copy to the Trash of its disk, after checking it against the copy kept"));
    auto* actionRow = new QHBoxLayout;
    actionRow->addWidget(details_, 1);
    actionRow->addWidget(compare_);
    actionRow->addWidget(trash_);
    outcome_ = new QLabel(this);
    outcome_->setObjectName(QStringLiteral("outcome"));
    outcome_->setWordWrap(true);
    outcome_->setTextFormat(Qt::PlainText);
    outcome_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    outcome_->setAccessibleName(tr("What the last move came to"));

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addLayout(folderRow);
    layout->addLayout(searchRow);
    layout->addWidget(summary_);
    layout->addWidget(list_, 1);
    layout->addLayout(actionRow);
    layout->addWidget(outcome_);

    connect(addFolder_, &QPushButton::clicked, this, &AcrossView::chooseFolder);
    connect(removeFolder_, &QPushButton::clicked, this, [this] {
        int row = folderList_->currentRow();
        if (row < 0 || static_cast<size_t>(row) >= folders_.size()) return;
        folders_.erase(folders_.begin() + row);
        showFolders();
    });
    connect(useScanFolders_, &QPushButton::clicked, this, [this] { setFolders(model_.sources()); });
    connect(folderList_, &QListWidget::currentRowChanged, this, [this](int row) { removeFolder_->setEnabled(row >= 0); });
    connect(search_, &QPushButton::clicked, this, &AcrossView::search);
    connect(cancel_, &QPushButton::clicked, &model_, &AppModel::cancelAcross);
    connect(compare_, &QPushButton::clicked, this, &AcrossView::compareSelected);
    connect(trash_, &QPushButton::clicked, this, &AcrossView::moveSelectedToTrash);
    connect(list_, &QTreeView::doubleClicked, this, &AcrossView::compareSelected);
    connect(list_->selectionModel(), &QItemSelectionModel::currentChanged, this, &AcrossView::showSelected);
    connect(&results_, &QAbstractItemModel::modelReset, this, &AcrossView::showSelected);
    connect(&model_, &AppModel::acrossBusyChanged, this, &AcrossView::showBusy);
    connect(&model_, &AppModel::sourcesChanged, this, &AcrossView::showBusy);
    connect(&model_, &AppModel::acrossProgressChanged, this, &AcrossView::showProgress);
    connect(&model_, &AppModel::acrossResultChanged, this, &AcrossView::showResult);
    connect(&model_, &AppModel::acrossMoved, this, [this](const QString& text, bool) {
        outcome_->setText(text);
        outcome_->setVisible(true);
    });

    setFolders(model_.sources());
    outcome_->setVisible(false);
    showResult();
    showBusy();
}

void AcrossView::setFolders(std::vector<std::string> folders) {
    folders_ = std::move(folders);
    showFolders();
}

void AcrossView::showFolders() {
    folderList_->clear();
    for (const auto& folder : folders_) {
        auto* item = new QListWidgetItem(shown(folder), folderList_);
        item->setToolTip(shown(folder));
    }
    removeFolder_->setEnabled(false);
    showBusy();
}

void AcrossView::chooseFolder() {
    QString folder = QFileDialog::getExistingDirectory(this, tr("Choose a Folder to Search"));
    if (folder.isEmpty()) return;
    std::string path = QFile::encodeName(folder).toStdString();
    if (std::find(folders_.begin(), folders_.end(), path) == folders_.end()) folders_.push_back(path);
    showFolders();
}

void AcrossView::search() {
    if (model_.acrossBusy() || folders_.size() < 2) return;
    outcome_->setVisible(false);
    searched_ = true;
    model_.searchAcross(folders_, alsoFolders_->isChecked());
}

void AcrossView::showBusy() {
    const bool busy = model_.acrossBusy();
    search_->setEnabled(!busy && folders_.size() >= 2);
    search_->setToolTip(folders_.size() < 2 ? tr("Choose folders on at least two disks first") : QString());
    cancel_->setVisible(busy);
    progress_->setVisible(busy);
    progressText_->setVisible(busy);
    addFolder_->setEnabled(!busy);
    useScanFolders_->setEnabled(!busy && !model_.sources().empty());
    folderList_->setEnabled(!busy);
    alsoFolders_->setEnabled(!busy);
    if (busy) showProgress();
    showSelected();
}

void AcrossView::showProgress() {
    const ScanProgress& p = model_.acrossProgress();
    const QString phase = p.phase == ScanProgress::Phase::walking ? tr("Looking at files") : tr("Comparing contents");
    progressText_->setText(tr("%1: %2 files seen, %3 read").arg(phase, count(p.filesSeen), bytesText(p.bytesRead)));
}

void AcrossView::showResult() {
    const auto& result = model_.acrossResult();
    results_.setResult(result ? *result : AcrossResult{});
    if (!result) {
        summary_->setText(searched_ ? tr("The search was cancelled; nothing is listed.")
                                    : tr("Nothing searched yet."));
        return;
    }
    int64_t freed = 0;
    for (const auto& tree : result->trees) freed += tree.freedBytes;
    for (const auto& file : result->files) freed += file.freedBytes;
    QString text;
    if (result->trees.empty() && result->files.empty() && result->nearlyIdentical.empty()) {
        text = tr("No identical files or folders on different disks: %1 files looked at.").arg(count(result->filesSeen));
    } else {
        text = tr("%1 and %2 on different disks; moving one copy of each to the Trash would free %3.")
                   .arg(counted(static_cast<int64_t>(result->trees.size()), tr("identical folder"), tr("identical folders")),
                        counted(static_cast<int64_t>(result->files.size()), tr("identical file"), tr("identical files")),
                        bytesText(freed));
        if (!result->nearlyIdentical.empty()) {
            text += ' ' + (result->nearlyIdentical.size() == 1
                               ? tr("1 folder is nearly identical to another.")
                               : tr("%1 folders are nearly identical to others.").arg(count(static_cast<int64_t>(result->nearlyIdentical.size()))));
        }
    }
    if (!result->unreadableFolders.empty()) {
        text += ' ' + tr("Folders that could not be read: %1.").arg(count(static_cast<int64_t>(result->unreadableFolders.size())));
    }
    summary_->setText(text);
}

void AcrossView::showSelected() {
    const QModelIndex current = list_->currentIndex();
    const bool any = current.isValid();
    const bool isCopy = any && current.parent().isValid();
    const auto kind = results_.kindOf(current);
    compare_->setEnabled(any && !model_.acrossBusy());
    // Nearly identical folders are not copies of one another: neither may go in place of the other.
    trash_->setEnabled(isCopy && kind != AcrossModel::Kind::near && !model_.acrossBusy());
    if (!any) {
        details_->setText(results_.rowCount() > 0 ? tr("Choose a copy to compare it or move it to the Trash.") : QString());
        return;
    }
    if (kind == AcrossModel::Kind::near) {
        const AcrossNearGroup* near = results_.nearOf(current);
        QStringList lines;
        for (const auto& path : near->onlyInFirst) lines << tr("only in %1: %2").arg(shown(near->folders[0]), shown(path));
        for (const auto& path : near->onlyInSecond) lines << tr("only in %1: %2").arg(shown(near->folders[1]), shown(path));
        for (const auto& path : near->changed) lines << tr("changed: %1").arg(shown(path));
        const int shownLines = 6;
        if (lines.size() > shownLines) {
            const auto more = lines.size() - shownLines;
            lines = lines.mid(0, shownLines);
            lines << tr("and %1 more (Compare shows all)").arg(more);
        }
        details_->setText(lines.join('\n'));
        return;
    }
    if (!isCopy) {
        details_->setText(tr("Choose the copy that should go to the Trash."));
        return;
    }
    const std::string copy = results_.pathOf(current);
    details_->setText(tr("%1 would go to the Trash; %2 is kept.").arg(shown(copy), shown(keptFor(current))));
}

std::string AcrossView::keptFor(const QModelIndex& copy) const {
    const auto copies = results_.copiesOf(copy);
    const std::string path = results_.pathOf(copy);
    const QString disk = results_.diskOf(path);
    std::string kept;
    for (const auto& other : copies) {
        if (other == path) continue;
        if (results_.diskOf(other) != disk) return other;
        if (kept.empty()) kept = other;
    }
    return kept;
}

void AcrossView::compareSelected() {
    const QModelIndex current = list_->currentIndex();
    if (!current.isValid()) return;
    const QModelIndex group = current.parent().isValid() ? current.parent() : current;
    if (results_.kindOf(group) == AcrossModel::Kind::file) {
        std::string left = results_.pathOf(current);
        std::string right = left.empty() ? std::string() : keptFor(current);
        if (left.empty()) {
            const auto copies = results_.copiesOf(group);
            if (copies.size() < 2) return;
            left = copies[0];
            right = copies[1];
        }
        auto* dialog = new CompareDialog(model_, left, right, this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->show();
        return;
    }
    auto* dialog = new FolderCompareDialog(results_, group, this);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->show();
}

void AcrossView::moveSelectedToTrash() {
    const QModelIndex current = list_->currentIndex();
    if (!current.isValid() || !current.parent().isValid() || model_.acrossBusy()) return;
    if (results_.kindOf(current) == AcrossModel::Kind::near) return;
    const std::string copy = results_.pathOf(current);
    const std::string kept = keptFor(current);
    if (copy.empty() || kept.empty()) return;
    const std::string trash = AppModel::trashFolderFor(copy);
    const bool folder = results_.kindOf(current) == AcrossModel::Kind::tree;
    QMessageBox ask(QMessageBox::Question, tr("Move to Trash"),
                    (folder ? tr("Move the folder %1 to the Trash?") : tr("Move %1 to the Trash?")).arg(shown(copy)),
                    QMessageBox::Cancel, this);
    ask.setInformativeText(
        tr("It goes to the Trash of its disk (%1), where it stays until the Trash is emptied.\n"
           "%2 on %3 is kept.\n"
           "Both are compared again byte for byte first; if anything changed since the search, nothing is moved.")
            .arg(trash.empty() ? tr("the disk's Trash") : shown(trash), shown(kept), results_.diskOf(kept)));
    QPushButton* go = ask.addButton(tr("Move to Trash"), QMessageBox::AcceptRole);
    ask.setDefaultButton(qobject_cast<QPushButton*>(ask.button(QMessageBox::Cancel)));
    ask.setObjectName(QStringLiteral("trashConfirmation"));
    ask.exec();
    if (ask.clickedButton() != go) return;
    outcome_->setText(tr("Checking both copies again…"));
    outcome_->setVisible(true);
    model_.moveAcrossToTrash(copy, kept);
}

QString AcrossView::outcome() const { return outcome_->isVisible() ? outcome_->text() : QString(); }

QString AcrossView::details() const { return details_->text(); }

}  // namespace dedup::app
