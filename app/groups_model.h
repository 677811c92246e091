// The groups of identical files of a scan as a two-level item model: groups at the top, their
// files below, the kept copy first. Built for results of a million files: the groups and the files
// live in two flat arrays, a file's index carries its group in the internal id, sorting and
// filtering reorder a vector of group numbers, and a selection change recomputes only the groups
// it touches.
//
// The model mirrors the user's Selection; it never changes it. Unticking a copy asks for the change
// through excludeRequested(), and whoever owns the selection hands the new one back through
// setSelection(). Paths travel as the file system's bytes (PathRole), never through QString, so a
// name that is not UTF-8 is left out exactly as it is spelled on disk.
//
// Lives on the main thread like every item model.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <QAbstractItemModel>
#include <QString>

#include "duplicate_finder.h"
#include "reclaim_plan.h"

namespace dedup::app {

class GroupsModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Column { nameColumn, folderColumn, sizeColumn, freesColumn, copiesColumn, columnCount_ };
    enum Role {
        PathRole = Qt::UserRole + 1,  // QByteArray: the path's own bytes
        KeptRole,                     // bool: this file is the copy that is kept
        ExcludedRole,                 // bool: left out by the selection
        SortRole,                     // the raw number or text the column sorts by
    };
    enum class SortKey { frees, size, path, name, extension, copies };
    enum class FilterField { path, name, extension };

    struct Filter {
        std::string text;  // UTF-8; matched without regard to ASCII case; empty matches all
        FilterField field = FilterField::path;
        int64_t minimumSize = 0;
        bool operator==(const Filter&) const = default;
    };

    explicit GroupsModel(QObject* parent = nullptr);

    // Replaces everything with one reset; the order comes back to largest reclaimable first.
    void setResult(const ScanResult& result, const Selection& selection);
    void clear();
    void setSelection(const Selection& selection);
    const Selection& selection() const { return selection_; }

    void sortBy(SortKey key, Qt::SortOrder order);
    void setFilter(const Filter& filter);
    const Filter& filter() const { return filter_; }

    // Asks for the file at `index` to become the kept copy of its group (keepRequested). Answers
    // false for a group row or the copy that is already kept.
    bool requestKeep(const QModelIndex& index);
    // Takes the group numbered `group` (its place in the result given to setResult) afresh, as the
    // owner of the result now has it: the kept copy first.
    void setGroup(int group, const DuplicateGroup& files);
    // The group's number in the result and the file's place in it, for a file row.
    std::pair<int, int> positionOf(const QModelIndex& index) const;

    // What the user's selection leaves to reclaim: the same figure Report::reclaimableBytes gives.
    int64_t reclaimableBytes() const { return reclaimable_; }
    int64_t groupCount() const { return static_cast<int64_t>(groups_.size()); }
    int64_t fileCount() const { return static_cast<int64_t>(files_.size()); }
    int visibleGroupCount() const { return static_cast<int>(order_.size()); }

    // For a file row, the file; null for a group row or an invalid index.
    const ScannedFile* fileAt(const QModelIndex& index) const;
    // The group of a group row or of a file row, in display order (kept copy first).
    DuplicateGroup groupAt(const QModelIndex& index) const;
    // The row of the group holding `path`, or an invalid index when it is not shown.
    QModelIndex indexOfPath(const std::string& path) const;

    QModelIndex index(int row, int column, const QModelIndex& parent = {}) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role = Qt::EditRole) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    void sort(int column, Qt::SortOrder order = Qt::AscendingOrder) override;

signals:
    // The user ticked or unticked a copy: `path` should be left out (true) or taken back (false).
    void excludeRequested(const std::string& path, bool exclude);
    // The user chose the `file`-th copy of group `group` to be kept.
    void keepRequested(int group, int file);
    void reclaimableChanged(qint64 bytes);

private:
    struct Group {
        std::string digest;
        int32_t first = 0;  // into files_
        int32_t count = 0;
        int64_t frees = 0;  // under the current selection
    };
    struct File {
        ScannedFile file;
        int32_t group = 0;
        int32_t nameStart = 0;  // after the last '/'
        int64_t frees = 0;      // under the current selection; 0 for the kept copy
        bool excluded = false;
    };

    void computeGroup(int32_t group);
    void rebuildOrder();
    bool matches(const Group& group) const;
    bool leftOut(const std::string& path) const;
    int64_t fileSize(const Group& g) const { return files_[g.first].file.status.size; }

    std::vector<Group> groups_;
    std::vector<File> files_;
    std::vector<int32_t> order_;       // visible groups, in display order
    std::vector<int32_t> rowOfGroup_;  // -1 when filtered out
    Selection selection_;
    Filter filter_;
    SortKey sortKey_ = SortKey::frees;
    Qt::SortOrder sortOrder_ = Qt::DescendingOrder;
    int64_t reclaimable_ = 0;
};

QString displayPath(const std::string& path);

}  // namespace dedup::app
