// The window driven as a user drives it: folders dropped in, Scan clicked, a copy unticked with the
// keyboard, another copy chosen to keep, Reclaim confirmed, on a real loop-mounted Btrfs volume.
// What the window shows is checked against what happened to the files.
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>
#include <QTreeView>
#include <QTreeWidget>
#include <QUrl>

#include "app_model.h"
#include "automatic_view.h"
#include "main_window.h"
#include "reclaim_summary_dialog.h"
#include "scan_view.h"
#include "support/loop_volume.h"
#include "support/test_files.h"

using namespace dedup;
using namespace dedup::app;
using dedup::test::LoopVolume;

namespace {

AppPlaces placesIn(const std::string& folder) {
    return AppPlaces{folder + "/data", folder + "/cache", QString::fromStdString(folder + "/settings.ini"),
                     folder + "/autostart"};
}

void dropFolder(QWidget* target, const std::string& folder) {
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(QString::fromStdString(folder))});
    const QPoint at = target->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
}

// The row of the copy whose path ends with `suffix` under the group row `group`.
QModelIndex copyEndingWith(QAbstractItemModel* model, const QModelIndex& group, const QByteArray& suffix) {
    for (int row = 0; row < model->rowCount(group); ++row) {
        QModelIndex index = model->index(row, 0, group);
        if (index.data(GroupsModel::PathRole).toByteArray().endsWith(suffix)) return index;
    }
    return {};
}

uint64_t cloneId(const std::string& path) {
    auto info = CloneInfo::read(path);
    return info ? info->cloneID : 0;
}

}  // namespace

class WindowTest : public QObject {
    Q_OBJECT
private slots:
    void scanChooseAndReclaimThroughTheButtonsOnBtrfs();
};

void WindowTest::scanChooseAndReclaimThroughTheButtonsOnBtrfs() {
    if (auto why = LoopVolume::unavailableReason(LoopVolume::Kind::btrfs); !why.empty()) QSKIP(why.c_str());
    auto volume = LoopVolume::create(LoopVolume::Kind::btrfs);
    const std::string root = volume->path("photos");
    test::writeRandomFile(root + "/2024/a.jpg", 300000, 1);
    test::writeFile(root + "/import/a.jpg", test::readFile(root + "/2024/a.jpg"));
    test::writeFile(root + "/backup/a.jpg", test::readFile(root + "/2024/a.jpg"));
    test::writeFile(root + "/saved/a.jpg", test::readFile(root + "/2024/a.jpg"));
    test::writeRandomFile(root + "/docs/x.pdf", 200000, 2);
    test::writeFile(root + "/docs/old/x.pdf", test::readFile(root + "/docs/x.pdf"));

    test::TempDir home;
    {
        AppModel model(placesIn(home.path()));
        MainWindow window(model);
        window.show();
        ScanView* scan = window.scanView();
        auto* scanButton = scan->findChild<QPushButton*>("scan");
        QVERIFY(!scanButton->isEnabled());  // no folder yet

        dropFolder(scan, root);
        QCOMPARE(model.sources(), std::vector<std::string>{root});
        QVERIFY(scanButton->isEnabled());
        QTest::mouseClick(scanButton, Qt::LeftButton);
        QCOMPARE(model.phase(), AppModel::Phase::scanning);
        QVERIFY(scan->findChild<QPushButton*>("cancel")->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
        // The list is tabulated on a worker and shown once it answered.
        QTRY_VERIFY_WITH_TIMEOUT(!scan->groups().busy(), 60000);

        // Largest first, kept copy first, and the total the plan gives.
        QTreeView* list = scan->groupList();
        QAbstractItemModel* groups = list->model();
        QCOMPARE(groups->rowCount(), 2);
        QModelIndex photos = groups->index(0, 0);
        QCOMPARE(photos.data().toString(), QString("a.jpg"));
        QCOMPARE(groups->rowCount(photos), 4);
        QList<QLabel*> total;
        for (QLabel* l : scan->findChildren<QLabel*>()) {
            if (l->accessibleName() == "Reclaimable total") total << l;
        }
        QCOMPARE(total.size(), 1);
        QCOMPARE(total[0]->text(), QString("1.1 MB to reclaim"));

        // Untick the copy in backup/ with the keyboard: saved at once, and the total follows.
        QModelIndex backup = copyEndingWith(groups, photos, "/backup/a.jpg");
        QVERIFY(backup.isValid() && backup.row() > 0);
        list->setFocus();
        list->setCurrentIndex(backup);
        QTest::keyClick(list, Qt::Key_Space);
        QCOMPARE(backup.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        QCOMPARE(Selection::load(home.path("data/selection.json")).excluded, std::set<std::string>{root + "/backup/a.jpg"});
        QCOMPARE(total[0]->text(), QString("800.0 kB to reclaim"));

        // Keep the old x.pdf instead of the newer one.
        QModelIndex docs = groups->index(1, 0);
        QModelIndex old = copyEndingWith(groups, docs, "/docs/old/x.pdf");
        if (old.row() != 0) {
            list->setCurrentIndex(old);
            QTest::mouseClick(scan->findChild<QPushButton*>("keep"), Qt::LeftButton);
            QCOMPARE(model.result()->groups[1].files.front().path, root + "/docs/old/x.pdf");
            QCOMPARE(groups->index(0, 0, docs).data(GroupsModel::PathRole).toByteArray().toStdString(),
                     root + "/docs/old/x.pdf");
        }
        const auto oldInode = FileStatus::read(root + "/docs/old/x.pdf").inode;
        // A program saves over one copy after the scan: the reclaim must leave it alone and say why.
        test::runCommandChecked({"touch", "-d", "2001-01-01", root + "/saved/a.jpg"});
        const auto keptPhoto = model.result()->groups[0].files.front().path;

        // Reclaim, answering the confirmation as a user would after reading it.
        QString asked;
        QTimer::singleShot(0, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            QVERIFY(box);
            asked = box->text();
            for (QAbstractButton* b : box->buttons()) {
                if (b->text() == "Reclaim") b->click();
            }
        });
        QTest::mouseClick(scan->findChild<QPushButton*>("reclaim"), Qt::LeftButton);
        QVERIFY2(asked.contains("3 copies in 2 groups") && asked.contains("800.0 kB"), qPrintable(asked));
        QTRY_VERIFY_WITH_TIMEOUT(model.hasSummary(), 60000);
        QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
        QTRY_VERIFY_WITH_TIMEOUT(!scan->groups().busy(), 60000);

        auto* summary = scan->findChild<ReclaimSummaryDialog*>();
        QVERIFY(summary && summary->isVisible());
        QVERIFY2(summary->headline().contains("2 copies"), qPrintable(summary->headline()));
        auto* leftAlone = summary->findChild<QTreeWidget*>();
        QCOMPARE(leftAlone->topLevelItemCount(), 1);
        QCOMPARE(leftAlone->topLevelItem(0)->text(0).toStdString(), root + "/saved/a.jpg");
        QCOMPARE(leftAlone->topLevelItem(0)->text(1), QString("changed since the scan"));
        QDir().mkpath(QStringLiteral(SCREENSHOT_DIR));
        summary->grab().save(QStringLiteral(SCREENSHOT_DIR "/reclaim-summary.png"));
        // The copy left out still has blocks of its own; the others share the kept file's.
        QVERIFY(cloneId(root + "/import/a.jpg") == cloneId(keptPhoto) || cloneId(root + "/2024/a.jpg") == cloneId(keptPhoto));
        QVERIFY(cloneId(root + "/backup/a.jpg") != cloneId(keptPhoto));
        QCOMPARE(cloneId(root + "/docs/x.pdf"), cloneId(root + "/docs/old/x.pdf"));
        QCOMPARE(FileStatus::read(root + "/docs/old/x.pdf").inode, oldInode);  // the kept copy is untouched

        // The fresh scan still shows the left-out copy unticked; only the changed copy is left.
        QCOMPARE(groups->rowCount(), 1);
        QModelIndex again = copyEndingWith(groups, groups->index(0, 0), "/backup/a.jpg");
        QCOMPARE(again.data(Qt::CheckStateRole).value<Qt::CheckState>(), Qt::Unchecked);
        QCOMPARE(total[0]->text(), QString("300.0 kB to reclaim"));

        // The volume marked as a backup disk shows as connected and able to clone; Unmark takes it off.
        window.showScreen(MainWindow::automaticScreen);
        model.setBackupDisk(QString::fromStdString(root), true);
        QTreeWidget* disks = window.automaticView()->backupDisks();
        QCOMPARE(disks->topLevelItemCount(), 1);
        QCOMPARE(disks->topLevelItem(0)->text(1), QString("yes"));
        QCOMPARE(disks->topLevelItem(0)->text(2), QString("yes"));
        disks->setCurrentItem(disks->topLevelItem(0));
        QPushButton* unmark = nullptr;
        for (QPushButton* b : window.automaticView()->findChildren<QPushButton*>()) {
            if (b->text() == "Unmark") unmark = b;
        }
        QTest::mouseClick(unmark, Qt::LeftButton);
        QVERIFY(model.backupDisks().volumes.empty());
        QCOMPARE(disks->topLevelItemCount(), 0);
        window.close();
        AppModel::waitForTasks();
    }
}

QTEST_MAIN(WindowTest)
#include "window_test.moc"
