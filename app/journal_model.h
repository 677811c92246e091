// The journal's entries as a flat table, newest first, with the verdict of the last verification
// beside each replacement. Filtering by event and by path reorders a vector of entry numbers;
// the entries themselves are kept once.
//
// Main thread only.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <QAbstractTableModel>

#include "journal.h"

namespace dedup::app {

class JournalModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column { timeColumn, eventColumn, pathColumn, freedColumn, verdictColumn, columnCount_ };
    enum Role { PathRole = Qt::UserRole + 1, EventRole };

    explicit JournalModel(QObject* parent = nullptr);

    // Entries in file order (oldest first), as the journal reads them.
    void setEntries(std::vector<JournalEntry> entries);
    // One finding per "replaced" entry, matched by id.
    void setFindings(const std::vector<std::pair<JournalEntry, Journal::Finding>>& findings);
    // Absent event: every event. The path is matched as a case-sensitive substring of the bytes.
    void setFilter(std::optional<JournalEntry::Event> event, const std::string& pathContains);

    const JournalEntry* entryAt(const QModelIndex& index) const;
    int totalCount() const { return static_cast<int>(entries_.size()); }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    void rebuild();

    std::vector<JournalEntry> entries_;
    std::map<std::string, Journal::Finding> findings_;  // by entry id
    std::optional<JournalEntry::Event> event_;
    std::string path_;
    std::vector<int32_t> rows_;  // into entries_, newest first
};

// The verdict of a verification as a user reads it: "as reclaimed", "changed since", ...
QString findingText(Journal::Finding finding);

}  // namespace dedup::app
