// What the search across disks found, as one list, largest first: identical folder trees,
// identical files and nearly identical folders, each a row with its copies below it. Rows are
// entry numbers over the result's own vectors (the group's row in a child's internal id), never
// one object per row. Paths travel as the file system's bytes (PathRole).
//
// Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <QAbstractItemModel>

#include "across_volumes.h"

namespace dedup::app {

class AcrossModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Column { nameColumn, freesColumn, diskColumn, detailsColumn, columnCount_ };
    enum Role {
        PathRole = Qt::UserRole + 1,  // QByteArray: a copy's path (copies only)
        KindRole,                     // int: Kind of the group
    };
    enum class Kind { tree, file, near };

    explicit AcrossModel(QObject* parent = nullptr);

    void setResult(const AcrossResult& result);

    // The group a row belongs to, and the copies of that group by path.
    Kind kindOf(const QModelIndex& index) const;
    std::vector<std::string> copiesOf(const QModelIndex& index) const;
    // The copy a row names; "" for a group row.
    std::string pathOf(const QModelIndex& index) const;
    const AcrossTreeGroup* treeOf(const QModelIndex& index) const;
    const AcrossFileGroup* fileOf(const QModelIndex& index) const;
    const AcrossNearGroup* nearOf(const QModelIndex& index) const;
    // Where the disk holding `path` is mounted, as the list shows it.
    QString diskOf(const std::string& path) const;

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    struct Entry {
        Kind kind;
        uint32_t index;  // into the result's vector of that kind
        int64_t bytes;   // what the list is ordered by
    };
    const Entry* entryOf(const QModelIndex& index) const;
    QString groupName(const Entry& entry) const;
    QString groupDetails(const Entry& entry) const;

    AcrossResult result_;
    std::vector<Entry> entries_;
    mutable std::map<std::string, QString> disks_;  // by the folder holding a copy
};

}  // namespace dedup::app
