// A measured folder and its subfolders as a tree model: what deleting each frees, its logical and
// allocated size and the bytes whose sharing could not be told. The nested FolderSize is flattened
// into one array of nodes (parent and children by number), so an index's internal id is simply
// the node's number. Children keep the measurement's order, largest freed first.
//
// Main thread only.
#pragma once

#include <cstdint>
#include <vector>

#include <QAbstractItemModel>

#include "true_size.h"

namespace dedup::app {

class FolderSizeModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Column { nameColumn, freesColumn, logicalColumn, allocatedColumn, uncertainColumn, columnCount_ };
    enum Role {
        PathRole = Qt::UserRole + 1,  // QByteArray: the folder's own bytes
        ShareOfParentRole,            // double 0..1: what it frees against what its parent frees
        BytesRole,                    // qint64: the column's figure
    };

    explicit FolderSizeModel(QObject* parent = nullptr);

    void setMeasurement(const FolderSize& root);
    void clear();
    bool isEmpty() const { return nodes_.empty(); }
    // The node behind an index; null for an invalid one.
    const FolderSize* folderAt(const QModelIndex& index) const;

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;

private:
    struct Node {
        const FolderSize* folder = nullptr;  // into root_
        int32_t parent = -1;
        int32_t row = 0;  // among its parent's children
        std::vector<int32_t> children;
    };
    void add(const FolderSize& folder, int32_t parent, int32_t row);

    FolderSize root_;
    std::vector<Node> nodes_;  // nodes_[0] is the measured folder, shown as the only top row
};

}  // namespace dedup::app
