#include "journal_model.h"

#include <QDateTime>
#include <QLocale>

#include "byte_format.h"
#include "groups_model.h"

namespace dedup::app {

QString findingText(Journal::Finding finding) { return QString::fromUtf8(std::string(label(finding))); }

JournalModel::JournalModel(QObject* parent) : QAbstractTableModel(parent) {}

void JournalModel::setEntries(std::vector<JournalEntry> entries) {
    beginResetModel();
    entries_ = std::move(entries);
    rebuild();
    endResetModel();
}

void JournalModel::setFindings(const std::vector<std::pair<JournalEntry, Journal::Finding>>& findings) {
    findings_.clear();
    for (const auto& [entry, finding] : findings) findings_[entry.id] = finding;
    if (!rows_.empty()) emit dataChanged(index(0, verdictColumn), index(rowCount() - 1, verdictColumn));
}

void JournalModel::setFilter(std::optional<JournalEntry::Event> event, const std::string& pathContains) {
    beginResetModel();
    event_ = event;
    path_ = pathContains;
    rebuild();
    endResetModel();
}

void JournalModel::rebuild() {
    rows_.clear();
    // The file is in the order things happened; the newest is what a user looks for first.
    for (auto i = static_cast<int32_t>(entries_.size()) - 1; i >= 0; --i) {
        const JournalEntry& e = entries_[i];
        if (event_ && e.event != *event_) continue;
        if (!path_.empty() && e.target.find(path_) == std::string::npos) continue;
        rows_.push_back(i);
    }
}

const JournalEntry* JournalModel::entryAt(const QModelIndex& idx) const {
    if (!idx.isValid() || idx.model() != this || idx.row() >= static_cast<int>(rows_.size())) return nullptr;
    return &entries_[rows_[idx.row()]];
}

int JournalModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int JournalModel::columnCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : columnCount_; }

QVariant JournalModel::data(const QModelIndex& idx, int role) const {
    const JournalEntry* e = entryAt(idx);
    if (!e) return {};
    switch (role) {
        case Qt::DisplayRole:
            switch (idx.column()) {
                case timeColumn:
                    return QLocale().toString(QDateTime::fromSecsSinceEpoch(e->time).toLocalTime(), QLocale::ShortFormat);
                case eventColumn:
                    // A failure is only useful with its cause; a skip's label already has its phrase.
                    if (e->event == JournalEntry::Event::failed && e->detail) {
                        return QString::fromStdString(e->label() + ": " + *e->detail);
                    }
                    return QString::fromStdString(e->label());
                case pathColumn: return displayPath(e->target);
                case freedColumn:
                    return e->freedBytes ? QString::fromStdString(formatBytes(*e->freedBytes)) : QString();
                case verdictColumn: {
                    auto it = findings_.find(e->id);
                    return it == findings_.end() ? QString() : findingText(it->second);
                }
            }
            return {};
        case Qt::ToolTipRole:
            if (idx.column() == pathColumn) return displayPath(e->target);
            if (idx.column() == eventColumn && e->detail) return QString::fromStdString(*e->detail);
            // A blank verdict is no verdict: only Verify checks a replaced file again.
            if (idx.column() == verdictColumn && e->event == JournalEntry::Event::replaced && !findings_.contains(e->id)) {
                return tr("Not checked yet: Verify checks every replaced file again.");
            }
            return {};
        case Qt::TextAlignmentRole:
            if (idx.column() == freedColumn) return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
            return {};
        case PathRole: return QByteArray::fromStdString(e->target);
        case EventRole: return static_cast<int>(e->event);
    }
    return {};
}

QVariant JournalModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal) return {};
    if (role == Qt::ToolTipRole && section == verdictColumn) {
        return tr("What Verify found when it last checked each replaced file; blank until Verify is pressed.");
    }
    if (role != Qt::DisplayRole) return {};
    switch (section) {
        case timeColumn: return tr("When");
        case eventColumn: return tr("What happened");
        case pathColumn: return tr("File");
        case freedColumn: return tr("Freed");
        case verdictColumn: return tr("Verified");
    }
    return {};
}

}  // namespace dedup::app
