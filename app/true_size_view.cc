#include "true_size_view.h"

#include <QApplication>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QTreeView>
#include <QVBoxLayout>

#include "app_model.h"
#include "desktop_actions.h"
#include "groups_model.h"

namespace dedup::app {

namespace {

// Draws what a folder frees as a bar of its share of the folder above it, with the figure on it,
// through the style so it follows the desktop's theme.
class ShareBarDelegate : public QStyledItemDelegate {
public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override {
        QStyleOptionViewItem item = option;
        initStyleOption(&item, index);
        item.text.clear();
        QStyle* style = option.widget ? option.widget->style() : QApplication::style();
        style->drawControl(QStyle::CE_ItemViewItem, &item, painter, option.widget);

        QStyleOptionProgressBar bar;
        bar.rect = option.rect.adjusted(2, 2, -2, -2);
        bar.minimum = 0;
        bar.maximum = 1000;
        bar.progress = static_cast<int>(index.data(FolderSizeModel::ShareOfParentRole).toDouble() * 1000.0);
        bar.text = index.data(Qt::DisplayRole).toString();
        bar.textVisible = true;
        bar.textAlignment = Qt::AlignCenter;
        bar.state = option.state | QStyle::State_Horizontal;
        bar.palette = option.palette;
        bar.fontMetrics = option.fontMetrics;
        style->drawControl(QStyle::CE_ProgressBar, &bar, painter, option.widget);
    }
};

}  // namespace

TrueSizeView::TrueSizeView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    choose_ = new QPushButton(QIcon::fromTheme(QStringLiteral("folder-open")), tr("Choose Folder…"), this);
    choose_->setShortcut(QKeySequence::Open);
    cancel_ = new QPushButton(tr("Cancel"), this);
    cancel_->setShortcut(Qt::Key_Escape);
    cancel_->setVisible(false);
    folder_ = new QLabel(tr("Choose a folder to see what deleting it would really free."), this);
    folder_->setTextFormat(Qt::PlainText);
    folder_->setWordWrap(true);
    status_ = new QLabel(this);
    status_->setTextFormat(Qt::PlainText);
    status_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    auto* top = new QHBoxLayout;
    top->addWidget(choose_);
    top->addWidget(cancel_);
    top->addWidget(folder_, 1);

    tree_ = new QTreeView(this);
    tree_->setModel(&folders_);
    tree_->setAccessibleName(tr("Subfolders by what deleting them frees"));
    tree_->setUniformRowHeights(true);
    tree_->setAlternatingRowColors(true);
    tree_->setItemDelegateForColumn(FolderSizeModel::freesColumn, new ShareBarDelegate(tree_));
    tree_->header()->setSectionResizeMode(FolderSizeModel::nameColumn, QHeaderView::Stretch);
    tree_->header()->setStretchLastSection(false);
    const int figure = tree_->fontMetrics().horizontalAdvance(QStringLiteral("000.0 MB")) + tree_->fontMetrics().height();
    tree_->setColumnWidth(FolderSizeModel::freesColumn, figure * 2);
    for (int c = FolderSizeModel::logicalColumn; c < FolderSizeModel::columnCount_; ++c) tree_->setColumnWidth(c, figure);

    sentence_ = new QLabel(this);
    sentence_->setTextFormat(Qt::PlainText);
    sentence_->setWordWrap(true);
    sentence_->setAccessibleName(tr("What deleting the folder frees"));
    QFont bold = sentence_->font();
    bold.setBold(true);
    sentence_->setFont(bold);
    sharingNote_ = new QLabel(this);
    sharingNote_->setTextFormat(Qt::PlainText);
    sharingNote_->setWordWrap(true);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(status_);
    layout->addWidget(tree_, 1);
    layout->addWidget(sentence_);
    layout->addWidget(sharingNote_);

    connect(choose_, &QPushButton::clicked, this, &TrueSizeView::chooseFolder);
    connect(cancel_, &QPushButton::clicked, &model_, &AppModel::cancelTrueSize);
    connect(tree_->selectionModel(), &QItemSelectionModel::currentChanged, this, &TrueSizeView::showSentence);
    connect(&model_, &AppModel::trueSizeMeasured, this, &TrueSizeView::showMeasurement);
    connect(&model_, &AppModel::trueSizeProgress, this, [this](const QString& folder, qint64 files) {
        status_->setText(tr("%1 files counted; now in %2").arg(QLocale().toString(files)).arg(folder));
    });
    connect(&model_, &AppModel::trueSizeFailed, this, [this](const QString& folder, const QString& message) {
        status_->setText(tr("%1 could not be measured: %2").arg(folder, message));
        status_->setVisible(true);
        showBusy();
    });
    showMeasurement();
}

void TrueSizeView::chooseFolder() {
    QString folder = QFileDialog::getExistingDirectory(this, tr("Choose a folder to measure"));
    if (folder.isEmpty()) return;
    folder_->setText(folder);
    status_->setText(tr("Measuring…"));
    model_.measureTrueSize(folder);
    showBusy();
}

void TrueSizeView::showBusy() {
    const bool busy = model_.trueSizeBusy();
    cancel_->setVisible(busy);
    choose_->setEnabled(!busy);
}

void TrueSizeView::showMeasurement() {
    showBusy();
    const auto& size = model_.trueSize();
    if (!size) {
        folders_.clear();
        sentence_->clear();
        sharingNote_->clear();
        return;
    }
    status_->clear();
    folder_->setText(displayPath(size->path));
    folders_.setMeasurement(*size);
    tree_->expand(folders_.index(0, 0));
    tree_->setCurrentIndex(folders_.index(0, 0));
    if (model_.trueSizeSharing() == TrueSize::Sharing::resolved) {
        sharingNote_->setText(tr("Blocks shared between files were traced to every file using them."));
    } else if (size->uncertain > 0) {
        sharingNote_->setText(tr("%1 is shared with files this measurement cannot see, so it is not counted as "
                                 "freed. Telling exactly needs administrator rights on a Btrfs disk.")
                                  .arg(bytesText(size->uncertain)));
    } else {
        sharingNote_->setText(tr("No blocks in this folder are shared with other files."));
    }
    showSentence();
}

void TrueSizeView::showSentence() {
    const FolderSize* f = folders_.folderAt(tree_->currentIndex());
    if (!f) f = folders_.folderAt(folders_.index(0, 0));
    if (!f) {
        sentence_->clear();
        return;
    }
    sentence_->setText(tr("Deleting it frees %1; the file manager says %2.")
                           .arg(bytesText(f->freedIfDeleted), bytesText(f->logical)));
}

QString TrueSizeView::sentence() const { return sentence_->text(); }

}  // namespace dedup::app
