#include "folder_size_model.h"

#include "byte_format.h"
#include "groups_model.h"

namespace dedup::app {

FolderSizeModel::FolderSizeModel(QObject* parent) : QAbstractItemModel(parent) {}

void FolderSizeModel::setMeasurement(const FolderSize& root) {
    beginResetModel();
    root_ = root;
    nodes_.clear();
    add(root_, -1, 0);
    endResetModel();
}

void FolderSizeModel::clear() {
    beginResetModel();
    root_ = {};
    nodes_.clear();
    endResetModel();
}

void FolderSizeModel::add(const FolderSize& folder, int32_t parent, int32_t row) {
    auto self = static_cast<int32_t>(nodes_.size());
    nodes_.push_back({&folder, parent, row, {}});
    if (parent >= 0) nodes_[parent].children.push_back(self);
    int32_t childRow = 0;
    for (const auto& child : folder.children) add(child, self, childRow++);
}

const FolderSize* FolderSizeModel::folderAt(const QModelIndex& idx) const {
    if (!idx.isValid() || idx.model() != this) return nullptr;
    return nodes_[idx.internalId()].folder;
}

QModelIndex FolderSizeModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_) return {};
    if (!parent.isValid()) return (row == 0 && !nodes_.empty()) ? createIndex(0, column, quintptr{0}) : QModelIndex();
    const Node& node = nodes_[parent.internalId()];
    if (row >= static_cast<int>(node.children.size())) return {};
    return createIndex(row, column, static_cast<quintptr>(node.children[row]));
}

QModelIndex FolderSizeModel::parent(const QModelIndex& child) const {
    if (!child.isValid()) return {};
    int32_t parent = nodes_[child.internalId()].parent;
    if (parent < 0) return {};
    return createIndex(nodes_[parent].row, 0, static_cast<quintptr>(parent));
}

int FolderSizeModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) return nodes_.empty() ? 0 : 1;
    if (parent.column() != 0) return 0;
    return static_cast<int>(nodes_[parent.internalId()].children.size());
}

int FolderSizeModel::columnCount(const QModelIndex&) const { return columnCount_; }

QVariant FolderSizeModel::data(const QModelIndex& idx, int role) const {
    if (!idx.isValid()) return {};
    const Node& node = nodes_[idx.internalId()];
    const FolderSize& f = *node.folder;
    auto bytes = [&]() -> int64_t {
        switch (idx.column()) {
            case freesColumn: return f.freedIfDeleted;
            case logicalColumn: return f.logical;
            case allocatedColumn: return f.allocated;
            case uncertainColumn: return f.uncertain;
        }
        return 0;
    };
    switch (role) {
        case Qt::DisplayRole:
            if (idx.column() == nameColumn) {
                if (node.parent < 0) return displayPath(f.path);
                auto slash = f.path.find_last_of('/');
                return displayPath(slash == std::string::npos ? f.path : f.path.substr(slash + 1));
            }
            return QString::fromStdString(formatBytes(bytes()));
        case Qt::ToolTipRole: return displayPath(f.path);
        case Qt::TextAlignmentRole:
            if (idx.column() != nameColumn) return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
            return {};
        case PathRole: return QByteArray::fromStdString(f.path);
        case BytesRole: return QVariant::fromValue<qint64>(bytes());
        case ShareOfParentRole: {
            // The top row is the whole; each subfolder is measured against the folder it lies in.
            if (node.parent < 0) return 1.0;
            int64_t whole = nodes_[node.parent].folder->freedIfDeleted;
            return whole > 0 ? static_cast<double>(f.freedIfDeleted) / static_cast<double>(whole) : 0.0;
        }
    }
    return {};
}

QVariant FolderSizeModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
        case nameColumn: return tr("Folder");
        case freesColumn: return tr("Deleting frees");
        case logicalColumn: return tr("Logical");
        case allocatedColumn: return tr("Allocated");
        case uncertainColumn: return tr("Uncertain");
    }
    return {};
}

}  // namespace dedup::app
