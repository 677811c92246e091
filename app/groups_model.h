// The groups of identical files of a scan as a two-level item model: groups at the top, their
// files below, the kept copy first. Built for results of a million files, and so that none of that
// size ever lands on the main thread in one go:
// - the files are tabulated into two flat arrays (a Table) on a worker thread; the Table is never
//   changed once built and is shared with later workers;
// - what the selection makes of them (what each copy frees, which are left out, which copy is
//   kept) lives in per-file arrays changed on the main thread, group by group; the folders and
//   files a selection names are found through an index of the paths, never by a pass over all;
// - sorting and filtering compute the new order of group numbers on a worker from the Table and a
//   copy of the keys, and the main thread installs it with one reset.
// A file's index carries its group in the internal id.
//
// The model mirrors the user's Selection; it never changes it. Unticking a copy asks for the change
// through excludeRequested(), and whoever owns the selection hands the new one back through
// setSelection(). Paths travel as the file system's bytes (PathRole), never through QString, so a
// name that is not UTF-8 is left out exactly as it is spelled on disk.
//
// Lives on the main thread like every item model; busy() says whether a worker's answer is still to
// come (the list shows the previous state meanwhile).
#pragma once

#include <cstdint>
#include <memory>
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

    // The files of one result in two flat arrays; immutable once built, shared by the workers.
    struct Table {
        struct Group {
            std::string digest;
            int32_t first = 0;  // into files
            int32_t count = 0;
        };
        struct File {
            ScannedFile file;
            int32_t group = 0;
            int32_t nameStart = 0;  // after the last '/'
        };
        std::vector<Group> groups;
        std::vector<File> files;
        // Every file, ordered by its path's bytes: the files at or below a folder are one run.
        std::vector<int32_t> byPath;
    };
    // What the selection and the kept copies make of a Table. A file's place is its group's
    // `first` plus its row; `slot` maps it to the Table's file, so choosing another kept copy moves
    // slots, not files.
    struct Figures {
        std::vector<int32_t> slot;
        std::vector<int64_t> fileFrees;  // 0 for the kept copy and for what is left out
        std::vector<uint8_t> excluded;
        std::vector<int64_t> groupFrees;
        std::vector<int32_t> groupTargets;  // copies of the group a reclaim would replace
        int64_t reclaimable = 0;
        int64_t copies = 0;         // all targets
        int64_t groupsToReclaim = 0;  // groups with at least one target
    };
    // The groups shown, in display order, and where each group is shown (-1: filtered out).
    struct Arrangement {
        std::vector<int32_t> order;
        std::vector<int32_t> rowOfGroup;
    };
    // What a worker needs to arrange the groups: the Table and a copy of the keys that change on
    // the main thread.
    struct ArrangeJob {
        std::shared_ptr<const Table> table;
        std::vector<int32_t> firstFile;  // the Table file shown first (kept) in each group
        std::vector<int64_t> frees;      // what each group frees
        Filter filter;
        SortKey key = SortKey::frees;
        Qt::SortOrder order = Qt::DescendingOrder;
        uint64_t serial = 0;
    };
    struct Build {
        std::shared_ptr<const Table> table;
        Figures figures;
        Arrangement arrangement;
        Selection selection;  // the selection the figures were made for
        ArrangeJob job;       // how it was arranged (without the table and keys)
        uint64_t serial = 0;
    };

    explicit GroupsModel(QObject* parent = nullptr);
    ~GroupsModel() override;

    // Shows nothing at once, then the result once a worker has tabulated it (one reset); the order
    // comes back to largest reclaimable first. The result is only read, never copied here.
    void setResult(std::shared_ptr<const ScanResult> result, const Selection& selection);
    void clear();
    // A worker's answer is still to come: a result being tabulated, an order being computed, or
    // the figures of a large selection change.
    bool busy() const {
        return buildSerial_ != installedBuild_ || arrangeSerial_ != installedArrange_ || figuring_ || !staleGroups_.empty();
    }
    // The totals (reclaimableBytes, copiesToReclaim, groupsToReclaim) are those of the current
    // result and selection.
    bool figuresCurrent() const { return table_ && buildSerial_ == installedBuild_ && staleGroups_.empty() && !figuring_; }
    // Selection changes touching more groups than this are figured on a worker.
    static constexpr size_t groupsFiguredInPlace = 2000;
    void setSelection(const Selection& selection);
    const Selection& selection() const { return selection_; }

    void sortBy(SortKey key, Qt::SortOrder order);
    void setFilter(const Filter& filter);
    const Filter& filter() const { return filter_; }

    // The halves of setResult, sortBy and setFilter, public so their costs can be measured apart:
    // build() and arrange() are pure and run on a worker; the rest runs on the main thread.
    static Build build(const ScanResult& result, const Selection& selection, const Filter& filter);
    static Arrangement arrange(const ArrangeJob& job);
    void install(Build build);
    ArrangeJob arrangeJob() const;
    void install(const ArrangeJob& job, Arrangement arrangement);

    // Asks for the file at `index` to become the kept copy of its group (keepRequested). Answers
    // false for a group row or the copy that is already kept.
    bool requestKeep(const QModelIndex& index);
    // Takes the group numbered `group` (its place in the result given to setResult) afresh, as the
    // owner of the result now has it: the same files, the kept copy first.
    void setGroup(int group, const DuplicateGroup& files);
    // The group's number in the result and the file's place in it, for a file row.
    std::pair<int, int> positionOf(const QModelIndex& index) const;

    // What the user's selection leaves to reclaim: the same figures Report::reclaimableBytes and
    // Report::targets give, kept up to date group by group.
    int64_t reclaimableBytes() const { return figures_.reclaimable; }
    int64_t copiesToReclaim() const { return figures_.copies; }
    int64_t groupsToReclaim() const { return figures_.groupsToReclaim; }
    int64_t groupCount() const { return table_ ? static_cast<int64_t>(table_->groups.size()) : 0; }
    int64_t fileCount() const { return table_ ? static_cast<int64_t>(table_->files.size()) : 0; }
    int visibleGroupCount() const { return static_cast<int>(arrangement_.order.size()); }

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
    // busy() changed.
    void busyChanged(bool busy);

private:
    const Table::File& fileIn(int32_t group, int32_t row) const {
        return table_->files[static_cast<size_t>(figures_.slot[static_cast<size_t>(table_->groups[group].first + row)])];
    }
    // What one group's copies free under `selection`, its files taken through `slot` (the group's
    // own slots). Pure: the main thread and the workers share it.
    struct GroupFigures {
        int64_t frees = 0;
        int32_t targets = 0;
    };
    static GroupFigures figureGroup(const Table& table, const Selection& selection, int32_t group,
                                    const int32_t* slot, int64_t* fileFrees, uint8_t* excluded);
    void computeGroup(int32_t group);
    void setGroupTotals(int32_t group, GroupFigures figures);
    void refigure();
    void showChanged(const std::vector<int32_t>& groups);
    void startArrange();
    void setBusy(bool was);

    // Cleared when the model goes, so a worker's late answer finds nobody.
    std::shared_ptr<GroupsModel*> self_;
    std::shared_ptr<const Table> table_;
    Figures figures_;
    Arrangement arrangement_;
    Selection selection_;
    Filter filter_;
    SortKey sortKey_ = SortKey::frees;
    Qt::SortOrder sortOrder_ = Qt::DescendingOrder;
    // Each request numbers itself; only the answer to the latest is installed.
    uint64_t buildSerial_ = 0;
    uint64_t installedBuild_ = 0;
    uint64_t arrangeSerial_ = 0;
    uint64_t installedArrange_ = 0;
    // Kept copies chosen while a result was being tabulated: applied when it is installed.
    std::vector<std::pair<int, DuplicateGroup>> pendingGroups_;
    // Selection changes number themselves; a group remembers the last one that touched it, so a
    // worker's figures are taken only for groups nothing touched since the worker started.
    uint64_t selectionSerial_ = 0;
    std::vector<uint64_t> touchedAt_;
    std::vector<uint8_t> stale_;          // by group: its figures wait for the current selection
    std::vector<int32_t> staleGroups_;    // the groups marked stale (may repeat)
    bool figuring_ = false;
};

QString displayPath(const std::string& path);

}  // namespace dedup::app
