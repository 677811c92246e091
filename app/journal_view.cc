#include "journal_view.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTableView>
#include <QVBoxLayout>

#include "app_model.h"

namespace dedup::app {

JournalView::JournalView(AppModel& model, QWidget* parent) : QWidget(parent), model_(model) {
    event_ = new QComboBox(this);
    event_->setAccessibleName(tr("Show entries of kind"));
    event_->addItem(tr("Everything"), -1);
    const std::pair<QString, JournalEntry::Event> kinds[] = {
        {tr("Clones made"), JournalEntry::Event::replaced}, {tr("Left alone"), JournalEntry::Event::skipped},
        {tr("Failed"), JournalEntry::Event::failed},        {tr("Started"), JournalEntry::Event::started},
        {tr("Put right"), JournalEntry::Event::recovered},  {tr("To the Trash"), JournalEntry::Event::trashed},
    };
    for (const auto& [name, kind] : kinds) event_->addItem(name, static_cast<int>(kind));
    path_ = new QLineEdit(this);
    path_->setPlaceholderText(tr("Filter by path"));
    path_->setClearButtonEnabled(true);
    path_->setAccessibleName(tr("Filter by path"));
    verify_ = new QPushButton(tr("Verify"), this);
    verify_->setToolTip(tr("Check that every replaced file still holds what it held"));
    recover_ = new QPushButton(tr("Recover"), this);
    recover_->setToolTip(tr("Put right replacements an interrupted run left unfinished"));
    auto* top = new QHBoxLayout;
    top->addWidget(event_);
    top->addWidget(path_, 1);
    top->addWidget(verify_);
    top->addWidget(recover_);

    table_ = new QTableView(this);
    table_->setModel(&entries_);
    table_->setAccessibleName(tr("Journal entries, newest first"));
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setAlternatingRowColors(true);
    table_->verticalHeader()->hide();
    table_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table_->horizontalHeader()->setSectionResizeMode(JournalModel::pathColumn, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(JournalModel::timeColumn, QHeaderView::ResizeToContents);
    table_->horizontalHeader()->setSectionResizeMode(JournalModel::eventColumn, QHeaderView::ResizeToContents);
    table_->setWordWrap(false);
    table_->setTextElideMode(Qt::ElideMiddle);
    table_->verticalHeader()->setDefaultSectionSize(table_->fontMetrics().height() + table_->fontMetrics().height() / 2);

    status_ = new QLabel(this);
    status_->setTextFormat(Qt::PlainText);
    status_->setWordWrap(true);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(top);
    layout->addWidget(table_, 1);
    layout->addWidget(status_);

    connect(event_, &QComboBox::currentIndexChanged, this, &JournalView::applyFilter);
    connect(path_, &QLineEdit::textChanged, this, &JournalView::applyFilter);
    connect(verify_, &QPushButton::clicked, &model_, &AppModel::verifyJournal);
    connect(recover_, &QPushButton::clicked, &model_, &AppModel::recoverJournal);
    connect(&model_, &AppModel::journalChanged, this, [this] {
        entries_.setEntries(model_.journalEntries());
        entries_.setFindings(model_.journalFindings());
        status_->setText(tr("%n entries in the journal.", "", entries_.totalCount()));
    });
    connect(&model_, &AppModel::journalBusyChanged, this, &JournalView::showBusy);
    connect(&model_, &AppModel::journalVerified, this, [this] {
        entries_.setFindings(model_.journalFindings());
        int changed = 0;
        for (const auto& [entry, finding] : model_.journalFindings()) changed += finding != Journal::Finding::intact;
        status_->setText(changed == 0 ? tr("Every replaced file is as it was reclaimed.")
                                      : tr("%n replaced file(s) changed since or are gone; see Verified.", "", changed));
    });
    connect(&model_, &AppModel::journalRecovered, this, [this](int count) {
        status_->setText(count == 0 ? tr("Nothing was left unfinished.") : tr("%n interrupted replacement(s) put right.", "", count));
    });
    entries_.setEntries(model_.journalEntries());
    entries_.setFindings(model_.journalFindings());
    showBusy();
}

void JournalView::showEvent(QShowEvent* event) {
    model_.reloadJournal();
    QWidget::showEvent(event);
}

void JournalView::applyFilter() {
    int kind = event_->currentData().toInt();
    std::optional<JournalEntry::Event> event;
    if (kind >= 0) event = static_cast<JournalEntry::Event>(kind);
    entries_.setFilter(event, path_->text().toStdString());
}

void JournalView::showBusy() {
    const bool busy = model_.journalBusy();
    verify_->setEnabled(!busy);
    recover_->setEnabled(!busy);
    if (busy) status_->setText(tr("Checking the journal…"));
}

}  // namespace dedup::app
