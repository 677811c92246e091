#include "scan_options_editor.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFile>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpression>
#include <QSpinBox>
#include <QVBoxLayout>

namespace dedup::app {

namespace {
// Decimal units, as the byte counts everywhere else read.
constexpr int64_t units[] = {1, 1000, 1000 * 1000, 1000 * 1000 * 1000};
}  // namespace

ScanOptionsEditor::ScanOptionsEditor(QWidget* parent) : QWidget(parent) {
    minimumSize_ = new QSpinBox(this);
    minimumSize_->setRange(1, 999999);
    minimumSize_->setAccessibleName(tr("Smallest file size"));
    minimumUnit_ = new QComboBox(this);
    minimumUnit_->addItems({tr("bytes"), tr("kB"), tr("MB"), tr("GB")});
    minimumUnit_->setAccessibleName(tr("Unit of the smallest file size"));
    auto* sizeRow = new QHBoxLayout;
    sizeRow->addWidget(minimumSize_);
    sizeRow->addWidget(minimumUnit_);
    sizeRow->addStretch();

    extensions_ = new QLineEdit(this);
    extensions_->setPlaceholderText(tr("All kinds; or e.g. jpg, heic, mov"));
    extensions_->setAccessibleName(tr("Only files with these extensions"));

    excluded_ = new QListWidget(this);
    excluded_->setAccessibleName(tr("Folders left out of the scan"));
    excluded_->setMinimumHeight(excluded_->fontMetrics().height() * 4);
    addExcluded_ = new QPushButton(tr("Leave Out a Folder…"), this);
    removeExcluded_ = new QPushButton(tr("Take Back"), this);
    removeExcluded_->setEnabled(false);
    auto* excludedButtons = new QHBoxLayout;
    excludedButtons->addWidget(addExcluded_);
    excludedButtons->addWidget(removeExcluded_);
    excludedButtons->addStretch();
    auto* excludedBox = new QVBoxLayout;
    excludedBox->addWidget(excluded_);
    excludedBox->addLayout(excludedButtons);

    includeCache_ = new QCheckBox(tr("Look in the home folder's .cache too"), this);

    auto* form = new QFormLayout(this);
    form->setContentsMargins(0, 0, 0, 0);
    form->addRow(tr("Smallest file:"), sizeRow);
    form->addRow(tr("Kinds of file:"), extensions_);
    form->addRow(tr("Left out:"), excludedBox);
    form->addRow(QString(), includeCache_);

    connect(minimumSize_, &QSpinBox::valueChanged, this, &ScanOptionsEditor::edited);
    connect(minimumUnit_, &QComboBox::currentIndexChanged, this, &ScanOptionsEditor::edited);
    connect(extensions_, &QLineEdit::textEdited, this, &ScanOptionsEditor::edited);
    connect(includeCache_, &QCheckBox::toggled, this, &ScanOptionsEditor::edited);
    connect(excluded_, &QListWidget::currentRowChanged, this, [this](int row) { removeExcluded_->setEnabled(row >= 0); });
    connect(addExcluded_, &QPushButton::clicked, this, [this] {
        QString folder = QFileDialog::getExistingDirectory(this, tr("Choose a folder to leave out of the scan"));
        if (folder.isEmpty()) return;
        auto* item = new QListWidgetItem(folder, excluded_);
        item->setData(Qt::UserRole, QFile::encodeName(folder));
        emit edited();
    });
    connect(removeExcluded_, &QPushButton::clicked, this, [this] {
        delete excluded_->currentItem();
        emit edited();
    });
}

void ScanOptionsEditor::setOptions(const ScanOptions& options) {
    base_ = options;
    int unit = 0;
    for (int i = 3; i > 0; --i) {
        if (options.minimumSize % units[i] == 0 && options.minimumSize / units[i] > 0) {
            unit = i;
            break;
        }
    }
    // 102400 is not a whole number of kB: it stays in bytes rather than being rounded.
    minimumUnit_->setCurrentIndex(unit);
    minimumSize_->setValue(static_cast<int>(std::min<int64_t>(options.minimumSize / units[unit], 999999)));
    QStringList kinds;
    if (options.allowedExtensions) {
        for (const auto& e : *options.allowedExtensions) kinds << QString::fromStdString(e);
    }
    extensions_->setText(kinds.join(QStringLiteral(", ")));
    excluded_->clear();
    for (const auto& path : options.excludedPaths) {
        auto* item = new QListWidgetItem(QFile::decodeName(QByteArray::fromStdString(path)), excluded_);
        item->setData(Qt::UserRole, QByteArray::fromStdString(path));  // the bytes, as they were
    }
    includeCache_->setChecked(options.includeLibrary);
}

ScanOptions ScanOptionsEditor::options() const {
    ScanOptions o = base_;
    o.minimumSize = std::max<int64_t>(1, minimumSize_->value() * units[minimumUnit_->currentIndex()]);
    o.allowedExtensions.reset();
    std::set<std::string> kinds;
    for (QString kind : extensions_->text().split(QRegularExpression(QStringLiteral("[,;\\s]+")), Qt::SkipEmptyParts)) {
        if (kind.startsWith('.')) kind.remove(0, 1);
        if (!kind.isEmpty()) kinds.insert(kind.toLower().toStdString());
    }
    if (!kinds.empty()) o.allowedExtensions = kinds;
    o.excludedPaths.clear();
    for (int i = 0; i < excluded_->count(); ++i) {
        o.excludedPaths.push_back(excluded_->item(i)->data(Qt::UserRole).toByteArray().toStdString());
    }
    o.includeLibrary = includeCache_->isChecked();
    return o;
}

}  // namespace dedup::app
