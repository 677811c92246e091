// The item models behind the long lists: consistent under QAbstractItemModelTester through every
// change a user can make, and giving the same figures the engine's plan gives.
#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QTest>

#include "across_model.h"
#include "app_model.h"
#include "folder_size_model.h"
#include "groups_model.h"
#include "journal_model.h"

using namespace dedup;
using namespace dedup::app;

namespace {

ScannedFile file(std::string path, int64_t size, uint64_t inode) {
    ScannedFile f;
    f.path = std::move(path);
    f.status.size = size;
    f.status.inode = inode;
    f.status.device = 1;
    f.status.mode = 0100644;
    return f;
}

// Groups whose paths make folder exclusions interesting: "/d/a/b.txt" sorts between "/d/a/b" and
// the files below the folder "/d/a/b/".
ScanResult sampleResult() {
    ScanResult r;
    uint64_t inode = 1;
    auto group = [&](std::string digest, std::vector<std::string> paths, int64_t size) {
        DuplicateGroup g;
        g.digest = std::move(digest);
        for (auto& p : paths) g.files.push_back(file(std::move(p), size, inode++));
        g.reclaimableBytes = size * static_cast<int64_t>(g.files.size() - 1);
        r.groups.push_back(std::move(g));
    };
    group("aa", {"/d/keep/big.iso", "/d/a/b/big.iso", "/d/a/b.txt"}, 5000);
    group("bb", {"/d/photos/IMG_1.JPG", "/d/a/b/IMG_1.jpg", "/d/x/IMG_1 copy.jpg", "/d/y/IMG_1.jpg"}, 3000);
    group("cc", {"/d/notes.txt", "/d/a/bc/notes.txt"}, 200);
    // A copy that already shares its blocks with the kept file frees nothing.
    group("dd", {"/d/s/one.bin", "/d/s/two.bin"}, 800);
    r.groups.back().files[0].clones = CloneInfo{0, 77, 2, false};
    r.groups.back().files[1].clones = CloneInfo{0, 77, 2, false};
    std::sort(r.groups.begin(), r.groups.end(),
              [](const auto& a, const auto& b) { return a.reclaimableBytes > b.reclaimableBytes; });
    return r;
}

// The list's workers have answered and their answers are installed.
bool settled(const GroupsModel& m) { return QTest::qWaitFor([&] { return !m.busy(); }, 20000); }

std::vector<QString> names(const GroupsModel& m) {
    std::vector<QString> result;
    for (int row = 0; row < m.rowCount(); ++row) result.push_back(m.index(row, 0).data().toString());
    return result;
}

// Identical trees, files and nearly identical folders on the disks "A", "B" and "C".
AcrossResult acrossSample() {
    AcrossResult r;
    r.trees.push_back({"t1", 900, 3, 900, {"/a/Photos", "/b/Photos"}, {"A", "B"}});
    r.trees.push_back({"t2", 300, 1, 300, {"/a/Music", "/b/Music", "/c/Music"}, {"A", "B", "C"}});
    AcrossFileGroup film;
    film.digest = "f1";
    film.size = film.freedBytes = 500;
    film.files = {file("/a/film.mkv", 500, 10), file("/b/film.mkv", 500, 11), file("/b/old/film.mkv", 500, 12)};
    film.volumes = {"A", "B", "B"};
    r.files.push_back(film);
    AcrossNearGroup near;
    near.folders = {"/a/Docs", "/b/Docs"};
    near.sameFiles = 9;
    near.sameBytes = 5000;  // more than anything else, yet it frees nothing as it stands
    near.changed = {"letter.odt"};
    r.nearlyIdentical.push_back(near);
    return r;
}

}  // namespace

class ItemModelsTest : public QObject {
    Q_OBJECT
private slots:
    void groupsShowLargestFirstKeptCopyFirstAndEngineFigures();
    void selectionChangesGiveTheEngineTotalForEveryFolderAndFile();
    void untickingAskesForTheExactBytesOfTheName();
    void keepingAnotherCopyReordersOnlyThatGroup();
    void sortAndFilterReorderGroupsAndKeepFiles();
    void largeSelectionChangesAreFiguredAsideAndNeverLandStale();
    void answersForAnOlderResultOrOrderAreDropped();
    void folderTreeFollowsTheMeasurement();
    void journalIsNewestFirstFilterableWithVerdicts();
    void acrossListsCopiesThatCanGoFirstAndForgetsWhatMoved();
};

void ItemModelsTest::groupsShowLargestFirstKeptCopyFirstAndEngineFigures() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    ScanResult r = sampleResult();
    m.setResult(std::make_shared<const ScanResult>(r), {});
    QVERIFY(settled(m));
    QCOMPARE(m.rowCount(), 4);
    QCOMPARE(m.index(0, GroupsModel::nameColumn).data().toString(), QString("big.iso"));
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, {}));

    QModelIndex photos = m.index(1, 0);
    QCOMPARE(m.rowCount(photos), 4);
    QModelIndex kept = m.index(0, GroupsModel::freesColumn, photos);
    QCOMPARE(kept.data(GroupsModel::KeptRole).toBool(), true);
    QCOMPARE(kept.data().toString(), QString("kept"));
    QVERIFY(!m.index(0, 0, photos).data(Qt::CheckStateRole).isValid());  // the kept copy has no box
    QCOMPARE(m.index(1, 0, photos).data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Checked);
    QCOMPARE(m.index(1, GroupsModel::freesColumn, photos).data().toString(), QString("3.0 kB"));
    QCOMPARE(m.parent(m.index(2, 0, photos)), photos);

    // The clone of the kept file is no target: its group frees nothing.
    QModelIndex shared = m.index(3, 0);
    QCOMPARE(shared.siblingAtColumn(GroupsModel::freesColumn).data(GroupsModel::SortRole).toLongLong(), 0);
}

void ItemModelsTest::selectionChangesGiveTheEngineTotalForEveryFolderAndFile() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    ScanResult r = sampleResult();
    m.setResult(std::make_shared<const ScanResult>(r), {});
    QVERIFY(settled(m));
    QSignalSpy totals(&m, &GroupsModel::reclaimableChanged);

    // Every step goes through the incremental path; the total must match a full computation.
    std::vector<std::set<std::string>> steps = {
        {"/d/a/b"},                       // a folder: not "/d/a/b.txt", not "/d/a/bc"
        {"/d/a/b", "/d/a/b.txt"},         // and then the file beside it
        {"/d/a/b.txt"},                   // the folder taken back
        {"/d/a"},                         // everything below /d/a
        {"/d/x/IMG_1 copy.jpg", "/d/y"},  // two copies of one group
        {"/"},                            // all
        {},
    };
    for (const auto& excluded : steps) {
        Selection s{excluded};
        m.setSelection(s);
        QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, s));
        for (int row = 0; row < m.rowCount(); ++row) {
            QModelIndex g = m.index(row, 0);
            for (int f = 1; f < m.rowCount(g); ++f) {
                QModelIndex copy = m.index(f, 0, g);
                bool left = s.excludes(copy.data(GroupsModel::PathRole).toByteArray().toStdString());
                QCOMPARE(copy.data(GroupsModel::ExcludedRole).toBool(), left);
                QCOMPARE(copy.data(Qt::CheckStateRole).value<Qt::CheckState>(), left ? Qt::Unchecked : Qt::Checked);
            }
        }
    }
    QCOMPARE(totals.count(), static_cast<int>(steps.size()));
    QCOMPARE(totals.last().at(0).toLongLong(), Report::reclaimableBytes(r.groups, {}));
}

void ItemModelsTest::untickingAskesForTheExactBytesOfTheName() {
    ScanResult r;
    DuplicateGroup g;
    g.digest = "ee";
    std::string latin1 = "/d/caf\xe9.txt";  // not UTF-8: must come back byte for byte
    g.files = {file("/d/kept.txt", 100, 1), file(latin1, 100, 2)};
    r.groups.push_back(g);
    GroupsModel m;
    m.setResult(std::make_shared<const ScanResult>(r), {});
    QVERIFY(settled(m));
    QSignalSpy asked(&m, &GroupsModel::excludeRequested);
    QModelIndex copy = m.index(1, 0, m.index(0, 0));
    QVERIFY(m.setData(copy, Qt::Unchecked, Qt::CheckStateRole));
    QCOMPARE(asked.count(), 1);
    QCOMPARE(asked.at(0).at(0).value<std::string>(), latin1);
    QCOMPARE(asked.at(0).at(1).toBool(), true);
    // The model waits for the owner of the selection: nothing changed yet.
    QCOMPARE(copy.data(GroupsModel::ExcludedRole).toBool(), false);
    QVERIFY(!m.setData(m.index(0, 0, m.index(0, 0)), Qt::Unchecked, Qt::CheckStateRole));  // kept copy
    m.setSelection(Selection{{latin1}});
    QCOMPARE(copy.data(GroupsModel::ExcludedRole).toBool(), true);
    QCOMPARE(m.reclaimableBytes(), 0);
}

void ItemModelsTest::keepingAnotherCopyReordersOnlyThatGroup() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    ScanResult r = sampleResult();
    Selection s{{"/d/y/IMG_1.jpg"}};
    m.setResult(std::make_shared<const ScanResult>(r), s);
    QVERIFY(settled(m));
    m.sort(GroupsModel::nameColumn, Qt::AscendingOrder);  // display rows no longer match result order
    QVERIFY(settled(m));
    QSignalSpy asked(&m, &GroupsModel::keepRequested);
    QModelIndex photos = m.index(0, 0);
    QVERIFY(m.requestKeep(m.index(2, 0, photos)));
    QCOMPARE(asked.count(), 1);
    const int group = asked.at(0).at(0).toInt();
    QCOMPARE(r.groups[group].files[asked.at(0).at(1).toInt()].path, std::string("/d/x/IMG_1 copy.jpg"));
    QVERIFY(!m.requestKeep(m.index(0, 0, photos)));  // already kept
    QVERIFY(!m.requestKeep(photos));                  // a group row is no copy

    // The owner answers with the group in its new order; figures follow the new kept copy.
    auto& files = r.groups[group].files;
    std::swap(files[0], files[2]);
    m.setGroup(group, r.groups[group]);
    QCOMPARE(m.index(0, 0, photos).data(GroupsModel::PathRole).toByteArray(), QByteArray("/d/x/IMG_1 copy.jpg"));
    QCOMPARE(m.index(0, 0, photos).data(GroupsModel::KeptRole).toBool(), true);
    QCOMPARE(m.index(2, 0, photos).data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Checked);
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, s));
    QCOMPARE(m.positionOf(m.index(3, 0, photos)), std::make_pair(group, 3));
    // The selection still finds the moved files by path.
    m.setSelection({});
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, {}));
}

void ItemModelsTest::sortAndFilterReorderGroupsAndKeepFiles() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    m.setResult(std::make_shared<const ScanResult>(sampleResult()), {});
    QVERIFY(settled(m));
    m.sort(GroupsModel::nameColumn, Qt::AscendingOrder);
    QVERIFY(settled(m));
    QCOMPARE(names(m), (std::vector<QString>{"IMG_1.JPG", "big.iso", "notes.txt", "one.bin"}));
    m.sortBy(GroupsModel::SortKey::size, Qt::AscendingOrder);
    QVERIFY(settled(m));
    QCOMPARE(names(m), (std::vector<QString>{"notes.txt", "one.bin", "IMG_1.JPG", "big.iso"}));

    // A group is shown when any of its files matches, whatever the case.
    m.setFilter({"JPG", GroupsModel::FilterField::extension, 0});
    QVERIFY(settled(m));
    QCOMPARE(names(m), std::vector<QString>{"IMG_1.JPG"});
    m.setFilter({".txt", GroupsModel::FilterField::extension, 0});
    QVERIFY(settled(m));
    QCOMPARE(names(m), (std::vector<QString>{"notes.txt", "big.iso"}));  // big.iso has a copy named b.txt
    m.setFilter({"COPY", GroupsModel::FilterField::name, 0});
    QVERIFY(settled(m));
    QCOMPARE(names(m), std::vector<QString>{"IMG_1.JPG"});
    m.setFilter({"/d/a/bc", GroupsModel::FilterField::path, 0});
    QVERIFY(settled(m));
    QCOMPARE(names(m), std::vector<QString>{"notes.txt"});
    m.setFilter({"", GroupsModel::FilterField::path, 1000});
    QVERIFY(settled(m));
    QCOMPARE(names(m), (std::vector<QString>{"IMG_1.JPG", "big.iso"}));
    QCOMPARE(m.rowCount(m.index(0, 0)), 4);

    // A selection change while filtered reaches the rows shown and leaves hidden groups alone.
    m.setSelection(Selection{{"/d/a"}});
    QCOMPARE(m.index(1, GroupsModel::freesColumn).data().toString(), QString("0 bytes"));
    QVERIFY(!m.indexOfPath("/d/notes.txt").isValid());  // hidden by the filter
    m.setFilter({});
    QVERIFY(settled(m));
    QCOMPARE(m.indexOfPath("/d/a/bc/notes.txt").row(), 0);
}

// Enough groups that leaving out one folder is figured on a worker: each group has its kept copy
// in /k and one copy in each of /big/<n % 7> and /other.
ScanResult manyGroups() {
    ScanResult r;
    const int count = static_cast<int>(GroupsModel::groupsFiguredInPlace) * 2 + 10;
    uint64_t inode = 1;
    for (int g = 0; g < count; ++g) {
        DuplicateGroup group;
        group.digest = std::to_string(g);
        const std::string name = "/f" + std::to_string(g) + ".bin";
        const int64_t size = 1000 + g;
        group.files = {file("/k" + name, size, inode++), file("/big/" + std::to_string(g % 7) + name, size, inode++),
                       file("/other" + name, size, inode++)};
        group.reclaimableBytes = size * 2;
        r.groups.push_back(std::move(group));
    }
    return r;
}

void ItemModelsTest::largeSelectionChangesAreFiguredAsideAndNeverLandStale() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    ScanResult r = manyGroups();
    m.setResult(std::make_shared<const ScanResult>(r), {});
    QVERIFY(settled(m));
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, {}));

    // Every group is touched: the figures are not current until the worker answers.
    m.setSelection(Selection{{"/big"}});
    QVERIFY(!m.figuresCurrent());
    // Meanwhile the user keeps another copy in one group and takes back one folder: the worker's
    // figures for those groups are older than these changes and must not be taken.
    std::swap(r.groups[5].files[0], r.groups[5].files[2]);
    m.setGroup(5, r.groups[5]);
    Selection later{{"/big/0", "/big/1", "/big/2", "/big/3", "/big/4", "/big/6"}};
    m.setSelection(later);
    QVERIFY(settled(m));
    QVERIFY(m.figuresCurrent());
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(r.groups, later));
    const auto targets = Report::targets(r.groups, later);
    QCOMPARE(m.copiesToReclaim(), static_cast<int64_t>(targets.size()));
    for (int row = 0; row < m.rowCount(); ++row) {
        const QModelIndex g = m.index(row, 0);
        const auto [number, place] = m.positionOf(m.index(0, 0, g));
        const auto& expected = r.groups[static_cast<size_t>(number)];
        QCOMPARE(m.index(0, 0, g).data(GroupsModel::PathRole).toByteArray().toStdString(), expected.files[0].path);
        for (int f = 1; f < m.rowCount(g); ++f) {
            const std::string path = m.index(f, 0, g).data(GroupsModel::PathRole).toByteArray().toStdString();
            QCOMPARE(m.index(f, 0, g).data(GroupsModel::ExcludedRole).toBool(), later.excludes(path));
        }
    }
}

void ItemModelsTest::answersForAnOlderResultOrOrderAreDropped() {
    GroupsModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    // A second result given before the first was tabulated: only the second is ever shown.
    m.setResult(std::make_shared<const ScanResult>(manyGroups()), {});
    QCOMPARE(m.rowCount(), 0);  // nothing of an older result stays on show meanwhile
    QVERIFY(m.busy());
    const ScanResult small = sampleResult();
    m.setResult(std::make_shared<const ScanResult>(small), {});
    QVERIFY(settled(m));
    QCOMPARE(m.rowCount(), 4);
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(small.groups, {}));

    // Sorts and filters asked for in a row: the last one asked for is what is shown.
    m.sortBy(GroupsModel::SortKey::size, Qt::AscendingOrder);
    m.setFilter({"", GroupsModel::FilterField::path, 1000});
    m.sortBy(GroupsModel::SortKey::name, Qt::AscendingOrder);
    QVERIFY(settled(m));
    QCOMPARE(names(m), (std::vector<QString>{"IMG_1.JPG", "big.iso"}));

    // A filter asked for while a result is being tabulated applies to it when it lands.
    m.setResult(std::make_shared<const ScanResult>(small), Selection{{"/d/a"}});
    m.setFilter({"notes", GroupsModel::FilterField::name, 0});
    QVERIFY(settled(m));
    QCOMPARE(names(m), std::vector<QString>{"notes.txt"});
    QCOMPARE(m.reclaimableBytes(), Report::reclaimableBytes(small.groups, Selection{{"/d/a"}}));
    m.clear();
    QVERIFY(settled(m));
    QCOMPARE(m.rowCount(), 0);
    QCOMPARE(m.reclaimableBytes(), 0);
}

void ItemModelsTest::folderTreeFollowsTheMeasurement() {
    FolderSize root{"/v", 1000, 1200, 600, 300, {}};
    root.children.push_back({"/v/big", 700, 800, 450, 200, {}});
    root.children.push_back({"/v/small", 300, 400, 150, 100, {}});
    root.children[0].children.push_back({"/v/big/inner", 100, 100, 100, 0, {}});
    FolderSizeModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    m.setMeasurement(root);
    QCOMPARE(m.rowCount(), 1);
    QModelIndex top = m.index(0, 0);
    QCOMPARE(m.rowCount(top), 2);
    QModelIndex big = m.index(0, 0, top);
    QCOMPARE(big.data().toString(), QString("big"));
    QCOMPARE(m.index(0, FolderSizeModel::freesColumn, top).data(FolderSizeModel::BytesRole).toLongLong(), 450);
    QCOMPARE(big.data(FolderSizeModel::ShareOfParentRole).toDouble(), 0.75);
    QModelIndex inner = m.index(0, 0, big);
    QCOMPARE(m.parent(inner), big);
    QCOMPARE(m.folderAt(inner)->path, std::string("/v/big/inner"));
    m.clear();
    QCOMPARE(m.rowCount(), 0);
}

void ItemModelsTest::journalIsNewestFirstFilterableWithVerdicts() {
    std::vector<JournalEntry> entries;
    auto add = [&](JournalEntry::Event event, std::string target, std::time_t time) {
        JournalEntry e = JournalEntry::make(event, std::move(target));
        e.time = time;
        entries.push_back(e);
        return e;
    };
    add(JournalEntry::Event::started, "/d/one", 100);
    JournalEntry replaced = add(JournalEntry::Event::replaced, "/d/one", 101);
    JournalEntry skipped = add(JournalEntry::Event::skipped, "/e/two", 102);
    entries.back().detail = "inUse";
    add(JournalEntry::Event::failed, "/e/three", 103);
    entries.back().detail = "write: No space left on device";
    JournalModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    m.setEntries(entries);
    QCOMPARE(m.rowCount(), 4);
    QCOMPARE(m.index(0, JournalModel::eventColumn).data().toString(), QString("failed: write: No space left on device"));
    QCOMPARE(m.index(1, JournalModel::eventColumn).data().toString(), QString("left alone: open in another app"));
    QCOMPARE(m.index(3, JournalModel::eventColumn).data().toString(), QString("started"));

    // Before Verify, a replaced file's blank verdict says why it is blank.
    QVERIFY(m.index(2, JournalModel::verdictColumn).data(Qt::ToolTipRole).toString().contains("Verify"));
    QVERIFY(m.headerData(JournalModel::verdictColumn, Qt::Horizontal, Qt::ToolTipRole).toString().contains("Verify"));
    m.setFindings({{replaced, Journal::Finding::contentChanged}});
    QVERIFY(m.index(2, JournalModel::verdictColumn).data(Qt::ToolTipRole).isNull());
    QCOMPARE(m.index(2, JournalModel::verdictColumn).data().toString(), QString("changed since"));
    QCOMPARE(m.index(1, JournalModel::verdictColumn).data().toString(), QString());

    m.setFilter(JournalEntry::Event::replaced, "");
    QCOMPARE(m.rowCount(), 1);
    QCOMPARE(m.entryAt(m.index(0, 0))->id, replaced.id);
    m.setFilter(std::nullopt, "/e/t");
    QCOMPARE(m.rowCount(), 2);
    QCOMPARE(m.entryAt(m.index(1, 0))->id, skipped.id);
}

void ItemModelsTest::acrossListsCopiesThatCanGoFirstAndForgetsWhatMoved() {
    AcrossModel m;
    QAbstractItemModelTester tester(&m, QAbstractItemModelTester::FailureReportingMode::QtTest);
    AcrossResult result = acrossSample();
    m.setResult(result);
    QCOMPARE(m.rowCount(), 4);
    QCOMPARE(m.kindOf(m.index(0, 0)), AcrossModel::Kind::tree);  // 900 freed
    QCOMPARE(m.kindOf(m.index(1, 0)), AcrossModel::Kind::file);  // 500
    QCOMPARE(m.kindOf(m.index(2, 0)), AcrossModel::Kind::tree);  // 300
    QCOMPARE(m.kindOf(m.index(3, 0)), AcrossModel::Kind::near);
    QCOMPARE(m.rowCount(m.index(1, 0)), 3);
    QCOMPARE(m.index(2, 0, m.index(1, 0)).data(AcrossModel::PathRole).toByteArray(), QByteArray("/b/old/film.mkv"));
    QCOMPARE(m.pathOf(m.index(1, 0)), std::string());  // a group row names no copy
    QVERIFY(m.index(3, AcrossModel::detailsColumn).data().toString().contains("1 changed"));

    // One copy of the film goes: two copies remain on two disks, so the group stays.
    AppModel::removeFromAcross(result, "/b/film.mkv");
    QCOMPARE(result.files.size(), 1u);
    QCOMPARE(result.files[0].files.size(), 2u);
    QCOMPARE(result.files[0].volumes, (std::vector<std::string>{"A", "B"}));
    // The other copy on disk B goes too: what is left lies on one disk only.
    AppModel::removeFromAcross(result, "/b/old");
    QVERIFY(result.files.empty());
    // A file taken out of one copy of a tree leaves the trees different; a folder holding a copy
    // takes the copy with it, and a tree left on two disks stays.
    AppModel::removeFromAcross(result, "/a/Photos/2024/x.jpg");
    AppModel::removeFromAcross(result, "/c");
    QCOMPARE(result.trees.size(), 1u);
    QCOMPARE(result.trees[0].folders, (std::vector<std::string>{"/a/Music", "/b/Music"}));
    // A name that merely begins like a folder is not inside it.
    AppModel::removeFromAcross(result, "/a/Doc");
    QCOMPARE(result.nearlyIdentical.size(), 1u);
    AppModel::removeFromAcross(result, "/b");
    QVERIFY(result.trees.empty() && result.nearlyIdentical.empty());
    m.setResult(result);
    QCOMPARE(m.rowCount(), 0);
}

QTEST_GUILESS_MAIN(ItemModelsTest)
#include "item_models_test.moc"
