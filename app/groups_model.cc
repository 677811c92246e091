#include "groups_model.h"

#include <algorithm>

#include <QFile>
#include <QFont>

#include "app_tasks.h"
#include "byte_format.h"
#include "path_text.h"

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

// A name that is not UTF-8 is shown with each such byte as "\xNN", the way the command and the
// reports spell it, rather than as a row of replacement marks that hide which file it is.
QString displayPath(const std::string& path) { return QString::fromStdString(pathText(path)); }

namespace {

// The same answer as Selection::excludes, which builds every parent path to look it up: with the
// few entries a user makes, comparing each as a prefix is several times cheaper per file.
bool leftOut(const Selection& selection, const std::string& path) {
    if (selection.excluded.empty()) return false;
    if (selection.excluded.size() > 16) return selection.excludes(path);
    for (const std::string& e : selection.excluded) {
        if (path.size() < e.size() || path.compare(0, e.size(), e) != 0) continue;
        if (path.size() == e.size() || e == "/" || path[e.size()] == '/') return true;
    }
    return false;
}

bool matches(const GroupsModel::Table& table, const GroupsModel::Table::Group& group, const GroupsModel::Filter& filter) {
    if (table.files[static_cast<size_t>(group.first)].file.status.size < filter.minimumSize) return false;
    if (filter.text.empty()) return true;
    for (int32_t i = 0; i < group.count; ++i) {
        const auto& f = table.files[static_cast<size_t>(group.first + i)];
        std::string_view path = f.file.path;
        std::string_view name = path.substr(static_cast<size_t>(f.nameStart));
        switch (filter.field) {
            case GroupsModel::FilterField::path:
                if (containsFolded(path, filter.text)) return true;
                break;
            case GroupsModel::FilterField::name:
                if (containsFolded(name, filter.text)) return true;
                break;
            case GroupsModel::FilterField::extension:
                if (equalFolded(extensionOf(name), filter.text)) return true;
                break;
        }
    }
    return false;
}

// Frees big arrays on a worker: handing back a million paths costs the main thread tens of
// milliseconds.
template <typename T>
void releaseElsewhere(T&& value) {
    tasks::run([held = std::make_shared<std::decay_t<T>>(std::forward<T>(value))]() mutable { held.reset(); });
}

}  // namespace

GroupsModel::GroupsModel(QObject* parent) : QAbstractItemModel(parent), self_(std::make_shared<GroupsModel*>(this)) {}

GroupsModel::~GroupsModel() {
    *self_ = nullptr;
    if (table_) releaseElsewhere(std::move(figures_));
    if (table_) releaseElsewhere(std::move(table_));
}

GroupsModel::Build GroupsModel::build(const ScanResult& result, const Selection& selection, const Filter& filter) {
    Build b;
    auto table = std::make_shared<Table>();
    size_t fileTotal = 0;
    for (const auto& g : result.groups) fileTotal += g.files.size();
    table->groups.reserve(result.groups.size());
    table->files.reserve(fileTotal);
    for (const auto& g : result.groups) {
        Table::Group group;
        group.digest = g.digest;
        group.first = static_cast<int32_t>(table->files.size());
        group.count = static_cast<int32_t>(g.files.size());
        for (const auto& f : g.files) {
            Table::File file;
            file.file = f;
            file.group = static_cast<int32_t>(table->groups.size());
            auto slash = f.path.find_last_of('/');
            file.nameStart = slash == std::string::npos ? 0 : static_cast<int32_t>(slash + 1);
            table->files.push_back(std::move(file));
        }
        table->groups.push_back(std::move(group));
    }
    table->byPath.resize(table->files.size());
    for (size_t i = 0; i < table->byPath.size(); ++i) table->byPath[i] = static_cast<int32_t>(i);
    std::sort(table->byPath.begin(), table->byPath.end(), [&files = table->files](int32_t a, int32_t b) {
        return files[static_cast<size_t>(a)].file.path < files[static_cast<size_t>(b)].file.path;
    });

    Figures& fig = b.figures;
    fig.slot.resize(table->files.size());
    for (size_t i = 0; i < fig.slot.size(); ++i) fig.slot[i] = static_cast<int32_t>(i);
    fig.fileFrees.assign(table->files.size(), 0);
    fig.excluded.assign(table->files.size(), 0);
    fig.groupFrees.assign(table->groups.size(), 0);
    fig.groupTargets.assign(table->groups.size(), 0);
    // One pass of the plan over the groups as given, rather than group by group over copies.
    auto targets = Report::targets(result.groups, selection);
    size_t t = 0;
    for (size_t g = 0; g < table->groups.size(); ++g) {
        const Table::Group& group = table->groups[g];
        for (int32_t i = 0; i < group.count; ++i) {
            const size_t at = static_cast<size_t>(group.first + i);
            const std::string& path = table->files[at].file.path;
            fig.excluded[at] = i > 0 && leftOut(selection, path);
            if (i > 0 && t < targets.size() && targets[t].file.path == path) {
                fig.fileFrees[at] = targets[t].frees;
                fig.groupFrees[g] += targets[t].frees;
                ++fig.groupTargets[g];
                ++t;
            }
        }
        fig.reclaimable += fig.groupFrees[g];
        fig.copies += fig.groupTargets[g];
        if (fig.groupTargets[g] > 0) ++fig.groupsToReclaim;
    }

    b.job.filter = filter;
    b.job.table = table;
    b.job.firstFile.resize(table->groups.size());
    for (size_t g = 0; g < table->groups.size(); ++g) b.job.firstFile[g] = table->groups[g].first;
    b.job.frees = fig.groupFrees;
    b.arrangement = arrange(b.job);
    // The keys were only needed for this first order.
    b.job.firstFile = {};
    b.job.frees = {};
    b.job.table = nullptr;
    b.table = std::move(table);
    b.selection = selection;
    return b;
}

GroupsModel::Arrangement GroupsModel::arrange(const ArrangeJob& job) {
    const Table& table = *job.table;
    Arrangement a;
    a.order.reserve(table.groups.size());
    for (int32_t g = 0; g < static_cast<int32_t>(table.groups.size()); ++g) {
        if (matches(table, table.groups[static_cast<size_t>(g)], job.filter)) a.order.push_back(g);
    }
    // Keys are looked up once per group, not once per comparison: a comparison then touches two
    // entries of one array instead of a group and a file far apart in memory.
    const SortKey key = job.key;
    std::vector<std::string_view> text;
    std::vector<int64_t> number;
    if (key == SortKey::frees || key == SortKey::size || key == SortKey::copies) {
        number.resize(table.groups.size());
        for (int32_t g : a.order) {
            const auto& group = table.groups[static_cast<size_t>(g)];
            number[static_cast<size_t>(g)] = key == SortKey::frees  ? job.frees[static_cast<size_t>(g)]
                                             : key == SortKey::size ? table.files[static_cast<size_t>(group.first)].file.status.size
                                                                    : group.count;
        }
    } else {
        text.resize(table.groups.size());
        for (int32_t g : a.order) {
            const auto& f = table.files[static_cast<size_t>(job.firstFile[static_cast<size_t>(g)])];
            std::string_view path = f.file.path;
            std::string_view name = path.substr(static_cast<size_t>(f.nameStart));
            text[static_cast<size_t>(g)] = key == SortKey::path ? path : key == SortKey::name ? name : extensionOf(name);
        }
    }
    auto less = [&](int32_t x, int32_t y) -> bool {
        const auto a1 = static_cast<size_t>(x);
        const auto b1 = static_cast<size_t>(y);
        return number.empty() ? text[a1] < text[b1] : number[a1] < number[b1];
    };
    // Stable, so equal keys keep the scan's order and a second click gives the mirror image.
    if (job.order == Qt::AscendingOrder) {
        std::stable_sort(a.order.begin(), a.order.end(), less);
    } else {
        std::stable_sort(a.order.begin(), a.order.end(), [&](int32_t x, int32_t y) { return less(y, x); });
    }
    a.rowOfGroup.assign(table.groups.size(), -1);
    for (size_t row = 0; row < a.order.size(); ++row) a.rowOfGroup[static_cast<size_t>(a.order[row])] = static_cast<int32_t>(row);
    return a;
}

void GroupsModel::setBusy(bool was) {
    if (was != busy()) emit busyChanged(busy());
}

void GroupsModel::setResult(std::shared_ptr<const ScanResult> result, const Selection& selection) {
    const bool was = busy();
    selection_ = selection;
    sortKey_ = SortKey::frees;
    sortOrder_ = Qt::DescendingOrder;
    pendingGroups_.clear();
    // The previous result goes at once: its rows must not be taken for the new result's.
    beginResetModel();
    auto oldTable = std::move(table_);
    auto oldFigures = std::move(figures_);
    table_ = nullptr;
    figures_ = {};
    arrangement_ = {};
    staleGroups_.clear();
    figuring_ = false;
    endResetModel();
    if (oldTable) {
        releaseElsewhere(std::move(oldFigures));
        releaseElsewhere(std::move(oldTable));
    }
    const uint64_t serial = ++buildSerial_;
    installedArrange_ = arrangeSerial_;  // an order for the old table is no longer wanted
    if (!result) {
        installedBuild_ = serial;
    } else {
        tasks::run([result = std::move(result), selection, filter = filter_, serial, self = self_] {
            auto built = std::make_shared<Build>(build(*result, selection, filter));
            built->serial = serial;
            tasks::onMainThread([built, self, serial]() mutable {
                GroupsModel* model = *self;
                if (!model || serial != model->buildSerial_) {
                    releaseElsewhere(std::move(built));
                    return;
                }
                model->install(std::move(*built));
            });
        });
    }
    emit reclaimableChanged(0);
    setBusy(was);
}

void GroupsModel::clear() { setResult(nullptr, selection_); }

void GroupsModel::install(Build b) {
    const bool was = busy();
    beginResetModel();
    std::swap(table_, b.table);
    std::swap(figures_, b.figures);
    std::swap(arrangement_, b.arrangement);
    endResetModel();
    installedBuild_ = buildSerial_;
    installedArrange_ = arrangeSerial_;
    touchedAt_.assign(table_->groups.size(), 0);
    stale_.assign(table_->groups.size(), 0);
    staleGroups_.clear();
    figuring_ = false;
    const Selection builtFor = std::move(b.selection);
    const ArrangeJob how = std::move(b.job);
    releaseElsewhere(std::move(b));
    // What the user did while the worker tabulated: it is applied now, group by group.
    auto pending = std::move(pendingGroups_);
    pendingGroups_.clear();
    for (auto& [group, files] : pending) setGroup(group, files);
    if (builtFor != selection_) {
        const Selection now = selection_;
        selection_ = builtFor;
        setSelection(now);
    }
    if (how.filter != filter_ || how.key != sortKey_ || how.order != sortOrder_) startArrange();
    emit reclaimableChanged(figures_.reclaimable);
    setBusy(was);
}

GroupsModel::ArrangeJob GroupsModel::arrangeJob() const {
    ArrangeJob job;
    job.table = table_;
    if (table_) {
        job.firstFile.resize(table_->groups.size());
        for (size_t g = 0; g < table_->groups.size(); ++g) {
            job.firstFile[g] = figures_.slot[static_cast<size_t>(table_->groups[g].first)];
        }
        job.frees = figures_.groupFrees;
    }
    job.filter = filter_;
    job.key = sortKey_;
    job.order = sortOrder_;
    job.serial = arrangeSerial_;
    return job;
}

void GroupsModel::startArrange() {
    if (!table_ || buildSerial_ != installedBuild_) return;  // the build in flight arranges as it ends
    const bool was = busy();
    ++arrangeSerial_;
    auto job = std::make_shared<const ArrangeJob>(arrangeJob());
    tasks::run([job, self = self_] {
        auto arranged = std::make_shared<Arrangement>(arrange(*job));
        tasks::onMainThread([job, arranged, self] {
            GroupsModel* model = *self;
            if (!model || job->serial != model->arrangeSerial_ || job->table != model->table_) return;
            model->install(*job, std::move(*arranged));
        });
    });
    setBusy(was);
}

void GroupsModel::install(const ArrangeJob& job, Arrangement arrangement) {
    const bool was = busy();
    // A reset, not a layout change: with a million files, remapping persistent indexes costs more
    // than the views gain from keeping them.
    beginResetModel();
    std::swap(arrangement_, arrangement);
    endResetModel();
    installedArrange_ = job.serial;
    setBusy(was);
}

GroupsModel::GroupFigures GroupsModel::figureGroup(const Table& table, const Selection& selection, int32_t index,
                                                  const int32_t* slot, int64_t* fileFrees, uint8_t* excluded) {
    const Table::Group& group = table.groups[static_cast<size_t>(index)];
    // The plan's own rules decide what each copy frees, so the figures here and the reclaim agree.
    std::vector<DuplicateGroup> one(1);
    one[0].digest = group.digest;
    one[0].files.reserve(static_cast<size_t>(group.count));
    for (int32_t i = 0; i < group.count; ++i) one[0].files.push_back(table.files[static_cast<size_t>(slot[i])].file);
    auto targets = Report::targets(one, selection);
    GroupFigures figures;
    size_t t = 0;
    for (int32_t i = 0; i < group.count; ++i) {
        const std::string& path = one[0].files[static_cast<size_t>(i)].path;
        excluded[i] = i > 0 && leftOut(selection, path);
        fileFrees[i] = 0;
        if (i > 0 && t < targets.size() && targets[t].file.path == path) {
            fileFrees[i] = targets[t].frees;
            figures.frees += targets[t].frees;
            ++figures.targets;
            ++t;
        }
    }
    return figures;
}

void GroupsModel::setGroupTotals(int32_t index, GroupFigures figures) {
    const auto g = static_cast<size_t>(index);
    figures_.reclaimable += figures.frees - figures_.groupFrees[g];
    figures_.copies += figures.targets - figures_.groupTargets[g];
    figures_.groupsToReclaim += (figures.targets > 0) - (figures_.groupTargets[g] > 0);
    figures_.groupFrees[g] = figures.frees;
    figures_.groupTargets[g] = figures.targets;
}

void GroupsModel::computeGroup(int32_t index) {
    const auto first = static_cast<size_t>(table_->groups[static_cast<size_t>(index)].first);
    setGroupTotals(index, figureGroup(*table_, selection_, index, &figures_.slot[first], &figures_.fileFrees[first],
                                      &figures_.excluded[first]));
    stale_[static_cast<size_t>(index)] = 0;
}

void GroupsModel::showChanged(const std::vector<int32_t>& groups) {
    // Many changed groups: one relayout is cheaper for the view than thousands of signals.
    if (groups.size() > 2000) {
        emit layoutAboutToBeChanged();
        emit layoutChanged();
        return;
    }
    for (int32_t g : groups) {
        int row = arrangement_.rowOfGroup[static_cast<size_t>(g)];
        if (row < 0) continue;
        QModelIndex groupIndex = index(row, 0);
        emit dataChanged(groupIndex, index(row, columnCount_ - 1));
        emit dataChanged(index(0, 0, groupIndex),
                         index(table_->groups[static_cast<size_t>(g)].count - 1, columnCount_ - 1, groupIndex));
    }
}

void GroupsModel::setSelection(const Selection& selection) {
    if (selection == selection_) return;
    std::vector<std::string> changed;
    std::set_symmetric_difference(selection_.excluded.begin(), selection_.excluded.end(),
                                  selection.excluded.begin(), selection.excluded.end(),
                                  std::back_inserter(changed));
    selection_ = selection;
    // Nothing shown yet: the result being tabulated is reconciled with this selection when it lands.
    if (!table_ || buildSerial_ != installedBuild_) return;
    const bool was = busy();
    ++selectionSerial_;

    // Only files at or below a path that came or went can change, and in the index by path they
    // are two runs: the path itself, and everything from "path/" up to "path0" ('0' follows '/').
    const auto& files = table_->files;
    const auto& byPath = table_->byPath;
    auto firstNotBefore = [&](const std::string& key) {
        return std::lower_bound(byPath.begin(), byPath.end(), key, [&](int32_t i, const std::string& k) {
            return files[static_cast<size_t>(i)].file.path < k;
        });
    };
    auto touch = [&](int32_t file) {
        const auto g = static_cast<size_t>(files[static_cast<size_t>(file)].group);
        if (touchedAt_[g] == selectionSerial_) return;
        touchedAt_[g] = selectionSerial_;
        stale_[g] = 1;
        staleGroups_.push_back(static_cast<int32_t>(g));
    };
    for (const auto& path : changed) {
        for (auto it = firstNotBefore(path); it != byPath.end() && files[static_cast<size_t>(*it)].file.path == path; ++it) {
            touch(*it);
        }
        const std::string below = path == "/" ? std::string("/") : path + "/";
        std::string beyond = below;
        beyond.back() = static_cast<char>('/' + 1);
        for (auto it = firstNotBefore(below), end = firstNotBefore(beyond); it != end; ++it) touch(*it);
    }
    if (staleGroups_.empty()) {
        emit reclaimableChanged(figures_.reclaimable);  // no file of the list is named: the total stands
    } else {
        refigure();
    }
    setBusy(was);
}

void GroupsModel::refigure() {
    if (figuring_ || staleGroups_.empty()) return;
    std::vector<int32_t> groups;
    groups.reserve(staleGroups_.size());
    for (int32_t g : staleGroups_) {
        if (stale_[static_cast<size_t>(g)]) groups.push_back(g);
    }
    staleGroups_.clear();
    std::sort(groups.begin(), groups.end());
    groups.erase(std::unique(groups.begin(), groups.end()), groups.end());
    if (groups.size() <= groupsFiguredInPlace) {
        for (int32_t g : groups) computeGroup(g);
        showChanged(groups);
        emit reclaimableChanged(figures_.reclaimable);
        return;
    }

    // A folder of many files: what its groups free is figured on a worker from the immutable table,
    // a copy of their slots and the selection as it is now.
    struct Job {
        std::shared_ptr<const Table> table;
        Selection selection;
        uint64_t serial = 0;
        std::vector<int32_t> groups;
        std::vector<int32_t> places;  // the groups' slots, one group after the other
        std::vector<int64_t> fileFrees;
        std::vector<uint8_t> excluded;
        std::vector<GroupFigures> figures;
    };
    auto job = std::make_shared<Job>();
    job->table = table_;
    job->selection = selection_;
    job->serial = selectionSerial_;
    for (int32_t g : groups) {
        const Table::Group& group = table_->groups[static_cast<size_t>(g)];
        job->places.insert(job->places.end(), figures_.slot.begin() + group.first,
                           figures_.slot.begin() + group.first + group.count);
    }
    job->groups = std::move(groups);
    staleGroups_ = job->groups;  // still stale until the worker's figures are taken
    figuring_ = true;
    tasks::run([job, self = self_] {
        job->fileFrees.resize(job->places.size());
        job->excluded.resize(job->places.size());
        size_t at = 0;
        for (int32_t g : job->groups) {
            job->figures.push_back(figureGroup(*job->table, job->selection, g, &job->places[at], &job->fileFrees[at],
                                               &job->excluded[at]));
            at += static_cast<size_t>(job->table->groups[static_cast<size_t>(g)].count);
        }
        tasks::onMainThread([job, self] {
            GroupsModel* model = *self;
            if (!model || job->table != model->table_) return;
            const bool was = model->busy();
            model->figuring_ = false;
            size_t at = 0;
            for (size_t i = 0; i < job->groups.size(); ++i) {
                const int32_t g = job->groups[i];
                const auto gi = static_cast<size_t>(g);
                const Table::Group& group = model->table_->groups[gi];
                const auto count = static_cast<size_t>(group.count);
                // A group touched again since (by the selection or a new kept copy) waits for
                // figures of its own.
                if (model->stale_[gi] && model->touchedAt_[gi] <= job->serial) {
                    std::copy_n(job->fileFrees.begin() + static_cast<std::ptrdiff_t>(at), count,
                                model->figures_.fileFrees.begin() + group.first);
                    std::copy_n(job->excluded.begin() + static_cast<std::ptrdiff_t>(at), count,
                                model->figures_.excluded.begin() + group.first);
                    model->setGroupTotals(g, job->figures[i]);
                    model->stale_[gi] = 0;
                }
                at += count;
            }
            std::erase_if(model->staleGroups_, [&](int32_t g) { return !model->stale_[static_cast<size_t>(g)]; });
            model->showChanged(job->groups);
            emit model->reclaimableChanged(model->figures_.reclaimable);
            model->refigure();
            model->setBusy(was);
        });
    });
}

void GroupsModel::sortBy(SortKey key, Qt::SortOrder order) {
    sortKey_ = key;
    sortOrder_ = order;
    startArrange();
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
    filter_ = std::move(folded);
    startArrange();
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
    if (buildSerial_ != installedBuild_) {
        pendingGroups_.emplace_back(g, files);
        return;
    }
    if (!table_ || g < 0 || g >= static_cast<int>(table_->groups.size())) return;
    const Table::Group& group = table_->groups[static_cast<size_t>(g)];
    // Only the order may change: the same files, found by path among the group's own.
    if (static_cast<int32_t>(files.files.size()) != group.count) return;
    std::vector<int32_t> places;
    for (const auto& f : files.files) {
        int32_t found = -1;
        for (int32_t j = group.first; j < group.first + group.count; ++j) {
            if (table_->files[static_cast<size_t>(j)].file.path == f.path) found = j;
        }
        if (found < 0) return;
        places.push_back(found);
    }
    std::copy(places.begin(), places.end(), figures_.slot.begin() + group.first);
    // Figures a worker is computing for this group's old order must not land on the new one.
    touchedAt_[static_cast<size_t>(g)] = ++selectionSerial_;
    computeGroup(g);
    if (int row = arrangement_.rowOfGroup[static_cast<size_t>(g)]; row >= 0) {
        QModelIndex parentIndex = index(row, 0);
        emit dataChanged(index(0, 0, parentIndex), index(group.count - 1, columnCount_ - 1, parentIndex));
        emit dataChanged(parentIndex, index(row, columnCount_ - 1));
    }
    emit reclaimableChanged(figures_.reclaimable);
}

const ScannedFile* GroupsModel::fileAt(const QModelIndex& idx) const {
    if (!idx.isValid() || idx.model() != this || idx.internalId() == groupRowId) return nullptr;
    return &fileIn(static_cast<int32_t>(idx.internalId() - 1), idx.row()).file;
}

DuplicateGroup GroupsModel::groupAt(const QModelIndex& idx) const {
    DuplicateGroup result;
    if (!idx.isValid() || idx.model() != this) return result;
    int32_t g = idx.internalId() == groupRowId ? arrangement_.order[static_cast<size_t>(idx.row())]
                                               : static_cast<int32_t>(idx.internalId() - 1);
    const Table::Group& group = table_->groups[static_cast<size_t>(g)];
    result.digest = group.digest;
    result.reclaimableBytes = figures_.groupFrees[static_cast<size_t>(g)];
    for (int32_t i = 0; i < group.count; ++i) result.files.push_back(fileIn(g, i).file);
    return result;
}

QModelIndex GroupsModel::indexOfPath(const std::string& path) const {
    if (!table_) return {};
    const auto& files = table_->files;
    auto it = std::lower_bound(table_->byPath.begin(), table_->byPath.end(), path, [&](int32_t i, const std::string& k) {
        return files[static_cast<size_t>(i)].file.path < k;
    });
    if (it == table_->byPath.end() || files[static_cast<size_t>(*it)].file.path != path) return {};
    const int32_t row = arrangement_.rowOfGroup[static_cast<size_t>(files[static_cast<size_t>(*it)].group)];
    return row < 0 ? QModelIndex() : index(row, 0);
}

QModelIndex GroupsModel::index(int row, int column, const QModelIndex& parent) const {
    if (row < 0 || column < 0 || column >= columnCount_) return {};
    if (!parent.isValid()) {
        if (row >= static_cast<int>(arrangement_.order.size())) return {};
        return createIndex(row, column, groupRowId);
    }
    if (parent.internalId() != groupRowId || parent.row() >= static_cast<int>(arrangement_.order.size())) return {};
    int32_t g = arrangement_.order[static_cast<size_t>(parent.row())];
    if (row >= table_->groups[static_cast<size_t>(g)].count) return {};
    return createIndex(row, column, static_cast<quintptr>(g) + 1);
}

QModelIndex GroupsModel::parent(const QModelIndex& child) const {
    if (!child.isValid() || child.internalId() == groupRowId) return {};
    int32_t g = static_cast<int32_t>(child.internalId() - 1);
    const int32_t row = arrangement_.rowOfGroup[static_cast<size_t>(g)];
    if (row < 0) return {};
    return createIndex(row, 0, groupRowId);
}

int GroupsModel::rowCount(const QModelIndex& parent) const {
    if (!parent.isValid()) return static_cast<int>(arrangement_.order.size());
    if (parent.internalId() != groupRowId || parent.column() != 0) return 0;
    return table_->groups[static_cast<size_t>(arrangement_.order[static_cast<size_t>(parent.row())])].count;
}

int GroupsModel::columnCount(const QModelIndex&) const { return columnCount_; }

QVariant GroupsModel::data(const QModelIndex& idx, int role) const {
    if (!idx.isValid()) return {};
    const bool isGroup = idx.internalId() == groupRowId;
    const int32_t g = isGroup ? arrangement_.order[static_cast<size_t>(idx.row())] : static_cast<int32_t>(idx.internalId() - 1);
    const Table::Group& group = table_->groups[static_cast<size_t>(g)];
    const int32_t row = isGroup ? 0 : idx.row();
    const Table::File& file = fileIn(g, row);
    const auto at = static_cast<size_t>(group.first + row);
    const bool excluded = figures_.excluded[at] != 0;
    const int64_t groupFrees = figures_.groupFrees[static_cast<size_t>(g)];
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
                    if (!isGroup && excluded) return tr("left out");
                    return QString::fromStdString(formatBytes(isGroup ? groupFrees : figures_.fileFrees[at]));
                case copiesColumn: return isGroup ? QVariant(group.count) : QVariant();
            }
            return {};
        case Qt::ToolTipRole:
            return displayPath(file.file.path);
        case Qt::CheckStateRole:
            if (isGroup || kept || idx.column() != nameColumn) return {};
            return excluded ? Qt::Unchecked : Qt::Checked;
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
                return (kept ? tr("Kept copy: ") : excluded ? tr("Left out: ") : tr("Copy: ")) +
                       displayPath(file.file.path);
            }
            return {};
        case PathRole: return QByteArray::fromStdString(file.file.path);
        case KeptRole: return kept;
        case ExcludedRole: return excluded;
        case SortRole:
            switch (idx.column()) {
                case nameColumn: return displayPath(std::string(name));
                case folderColumn: return displayPath(std::string(folder));
                case sizeColumn: return QVariant::fromValue<qint64>(file.file.status.size);
                case freesColumn: return QVariant::fromValue<qint64>(isGroup ? groupFrees : figures_.fileFrees[at]);
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
