#include "reclaim_summary_dialog.h"

#include <QDialogButtonBox>
#include <QHeaderView>
#include <QLabel>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "app_model.h"
#include "desktop_actions.h"
#include "groups_model.h"
#include "skip_reason.h"

namespace dedup::app {

ReclaimSummaryDialog::ReclaimSummaryDialog(AppModel& model, QWidget* parent) : QDialog(parent), model_(model) {
    setWindowTitle(tr("Reclaim Finished"));
    setObjectName(QStringLiteral("reclaimSummary"));
    headline_ = new QLabel(this);
    headline_->setWordWrap(true);
    QFont bold = headline_->font();
    bold.setBold(true);
    headline_->setFont(bold);
    leftAlone_ = new QTreeWidget(this);
    leftAlone_->setAccessibleName(tr("Copies left alone"));
    leftAlone_->setHeaderLabels({tr("Copy left alone"), tr("Why")});
    leftAlone_->setRootIsDecorated(false);
    leftAlone_->setUniformRowHeights(true);
    leftAlone_->setTextElideMode(Qt::ElideMiddle);
    leftAlone_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    leftAlone_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    leftAlone_->header()->setStretchLastSection(false);
    holders_ = new QLabel(this);
    holders_->setWordWrap(true);
    holders_->setTextFormat(Qt::PlainText);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::close);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(headline_);
    layout->addWidget(leftAlone_, 1);
    layout->addWidget(holders_);
    layout->addWidget(buttons);
    resize(fontMetrics().horizontalAdvance(QLatin1Char('M')) * 50, fontMetrics().height() * 24);
    connect(&model_, &AppModel::spaceHoldersChanged, this, &ReclaimSummaryDialog::refresh);
    connect(&model_, &AppModel::summaryChanged, this, &ReclaimSummaryDialog::refresh);
}

QString ReclaimSummaryDialog::headline() const { return headline_->text(); }

void ReclaimSummaryDialog::refresh() {
    const auto& summary = model_.summary();
    if (!summary) return;
    QString text = tr("%1 freed: %n copies now share the blocks of the copy kept.", "",
                      static_cast<int>(summary->replaced))
                       .arg(bytesText(summary->freedBytes));
    if (summary->cancelled) text += ' ' + tr("Cancelled before the end; the rest was left as it was.");
    headline_->setText(text);

    leftAlone_->clear();
    for (const auto& [raw, paths] : summary->skipped) {
        auto reason = skipReasonNamed(raw);
        QString why = reason ? QString::fromUtf8(std::string(phrase(*reason))) : QString::fromStdString(raw);
        for (const auto& path : paths) {
            auto* item = new QTreeWidgetItem(leftAlone_, {displayPath(path), why});
            item->setToolTip(0, displayPath(path));
        }
    }
    for (const auto& [path, error] : summary->failed) {
        new QTreeWidgetItem(leftAlone_, {displayPath(path), tr("failed: %1").arg(QString::fromStdString(error))});
    }
    const bool anyLeft = leftAlone_->topLevelItemCount() > 0;
    leftAlone_->setVisible(anyLeft);
    if (!anyLeft && !summary->cancelled) headline_->setText(text + ' ' + tr("No copy had to be left alone."));

    QStringList held;
    if (const auto& holders = model_.spaceHolders()) {
        if (!holders->snapshots.empty()) {
            held << tr("%n snapshot(s) still hold the old blocks until they are deleted:", "",
                       static_cast<int>(holders->snapshots.size()));
            for (const auto& s : holders->snapshots) held << QStringLiteral("  ") + displayPath(s);
        }
        if (holders->trashBytes > 0) held << tr("The Trash holds %1.").arg(bytesText(holders->trashBytes));
        if (held.isEmpty()) held << tr("Nothing else holds space on this disk: no snapshots, and the Trash is empty.");
    }
    holders_->setText(held.join('\n'));
    holders_->setVisible(!held.isEmpty());
    // Without the list there is nothing to give the room to.
    if (!anyLeft) resize(width(), sizeHint().height());
}

}  // namespace dedup::app
