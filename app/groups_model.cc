#include "groups_model.h"

#include <algorithm>

#include <QFile>
#include <QFont>

#include "byte_format.h"

namespace dedup::app {

namespace {

// File ids carry their group plus one, so 0 can mean "a group row".
constexpr quintptr groupRowId = 0;

char lowerAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool containsFolded(std::string_view haystack, std::string_view needle) {
    if (needle.empty()) return true;
    auto it = std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                          [](char a, char b) { return lowerAscii(a) == b; });
    return it != haystack.end();
}

std::string_view extensionOf(std::string_view name) {
    auto dot = name.find_last_of('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return name.substr(dot + 1);
}

bool equalFolded(std::string_view a, std::string_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lowerAscii(x) == y; });
}

}  // namespace

QString displayPath(const std::string& path) { return QFile::decodeName(QByteArray::fromStdString(path)); }

GroupsModel::GroupsModel(QObject* parent) : QAbstractItemModel(parent) {}

void GroupsModel::setResult(const ScanResult& result, const Selection& selection) {
    beginResetModel();
    groups_.clear();
    files_.clear();
    size_t fileTotal = 0;
    for (const auto& g : result.groups) fileTotal += g.files.size();
    groups_.reserve(result.groups.size());
    files_.reserve(fileTotal);
    for (const auto& g : result.groups) {
        Group group;
        group.digest = g.digest;
        group.first = static_cast<int32_t>(files_.size());
        group.count = static_cast<int32_t>(g.files.size());
        for (const auto& f : g.files) {
            File file;
            file.file = f;
            file.group = static_cast<int32_t>(groups_.size());
            auto slash = f.path.find_last_of('/');
            file.nameStart = slash == std::string::npos ? 0 : static_cast<int32_t>(slash + 1);
            files_.push_back(std::move(file));
        }
        groups_.push_back(std::move(group));
    }
    selection_ = selection;
    sortKey_ = SortKey::frees;
    sortOrder_ = Qt::DescendingOrder;
    // One pass of the plan over the groups as given, rather than group by group over copies.
    auto targets = Report::targets(result.groups, selection_);
    size_t t = 0;
    reclaimable_ = 0;
    for (Group& group : groups_) {
        group.frees = 0;
        for (int32_t i = 0; i < group.count; ++i) {
            File& file = files_[group.first + i];
            file.excluded = i > 0 && leftOut(file.file.path);
            if (t < targets.size() && targets[t].file.path == file.file.path && i > 0) {
                file.frees = targets[t].frees;
                group.frees += file.frees;
                ++t;
            }
        }
        reclaimable_ += group.frees;
    }
    rebuildOrder();
    endResetModel();
    emit reclaimableChanged(reclaimable_);
}

void GroupsModel::clear() { setResult(ScanResult{}, selection_); }

void GroupsModel::computeGroup(int32_t index) {
    Group& group = groups_[index];
    // The plan's own rules decide what each copy frees, so the figures here and the reclaim agree.
    std::vector<DuplicateGroup> one(1);
    one[0].digest = group.digest;
    one[0].files.reserve(group.count);
    for (int32_t i = 0; i < group.count; ++i) one[0].files.push_back(files_[group.first + i].file);
    auto targets = Report::targets(one, selection_);
    group.frees = 0;
    size_t t = 0;
    for (int32_t i = 0; i < group.count; ++i) {
        File& file = files_[group.first + i];
        file.excluded = i > 0 && leftOut(file.file.path);
        file.frees = 0;
        if (t < targets.size() && targets[t].file.path == file.file.path) {
            file.frees = targets[t].frees;
            group.frees += file.frees;
            ++t;
        }
    }
}

void GroupsModel::setSelection(const Selection& selection) {
    if (selection == selection_) return;
    std::vector<std::string> changed;
    std::set_symmetric_difference(selection_.excluded.begin(), selection_.excluded.end(),
                                  selection.excluded.begin(), selection.excluded.end(),
                                  std::back_inserter(changed));
    selection_ = selection;

    // Only files at or below a path that came or went can change. One pass of prefix comparisons
    // over the flat array costs a few milliseconds for a million files, far less than keeping an
    // index by path.
    std::vector<int32_t> touched;
    for (const auto& path : changed) {
        const std::string below = path == "/" ? std::string("/") : path + "/";
        for (const File& f : files_) {
            const std::string& p = f.file.path;
            if (p.size() >= path.size() && p.compare(0, path.size(), path) == 0 &&
                (p.size() == path.size() || p.compare(0, below.size(), below) == 0)) {
                if (touched.empty() || touched.back() != f.group) touched.push_back(f.group);
            }
        }
    }
    std::sort(touched.begin(), touched.end());
    touched.erase(std::unique(touched.begin(), touched.end()), touched.end());

    for (int32_t g : touched) {
        reclaimable_ -= groups_[g].frees;
        computeGroup(g);
        reclaimable_ += groups_[g].frees;
    }

    // Many changed groups: one relayout is cheaper for the view than thousands of signals.
    if (touched.size() > 2000) {
        emit layoutAboutToBeChanged();
        emit layoutChanged();
    } else {
        for (int32_t g : touched) {
            int row = rowOfGroup_[g];
            if (row < 0) continue;
            QModelIndex groupIndex = index(row, 0);
            emit dataChanged(groupIndex, index(row, columnCount_ - 1));
            emit dataChanged(index(0, 0, groupIndex), index(groups_[g].count - 1, columnCount_ - 1, groupIndex));
        }
    }
    emit reclaimableChanged(reclaimable_);
}

bool GroupsModel::matches(const Group& group) const {
    if (fileSize(group) < filter_.minimumSize) return false;
    if (filter_.text.empty()) return true;
    for (int32_t i = 0; i < group.count; ++i) {
        const File& f = files_[group.first + i];
        std::string_view path = f.file.path;
        std::string_view name = path.substr(f.nameStart);
        switch (filter_.field) {
            case FilterField::path:
                if (containsFolded(path, filter_.text)) return true;
                break;
            case FilterField::name:
                if (containsFolded(name, filter_.text)) return true;
                break;
            case FilterField::extension:
                if (equalFolded(extensionOf(name), filter_.text)) return true;
                break;
        }
    }
    return false;
}

void GroupsModel::rebuildOrder() {
    order_.clear();
    order_.reserve(groups_.size());
    for (int32_t g = 0; g < static_cast<int32_t>(groups_.size()); ++g) {
        if (matches(groups_[g])) order_.push_back(g);
    }
    // Keys are looked up once per group, not once per comparison: a comparison then touches two
    // entries of one array instead of a group and a file far apart in memory.
    std::vector<std::string_view> text;
    std::vector<int64_t> number;
    if (sortKey_ == SortKey::frees || sortKey_ == SortKey::size || sortKey_ == SortKey::copies) {
        number.resize(groups_.size());
        for (int32_t g : order_) {
            number[g] = sortKey_ == SortKey::frees ? groups_[g].frees
                        : sortKey_ == SortKey::size ? fileSize(groups_[g])
                                                    : groups_[g].count;
        }
    } else {
        text.resize(groups_.size());
        for (int32_t g : order_) {
            const File& f = files_[groups_[g].first];
            std::string_view path = f.file.path;
            text[g] = sortKey_ == SortKey::path ? path
                      : sortKey_ == SortKey::name ? path.substr(f.nameStart)
                                                  : extensionOf(path.substr(f.nameStart));
        }
    }
    auto less = [&](int32_t a, int32_t b) -> bool {
        switch (sortKey_) {
            case SortKey::frees:
            case SortKey::size:
            case SortKey::copies: return number[a] < number[b];
            case SortKey::path:
            case SortKey::name:
            case SortKey::extension: return text[a] < text[b];
        }
        return false;
    };
    // Stable, so equal keys keep the scan's order and a second click gives the mirror image.
    if (sortOrder_ == Qt::AscendingOrder) {
        std::stable_sort(order_.begin(), order_.end(), less);
    } else {
        std::stable_sort(order_.begin(), order_.end(), [&](int32_t a, int32_t b) { return less(b, a); });
    }
    rowOfGroup_.assign(groups_.size(), -1);
    for (size_t row = 0; row < order_.size(); ++row) rowOfGroup_[order_[row]] = static_cast<int32_t>(row);
}

void GroupsModel::sortBy(SortKey key, Qt::SortOrder order) {
    // A reset, not a layout change: with a million files, remapping persistent indexes costs more
    // than the views gain from keeping them.
    beginResetModel();
    sortKey_ = key;
    sortOrder_ = order;
    rebuildOrder();
    endResetModel();
}

void GroupsModel::sort(int column, Qt::SortOrder order) {
    static constexpr SortKey byColumn[] = {SortKey::name, SortKey::path, SortKey::size, SortKey::frees,
                                           SortKey::copies};
    if (column < 0 || column >= columnCount_) return;
    sortBy(byColumn[column], order);
}

void GroupsModel::setFilter(const Filter& filter) {
    Filter folded = filter;
    std::transform(folded.text.begin(), folded.text.end(), folded.text.begin(), lowerAscii);
    if (folded.field == FilterField::extension && !folded.text.empty() && folded.text.front() == '.') {
        folded.text.erase(0, 1);
    }
    if (folded == filter_) return;
    beginResetModel();
    filter_ = std::move(folded);
    rebuildOrder();
    endResetModel();
}

bool GroupsModel::requestKeep(const QModelIndex& idx) {
    if (!idx.isValid() || idx.model() != this || idx.internalId() == groupRowId || idx.row() == 0) return false;
    emit keepRequested(static_cast<int>(idx.internalId() - 1), idx.row());
    return true;
}

std::pair<int, int> GroupsModel::positionOf(const QModelIndex& idx) const {
    if (!idx.isValid() || idx.model() != this || idx.internalId() == groupRowId) return {-1, -1};
    return {static_cast<int>(idx.internalId() - 1), idx.row()};
}

void GroupsModel::setGroup(int g, const DuplicateGroup& files) {
    if (g < 0 || g >= static_cast<int>(groups_.size())) return;
    Group& group = groups_[g];
    // Only the order may change: the same files, so the flat array keeps its shape.
    if (static_cast<int32_t>(files.files.size()) != group.count) return;
    for (int32_t i = 0; i < group.count; ++i) {
        File& file = files_[group.first + i];
        file.file = files.files[i];
        auto slash = file.file.path.find_last_of('/');
        file.nameStart = slash == std::string::npos ? 0 : static_cast<int32_t>(slash + 1);
    }
    reclaimable_ -= group.frees;
    computeGroup(g);
    reclaimable_ += group.frees;
    if (int row = rowOfGroup_[g]; row >= 0) {
        QModelIndex parentIndex = index(row, 0);
        emit dataChanged(index(0, 0, parentIndex), index(group.count - 1, columnCount_ - 1, parentIndex));
        emit dataChanged(parentIndex, index(row, columnCount_ - 1));
    }
    emit reclaimableChanged(reclaimable_);
}

bool GroupsModel::leftOut(const std::string& path) const {
    // The same answer as Selection::excludes, which builds every parent path to look it up: with the
    // few entries a user makes, comparing each as a prefix is several times cheaper per file.
    if (selection_.excluded.empty()) return false;
    if (selection_.excluded.size() > 16) return selection_.excludes(path);
    for (const std::string& e : selection_.excluded) {
        if (path.size() < e.size() || path.compare(0, e.size(), e) != 0) continue;
        if (path.size() == e.size() || e == "/" || path[e.size()] == '/') return true;
    }
    return false;
}

const ScannedFile* GroupsModel::fileAt(const QModelIndex& idx) const {
    if (!idx.isValid() || idx.model() != this || idx.internalId() == groupRowId) return nullptr;
    const Group& group = groups_[idx.internalId() - 1];
    return &files_[group.first + idx.row()].file;
}

DuplicateGroup GroupsModel::groupAt(const QModelIndex& idx) const {
    DuplicateGroup result;
    if (!idx.isValid() || idx.model() != this) return result;
    int32_t g = idx.internalId() == groupRowId ? order_[idx.row()] : static_cast<int32_t>(idx.internalId() - 1);
    const Group& group = groups_[g];
    result.digest = group.digest;
    result.reclaimableBytes = group.frees;
    for (int32_t i = 0; i < group.count; ++i) result.files.push_back(files_[group.first + i].file);
    return result;
}

QModelIndex GroupsModel::indexOfPath(const std::string& path) const {
    for (const File& f : files_) {
        if (f.file.path == path) return rowOfGroup_[f.group] < 0 ? QModelIndex() : index(rowOfGroup_[f.group], 0);
    }
    return {};
}

QModelIndex GroupsModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_) return {};
    if (!parent.isValid()) {
        if (row >= static_cast<int>(order_.size())) return {};
        return createIndex(row, column, groupRowId);
    }
    if (parent.internalId() != groupRowId || parent.row() >= static_cast<int>(order_.size())) return {};
    int32_t g = order_[parent.row()];
    if (row >= groups_[g].count) return {};
    return createIndex(row, column, static_cast<quintptr>(g) + 1);
}

QModelIndex GroupsModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == groupRowId) return {};
    int32_t g = static_cast<int32_t>(child.internalId() - 1);
    if (rowOfGroup_[g] < 0) return {};
    return createIndex(rowOfGroup_[g], 0, groupRowId);
}

int GroupsModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) return static_cast<int>(order_.size());
    if (parent.internalId() != groupRowId || parent.column() != 0) return 0;
    return groups_[order_[parent.row()]].count;
}

int GroupsModel::columnCount(const QModelIndex&) const { return columnCount_; }

QVariant GroupsModel::data(const QModelIndex& idx, int role) const {
    if (!idx.isValid()) return {};
    const bool isGroup = idx.internalId() == groupRowId;
    const int32_t g = isGroup ? order_[idx.row()] : static_cast<int32_t>(idx.internalId() - 1);
    const Group& group = groups_[g];
    const File& file = files_[group.first + (isGroup ? 0 : idx.row())];
    const bool kept = !isGroup && idx.row() == 0;
    std::string_view name = std::string_view(file.file.path).substr(file.nameStart);
    std::string_view folder = std::string_view(file.file.path).substr(0, file.nameStart > 1 ? file.nameStart - 1 : file.nameStart);

    switch (role) {
        case Qt::DisplayRole:
            switch (idx.column()) {
                case nameColumn: return displayPath(std::string(name));
                case folderColumn: return displayPath(std::string(folder));
                case sizeColumn: return QString::fromStdString(formatBytes(file.file.status.size));
                case freesColumn:
                    if (kept) return tr("kept");
                    if (!isGroup && file.excluded) return tr("left out");
                    return QString::fromStdString(formatBytes(isGroup ? group.frees : file.frees));
                case copiesColumn: return isGroup ? QVariant(group.count) : QVariant();
            }
            return {};
        case Qt::ToolTipRole:
            return displayPath(file.file.path);
        case Qt::CheckStateRole:
            if (isGroup || kept || idx.column() != nameColumn) return {};
            return file.excluded ? Qt::Unchecked : Qt::Checked;
        case Qt::TextAlignmentRole:
            if (idx.column() == sizeColumn || idx.column() == freesColumn || idx.column() == copiesColumn) {
                return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
            }
            return {};
        case Qt::FontRole:
            if (kept || isGroup) {
                QFont font;
                font.setBold(kept);
                return font;
            }
            return {};
        case Qt::AccessibleTextRole:
            if (idx.column() == nameColumn && !isGroup) {
                return (kept ? tr("Kept copy: ") : file.excluded ? tr("Left out: ") : tr("Copy: ")) +
                       displayPath(file.file.path);
            }
            return {};
        case PathRole: return QByteArray::fromStdString(file.file.path);
        case KeptRole: return kept;
        case ExcludedRole: return file.excluded;
        case SortRole:
            switch (idx.column()) {
                case nameColumn: return displayPath(std::string(name));
                case folderColumn: return displayPath(std::string(folder));
                case sizeColumn: return QVariant::fromValue<qint64>(file.file.status.size);
                case freesColumn: return QVariant::fromValue<qint64>(isGroup ? group.frees : file.frees);
                case copiesColumn: return group.count;
            }
            return {};
    }
    return {};
}

bool GroupsModel::setData(const QModelIndex& idx, const QVariant& value, int role) {
    if (role != Qt::CheckStateRole || !idx.isValid() || idx.internalId() == groupRowId || idx.row() == 0 ||
        idx.column() != nameColumn) {
        return false;
    }
    const ScannedFile* file = fileAt(idx);
    bool exclude = value.value<Qt::CheckState>() == Qt::Unchecked;
    // The owner of the selection answers with setSelection(); until then nothing here changes.
    emit excludeRequested(file->path, exclude);
    return true;
}

Qt::ItemFlags GroupsModel::flags(const QModelIndex& idx) const {
    if (!idx.isValid()) return Qt::NoItemFlags;
    Qt::ItemFlags result = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (idx.internalId() != groupRowId) {
        result |= Qt::ItemNeverHasChildren;
        if (idx.row() > 0 && idx.column() == nameColumn) result |= Qt::ItemIsUserCheckable;
    }
    return result;
}

QVariant GroupsModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
        case nameColumn: return tr("Name");
        case folderColumn: return tr("Folder");
        case sizeColumn: return tr("Size");
        case freesColumn: return tr("Frees");
        case copiesColumn: return tr("Copies");
    }
    return {};
}

}  // namespace dedup::app
