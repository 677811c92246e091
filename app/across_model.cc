#include "across_model.h"

#include <algorithm>

#include <QFile>
#include <QLocale>
#include <QStorageInfo>

#include "desktop_actions.h"
#include "path_names.h"

namespace dedup::app {

namespace {

// A child's internal id is its group's row plus one; a group's is 0.
constexpr quintptr groupId = 0;

QString shown(const std::string& path) { return QFile::decodeName(QByteArray::fromStdString(path)); }

QString filesText(int64_t n) {
    return QLocale().toString(static_cast<qlonglong>(n)) + (n == 1 ? AcrossModel::tr(" file") : AcrossModel::tr(" files"));
}

}  // namespace

AcrossModel::AcrossModel(QObject* parent) : QAbstractItemModel(parent) {}

void AcrossModel::setResult(const AcrossResult& result) {
    beginResetModel();
    result_ = result;
    entries_.clear();
    entries_.reserve(result_.trees.size() + result_.files.size() + result_.nearlyIdentical.size());
    for (size_t i = 0; i < result_.trees.size(); ++i) {
        entries_.push_back({Kind::tree, static_cast<uint32_t>(i), result_.trees[i].freedBytes});
    }
    for (size_t i = 0; i < result_.files.size(); ++i) {
        entries_.push_back({Kind::file, static_cast<uint32_t>(i), result_.files[i].freedBytes});
    }
    // Nearly identical folders free nothing as they stand; what they share is what could come back.
    for (size_t i = 0; i < result_.nearlyIdentical.size(); ++i) {
        entries_.push_back({Kind::near, static_cast<uint32_t>(i), result_.nearlyIdentical[i].sameBytes});
    }
    // Copies that can go first, most freed first; nearly identical folders, which free nothing
    // until someone has looked at what differs, after them.
    std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
        const bool aNear = a.kind == Kind::near, bNear = b.kind == Kind::near;
        if (aNear != bNear) return bNear;
        return a.bytes > b.bytes;
    });
    endResetModel();
}

const AcrossModel::Entry* AcrossModel::entryOf(const QModelIndex& index) const {
    if (!index.isValid() || index.model() != this) return nullptr;
    size_t row = index.internalId() == groupId ? static_cast<size_t>(index.row()) : index.internalId() - 1;
    return row < entries_.size() ? &entries_[row] : nullptr;
}

AcrossModel::Kind AcrossModel::kindOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    return entry ? entry->kind : Kind::file;
}

std::vector<std::string> AcrossModel::copiesOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    if (!entry) return {};
    switch (entry->kind) {
        case Kind::tree: return result_.trees[entry->index].folders;
        case Kind::near: return result_.nearlyIdentical[entry->index].folders;
        case Kind::file: break;
    }
    std::vector<std::string> paths;
    for (const auto& file : result_.files[entry->index].files) paths.push_back(file.path);
    return paths;
}

std::string AcrossModel::pathOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    if (!entry || index.internalId() == groupId) return {};
    const auto row = static_cast<size_t>(index.row());
    switch (entry->kind) {
        case Kind::tree: {
            const auto& folders = result_.trees[entry->index].folders;
            return row < folders.size() ? folders[row] : std::string();
        }
        case Kind::near: {
            const auto& folders = result_.nearlyIdentical[entry->index].folders;
            return row < folders.size() ? folders[row] : std::string();
        }
        case Kind::file: break;
    }
    const auto& files = result_.files[entry->index].files;
    return row < files.size() ? files[row].path : std::string();
}

const AcrossTreeGroup* AcrossModel::treeOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    return entry && entry->kind == Kind::tree ? &result_.trees[entry->index] : nullptr;
}

const AcrossFileGroup* AcrossModel::fileOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    return entry && entry->kind == Kind::file ? &result_.files[entry->index] : nullptr;
}

const AcrossNearGroup* AcrossModel::nearOf(const QModelIndex& index) const {
    const Entry* entry = entryOf(index);
    return entry && entry->kind == Kind::near ? &result_.nearlyIdentical[entry->index] : nullptr;
}

QString AcrossModel::diskOf(const std::string& path) const {
    const std::string folder = parentOf(path);
    auto found = disks_.find(folder);
    if (found != disks_.end()) return found->second;
    QStorageInfo storage(shown(folder));
    QString disk = storage.isValid() ? storage.rootPath() : tr("unknown disk");
    if (storage.isValid() && !storage.name().isEmpty()) disk = tr("%1 (%2)").arg(storage.rootPath(), storage.name());
    disks_.emplace(folder, disk);
    return disk;
}

QModelIndex AcrossModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_) return {};
    if (!parent.isValid()) {
        return static_cast<size_t>(row) < entries_.size() ? createIndex(row, column, groupId) : QModelIndex();
    }
    if (parent.internalId() != groupId || row >= rowCount(parent)) return {};
    return createIndex(row, column, static_cast<quintptr>(parent.row()) + 1);
}

QModelIndex AcrossModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == groupId) return {};
    return createIndex(static_cast<int>(child.internalId() - 1), 0, groupId);
}

int AcrossModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) return static_cast<int>(entries_.size());
    if (parent.column() != 0 || parent.internalId() != groupId) return 0;
    const Entry* entry = entryOf(parent);
    if (!entry) return 0;
    switch (entry->kind) {
        case Kind::tree: return static_cast<int>(result_.trees[entry->index].folders.size());
        case Kind::near: return static_cast<int>(result_.nearlyIdentical[entry->index].folders.size());
        case Kind::file: break;
    }
    return static_cast<int>(result_.files[entry->index].files.size());
}

int AcrossModel::columnCount(const QModelIndex&) const { return columnCount_; }

QString AcrossModel::groupName(const Entry& entry) const {
    switch (entry.kind) {
        case Kind::tree: return shown(nameOf(result_.trees[entry.index].folders.front())) + '/';
        case Kind::near: return shown(nameOf(result_.nearlyIdentical[entry.index].folders.front())) + '/';
        case Kind::file: break;
    }
    return shown(nameOf(result_.files[entry.index].files.front().path));
}

QString AcrossModel::groupDetails(const Entry& entry) const {
    switch (entry.kind) {
        case Kind::tree: {
            const auto& tree = result_.trees[entry.index];
            return tr("identical trees: %1, %2 each").arg(filesText(tree.fileCount), bytesText(tree.bytes));
        }
        case Kind::near: {
            const auto& near = result_.nearlyIdentical[entry.index];
            QStringList parts;
            parts << tr("%1 alike").arg(filesText(near.sameFiles));
            // Which side lacks what is on the copies' own rows.
            const size_t missing = near.onlyInFirst.size() + near.onlyInSecond.size();
            if (missing > 0) parts << tr("%1 missing").arg(QLocale().toString(static_cast<qulonglong>(missing)));
            if (!near.changed.empty()) parts << tr("%1 changed").arg(QLocale().toString(static_cast<qulonglong>(near.changed.size())));
            return parts.join(", ");
        }
        case Kind::file: break;
    }
    return tr("identical files, %1 each").arg(bytesText(result_.files[entry.index].size));
}

QVariant AcrossModel::data(const QModelIndex& index, int role) const {
    const Entry* entry = entryOf(index);
    if (!entry) return {};
    const bool isGroup = index.internalId() == groupId;
    if (role == KindRole) return static_cast<int>(entry->kind);
    if (role == PathRole) return isGroup ? QVariant() : QVariant(QByteArray::fromStdString(pathOf(index)));
    if (role == Qt::TextAlignmentRole && index.column() == freesColumn) {
        return QVariant::fromValue(Qt::Alignment(Qt::AlignRight | Qt::AlignVCenter));
    }
    if (role != Qt::DisplayRole && role != Qt::ToolTipRole) return {};
    if (isGroup) {
        switch (index.column()) {
            case nameColumn: return groupName(*entry);
            case freesColumn:
                return entry->kind == Kind::near ? tr("%1 alike").arg(bytesText(entry->bytes)) : bytesText(entry->bytes);
            case diskColumn: return tr("%n copies", "", rowCount(index.siblingAtColumn(0)));
            case detailsColumn: return groupDetails(*entry);
        }
        return {};
    }
    const std::string path = pathOf(index);
    switch (index.column()) {
        case nameColumn: return shown(path);
        case diskColumn: return diskOf(path);
        case detailsColumn:
            if (entry->kind == Kind::near) {
                const auto& near = result_.nearlyIdentical[entry->index];
                const auto& only = index.row() == 0 ? near.onlyInFirst : near.onlyInSecond;
                return only.empty() ? tr("nothing of its own") : tr("%n only here", "", static_cast<int>(only.size()));
            }
            return {};
    }
    return {};
}

QVariant AcrossModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
        case nameColumn: return tr("Copies");
        case freesColumn: return tr("Frees");
        case diskColumn: return tr("Disk");
        case detailsColumn: return tr("What is alike");
    }
    return {};
}

}  // namespace dedup::app
