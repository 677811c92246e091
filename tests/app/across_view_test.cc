// The Across Disks screen driven as a user drives it, on a Btrfs and an XFS volume: Search
// clicked, a copy chosen in the list, Move to Trash confirmed. What the screen says is checked
// against what happened to the files.
#include <unistd.h>

#include <filesystem>

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QTreeView>

#include "across_view.h"
#include "app_model.h"
#include "journal.h"
#include "support/loop_volume.h"
#include "support/test_files.h"

using namespace dedup;
using namespace dedup::app;
using dedup::test::LoopVolume;
namespace fs = std::filesystem;

namespace {

AppPlaces placesIn(const std::string& folder) {
    return AppPlaces{folder + "/data", folder + "/cache", QString::fromStdString(folder + "/settings.ini"),
                     folder + "/autostart"};
}

void makeAlbum(const std::string& top) {
    test::writeRandomFile(top + "/2024/beach.jpg", 240000, 31);
    test::writeRandomFile(top + "/2024/trip/hills.jpg", 180000, 32);
    test::writeFile(top + "/2024/trip/notes.txt", "day one");
    test::writeFile(top + "/empty.txt", "");
}

// The group rows of one kind, and the row of the copy at `path` under a group.
QList<QModelIndex> groupsOfKind(const AcrossModel& model, AcrossModel::Kind kind) {
    QList<QModelIndex> rows;
    for (int row = 0; row < model.rowCount(); ++row) {
        QModelIndex group = model.index(row, 0);
        if (model.kindOf(group) == kind) rows << group;
    }
    return rows;
}

QModelIndex copyAt(const AcrossModel& model, const std::string& path) {
    for (int row = 0; row < model.rowCount(); ++row) {
        QModelIndex group = model.index(row, 0);
        for (int copy = 0; copy < model.rowCount(group); ++copy) {
            QModelIndex index = model.index(copy, 0, group);
            if (index.data(AcrossModel::PathRole).toByteArray().toStdString() == path) return index;
        }
    }
    return {};
}

// Clicks Move to Trash with `copy` chosen, answers the confirmation, and returns what it asked.
QString moveThroughTheButton(AcrossView& view, const QModelIndex& copy, bool confirm) {
    view.list()->setCurrentIndex(copy);
    QString asked;
    QTimer::singleShot(0, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box) return;
        asked = box->text() + '\n' + box->informativeText();
        for (QAbstractButton* b : box->buttons()) {
            if (b->text() == (confirm ? "Move to Trash" : "Cancel")) b->click();
        }
    });
    QTest::mouseClick(view.findChild<QPushButton*>("moveToTrash"), Qt::LeftButton);
    return asked;
}

}  // namespace

class AcrossViewTest : public QObject {
    Q_OBJECT
private slots:
    void searchListsTreesOnceAndMovesOnlyUnchangedCopies();
};

void AcrossViewTest::searchListsTreesOnceAndMovesOnlyUnchangedCopies() {
    for (auto kind : {LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs}) {
        if (auto why = LoopVolume::unavailableReason(kind); !why.empty()) QSKIP(why.c_str());
    }
    auto btrfs = LoopVolume::create(LoopVolume::Kind::btrfs);
    auto xfs = LoopVolume::create(LoopVolume::Kind::xfs);
    const std::string left = btrfs->path("home"), right = xfs->path("backup");
    makeAlbum(left + "/Photos");
    // An old disk's name that is not UTF-8 ("Photos \xe9t\xe9" in Latin-1) must reach the Trash
    // byte for byte.
    const std::string backupPhotos = right + "/Photos \xe9t\xe9";
    makeAlbum(backupPhotos);
    test::writeRandomFile(left + "/film.mkv", 600000, 33);
    test::writeRandomFile(right + "/Videos/film.mkv", 600000, 33);
    // Nearly the same: one file changed, one only on the backup.
    for (const auto& top : {left + "/Album", right + "/Album"}) {
        test::writeRandomFile(top + "/2024/dunes.jpg", 200000, 34);
        test::writeRandomFile(top + "/2024/sea.jpg", 150000, 35);
        test::writeFile(top + "/2024/trip/notes.txt", "day one");
    }
    test::writeFile(right + "/Album/2024/trip/notes.txt", "day two");
    test::writeFile(right + "/Album/2024/extra.txt", "only here");

    test::TempDir home;
    {
        AppModel model(placesIn(home.path()));
        AcrossView view(model);
        view.show();
        QAbstractItemModelTester tester(&view.results(), QAbstractItemModelTester::FailureReportingMode::QtTest);
        auto* search = view.findChild<QPushButton*>("search");
        QVERIFY(!search->isEnabled());  // no folder, or one, is not "across"
        // The Scan screen's folders, chosen after this screen was made, are offered and taken.
        auto* useScanFolders = view.findChild<QPushButton*>("useScanFolders");
        QVERIFY(!useScanFolders->isEnabled());
        model.add({QString::fromStdString(left), QString::fromStdString(right)});
        QVERIFY(useScanFolders->isEnabled());
        QTest::mouseClick(useScanFolders, Qt::LeftButton);
        QCOMPARE(view.folders(), (std::vector<std::string>{left, right}));
        QVERIFY(search->isEnabled());
        // Cancelled at once: the screen lists nothing rather than part of the answer.
        QTest::mouseClick(search, Qt::LeftButton);
        QTest::mouseClick(view.findChild<QPushButton*>("cancel"), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!model.acrossBusy(), 60000);
        QVERIFY(!model.acrossResult());
        QCOMPARE(view.results().rowCount(), 0);
        QVERIFY(search->isEnabled());

        QTest::mouseClick(search, Qt::LeftButton);
        QVERIFY(model.acrossBusy());
        QVERIFY(view.findChild<QPushButton*>("cancel")->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(!model.acrossBusy() && model.acrossResult(), 60000);

        // The tree once, not again as its subfolders; the film; the album as nearly identical.
        AcrossModel& results = view.results();
        auto trees = groupsOfKind(results, AcrossModel::Kind::tree);
        QCOMPARE(trees.size(), 1);
        QCOMPARE(results.copiesOf(trees[0]), (std::vector<std::string>{left + "/Photos", backupPhotos}));
        QVERIFY(!copyAt(results, left + "/Photos/2024").isValid());
        QVERIFY(!copyAt(results, left + "/Photos/2024/beach.jpg").isValid());
        const QModelIndex film = copyAt(results, left + "/film.mkv");
        QVERIFY(film.isValid());
        QCOMPARE(results.copiesOf(film), (std::vector<std::string>{left + "/film.mkv", right + "/Videos/film.mkv"}));
        const auto files = groupsOfKind(results, AcrossModel::Kind::file).size();
        auto near = groupsOfKind(results, AcrossModel::Kind::near);
        QCOMPARE(near.size(), 1);
        view.list()->setCurrentIndex(near[0]);
        QVERIFY2(view.details().contains("only in " + QString::fromStdString(right) + "/Album: 2024/extra.txt"),
                 qPrintable(view.details()));
        QVERIFY2(view.details().contains("changed: 2024/trip/notes.txt"), qPrintable(view.details()));
        QVERIFY(!view.findChild<QPushButton*>("moveToTrash")->isEnabled());
        // Largest freed first: the film (600 kB) before the tree (420 kB).
        QCOMPARE(results.kindOf(results.index(0, 0)), AcrossModel::Kind::file);

        // A program saves over the backup's film after the search: nothing moves, and the screen
        // says which file changed.
        std::string changed = test::randomBytes(600000, 33);
        changed[1000] ^= 1;
        test::writeFile(right + "/Videos/film.mkv", changed);
        const QString asked = moveThroughTheButton(view, copyAt(results, right + "/Videos/film.mkv"), true);
        QVERIFY2(asked.contains(QString::fromStdString(right + "/Videos/film.mkv")), qPrintable(asked));
        QVERIFY2(asked.contains(QString::fromStdString(left + "/film.mkv") + " on " + QString::fromStdString(btrfs->mountPoint())),
                 qPrintable(asked));
        const QString trash = QString::fromStdString(xfs->mountPoint() + "/.Trash-" + std::to_string(::geteuid()));
        QVERIFY2(asked.contains("(" + trash + ")"), qPrintable(asked));
        QTRY_VERIFY_WITH_TIMEOUT(view.outcome().startsWith("Nothing was moved"), 60000);
        QVERIFY2(view.outcome().contains("film.mkv") && view.outcome().contains("differ"), qPrintable(view.outcome()));
        QCOMPARE(test::readFile(right + "/Videos/film.mkv"), changed);
        QCOMPARE(groupsOfKind(results, AcrossModel::Kind::file).size(), files);
        QVERIFY(copyAt(results, right + "/Videos/film.mkv").isValid());

        // Cancelled at the confirmation: nothing happens at all.
        QSignalSpy moves(&model, &AppModel::acrossMoved);
        moveThroughTheButton(view, copyAt(results, backupPhotos), false);
        QVERIFY(!model.acrossBusy());
        QVERIFY(fs::exists(backupPhotos + "/2024/beach.jpg"));

        // The backup's tree goes to its own disk's Trash; the list no longer offers it.
        moveThroughTheButton(view, copyAt(results, backupPhotos), true);
        QTRY_VERIFY_WITH_TIMEOUT(moves.size() == 1, 60000);
        QVERIFY2(view.outcome().contains("is in the Trash"), qPrintable(view.outcome()));
        QVERIFY(!fs::exists(backupPhotos));
        QCOMPARE(test::readFile(trash.toStdString() + "/files/Photos \xe9t\xe9/2024/trip/notes.txt"), std::string("day one"));
        QVERIFY(fs::exists(left + "/Photos/2024/beach.jpg"));
        QVERIFY(groupsOfKind(results, AcrossModel::Kind::tree).isEmpty());
        QVERIFY(!copyAt(results, left + "/Photos").isValid());
        QCOMPARE(groupsOfKind(results, AcrossModel::Kind::near).size(), 1);

        Journal journal(home.path("data/journal.jsonl"));
        auto entries = journal.entries();
        QVERIFY(!entries.empty());
        QCOMPARE(entries.back().event, JournalEntry::Event::trashed);
        QCOMPARE(entries.back().target, backupPhotos);
        QCOMPARE(entries.back().source, std::optional<std::string>(left + "/Photos"));
        view.close();
        AppModel::waitForTasks();
    }
}

QTEST_MAIN(AcrossViewTest)
#include "across_view_test.moc"
