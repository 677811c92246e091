// The window driven as a user drives it: folders dropped in, Scan clicked, a copy unticked with the
// keyboard, another copy chosen to keep, Reclaim confirmed, on a real loop-mounted Btrfs volume.
// What the window shows is checked against what happened to the files.
#include <QAction>
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
#include "report_export.h"
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
    void savedScanOpensAndExportsThroughTheFileMenuAndFailuresKeepTheResult();
};

namespace {

ScanResult savedResult(int groups) {
    ScanResult result;
    for (int g = 0; g < groups; ++g) {
        DuplicateGroup group;
        group.digest = "d" + std::to_string(g);
        for (int f = 0; f < 3; ++f) {
            ScannedFile file;
            file.path = "/home/ana/Pictures/" + std::to_string(g) + "/IMG_" + std::to_string(f) + ".jpg";
            file.status.size = 1000 * (groups - g);
            file.status.inode = static_cast<uint64_t>(g * 3 + f + 1);
            file.status.device = 1;
            group.files.push_back(file);
        }
        group.reclaimableBytes = 2000 * (groups - g);
        result.groups.push_back(group);
    }
    result.filesSeen = groups * 3;
    return result;
}

// Triggers a File menu action and waits for the model's answer, checking on the way that the
// window offers no second file task while this one runs.
QList<QVariant> runFromMenu(MainWindow& window, AppModel& model, const char* action, bool opening) {
    auto* item = window.findChild<QAction*>(action);
    if (!item || !item->isEnabled()) return {};
    QSignalSpy answered(&model, opening ? &AppModel::scanLoaded : &AppModel::exported);
    item->trigger();
    if (answered.isEmpty()) {
        // The work is on a worker; its answer comes back through the event loop, so until then the
        // window is busy and offers neither Open, Save nor Export.
        if (!model.fileBusy() || window.findChild<QAction*>("openScan")->isEnabled() ||
            window.findChild<QAction*>("exportTable")->isEnabled() || window.findChild<QAction*>("saveScan")->isEnabled()) {
            return {};
        }
        if (!answered.wait(60000)) return {};
    }
    if (model.fileBusy()) return {};
    return answered.takeFirst();
}

}  // namespace

void WindowTest::savedScanOpensAndExportsThroughTheFileMenuAndFailuresKeepTheResult() {
    test::TempDir dir;
    const ScanResult saved = savedResult(4);
    test::writeFile(dir.path("saved.json"), Report::json(saved));
    const std::string text = Report::json(savedResult(2));
    test::writeFile(dir.path("damaged.json"), text.substr(0, text.size() / 2));  // cut short, as by a full disk
    test::writeFile(dir.path("a file"), "x");

    AppModel model(placesIn(dir.path()));
    MainWindow window(model);
    QString answer;
    MainWindow::FileQuestion asked{};
    window.setFileChooser([&](MainWindow::FileQuestion question) {
        asked = question;
        return answer;
    });
    window.show();
    QVERIFY(window.findChild<QAction*>("openScan")->isEnabled());
    QVERIFY(!window.findChild<QAction*>("exportTable")->isEnabled());  // nothing to export yet
    QVERIFY(!window.findChild<QAction*>("saveScan")->isEnabled());

    // Opened through the menu: the result is the one saved, and a second open asked meanwhile is
    // refused without touching it.
    answer = QString::fromStdString(dir.path("saved.json"));
    {
        QSignalSpy loaded(&model, &AppModel::scanLoaded);
        window.findChild<QAction*>("openScan")->trigger();
        QVERIFY(model.fileBusy());
        model.loadScan(QString::fromStdString(dir.path("damaged.json")));
        QCOMPARE(loaded.size(), 1);
        QCOMPARE(loaded.first().at(0).toBool(), false);
        QVERIFY(loaded.first().at(1).toString().contains("Try again"));
        QVERIFY(loaded.wait(60000));
        QCOMPARE(loaded.size(), 2);
        QCOMPARE(loaded.at(1).at(0).toBool(), true);
    }
    QCOMPARE(asked, MainWindow::FileQuestion::openScan);
    QVERIFY(model.hasResult());
    QCOMPARE(*model.result(), saved);
    QVERIFY(window.findChild<QAction*>("exportTable")->isEnabled());

    // The table and the scan saved through the menu hold what the model holds.
    answer = QString::fromStdString(dir.path("copies.csv"));
    auto outcome = runFromMenu(window, model, "exportTable", false);
    QCOMPARE(outcome.value(0).toBool(), true);
    QCOMPARE(asked, MainWindow::FileQuestion::exportTable);
    QCOMPARE(test::readFile(dir.path("copies.csv")), Report::csv(saved.groups, model.selection()));
    answer = QString::fromStdString(dir.path("again.json"));
    outcome = runFromMenu(window, model, "saveScan", false);
    QCOMPARE(outcome.value(0).toBool(), true);
    QCOMPARE(Report::load(test::readFile(dir.path("again.json"))), saved);

    // A damaged saved scan and one that is not there say so, and the result on screen stays.
    answer = QString::fromStdString(dir.path("damaged.json"));
    outcome = runFromMenu(window, model, "openScan", true);
    QCOMPARE(outcome.value(0).toBool(), false);
    QVERIFY2(outcome.value(1).toString().contains("damaged.json is not a saved scan"), qPrintable(outcome.value(1).toString()));
    QCOMPARE(model.error(), outcome.value(1).toString());
    answer = QString::fromStdString(dir.path("gone.json"));
    outcome = runFromMenu(window, model, "openScan", true);
    QCOMPARE(outcome.value(0).toBool(), false);
    QVERIFY2(outcome.value(1).toString().contains("gone.json cannot be opened"), qPrintable(outcome.value(1).toString()));
    QVERIFY(model.hasResult());
    QCOMPARE(*model.result(), saved);

    // An export into a folder that is missing, or into a file taken for a folder, names the folder.
    answer = QString::fromStdString(dir.path("missing/copies.csv"));
    outcome = runFromMenu(window, model, "exportTable", false);
    QCOMPARE(outcome.value(0).toBool(), false);
    QVERIFY2(outcome.value(1).toString().contains("the folder " + QString::fromStdString(dir.path("missing")) + " does not exist"),
             qPrintable(outcome.value(1).toString()));
    answer = QString::fromStdString(dir.path("a file/copies.csv"));
    outcome = runFromMenu(window, model, "exportTable", false);
    QCOMPARE(outcome.value(0).toBool(), false);
    QVERIFY2(outcome.value(1).toString().contains("is not a folder"), qPrintable(outcome.value(1).toString()));
    QCOMPARE(test::readFile(dir.path("a file")), std::string("x"));
    QVERIFY(window.findChild<QAction*>("openScan")->isEnabled());
    AppModel::waitForTasks();
}

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
