// Every screen with a real scan loaded, saved as a picture under the build folder (screenshots/)
// so a person can look at the application as a user will. Also checks what each screen must say
// once it has something to show.
#include <QApplication>
#include <QBuffer>
#include <QDialog>
#include <QDir>
#include <QImage>
#include <QLabel>
#include <QPushButton>
#include <QPainter>
#include <QSignalSpy>
#include <QTest>
#include <QTreeView>
#include <QTreeWidget>

#include "across_view.h"
#include "automatic_view.h"

#include "app_model.h"
#include "compare_dialog.h"
#include "journal.h"
#include "journal_view.h"
#include "main_window.h"
#include "scan_view.h"
#include "support/loop_volume.h"
#include "support/test_files.h"
#include "true_size_view.h"

using namespace dedup;
using namespace dedup::app;

namespace {

const QString shots = QStringLiteral(SCREENSHOT_DIR);

void save(QWidget* widget, const QString& name) {
    QApplication::processEvents();
    QImage image = widget->grab().toImage();
    QVERIFY(!image.isNull());
    QVERIFY(image.save(shots + '/' + name + ".png"));
}

// A picture with something to recognise in the preview.
void writePicture(const std::string& path, int hue) {
    QImage image(320, 200, QImage::Format_RGB32);
    QPainter painter(&image);
    QLinearGradient gradient(0, 0, 320, 200);
    gradient.setColorAt(0, QColor::fromHsv(hue, 160, 230));
    gradient.setColorAt(1, QColor::fromHsv((hue + 60) % 360, 200, 120));
    painter.fillRect(image.rect(), gradient);
    painter.setBrush(QColor::fromHsv((hue + 180) % 360, 120, 250));
    painter.drawEllipse(QPoint(110, 90), 50, 50);
    painter.end();
    QDir().mkpath(QFileInfo(QString::fromStdString(path)).path());
    // Padded past the smallest size a scan looks at, as a real photo would be.
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    bytes.append(QByteArray(150000, '\0'));
    test::writeFile(path, std::string_view(bytes.constData(), static_cast<size_t>(bytes.size())));
}

}  // namespace

class ScreenshotsTest : public QObject {
    Q_OBJECT
private slots:
    void everyScreenWithAScanLoaded();
};

void ScreenshotsTest::everyScreenWithAScanLoaded() {
    QDir().mkpath(shots);
    test::TempDir home;
    const std::string root = home.path("Pictures");
    writePicture(root + "/2024/Holiday/IMG_0412.png", 20);
    test::writeFile(root + "/Imported/IMG_0412.png", test::readFile(root + "/2024/Holiday/IMG_0412.png"));
    test::writeFile(root + "/Imported/IMG_0412 (1).png", test::readFile(root + "/2024/Holiday/IMG_0412.png"));
    writePicture(root + "/2024/Garden/IMG_0533.png", 200);
    test::writeFile(root + "/Old phone/DCIM/IMG_0533.png", test::readFile(root + "/2024/Garden/IMG_0533.png"));
    test::writeRandomFile(root + "/Videos/birthday.mov", 3'400'000, 3);
    test::writeFile(root + "/Old phone/DCIM/birthday.mov", test::readFile(root + "/Videos/birthday.mov"));
    test::writeFile(root + "/Videos/Archive/birthday copy.mov", test::readFile(root + "/Videos/birthday.mov"));
    test::writeRandomFile(root + "/Documents/tax-2023.pdf", 420'000, 4);
    test::writeFile(root + "/Documents/caf\xe9/tax-2023.pdf", test::readFile(root + "/Documents/tax-2023.pdf"));
    std::string notes = "Shopping list\n- bread\n- apples\n- coffee\n" + std::string(120000, ' ') + "\n";
    test::writeFile(root + "/Documents/notes.txt", notes);
    test::writeFile(root + "/Documents/Backup/notes.txt", notes);

    // A journal with something in it, as after a few reclaims.
    const std::string data = home.path("data");
    {
        Journal journal(data + "/journal.jsonl");
        auto add = [&](JournalEntry::Event event, const std::string& target, std::optional<std::string> detail,
                       std::optional<int64_t> freed) {
            JournalEntry e = JournalEntry::make(event, target);
            e.detail = std::move(detail);
            e.freedBytes = freed;
            journal.append(e);
        };
        add(JournalEntry::Event::replaced, "/home/ana/Music/live/track01.flac", std::nullopt, 31'200'000);
        add(JournalEntry::Event::replaced, "/home/ana/Music/live/track02.flac", std::nullopt, 28'950'000);
        add(JournalEntry::Event::skipped, "/home/ana/Music/live/track03.flac", "inUse", std::nullopt);
        add(JournalEntry::Event::skipped, "/home/ana/Documents/locked.pdf", "locked", std::nullopt);
        add(JournalEntry::Event::failed, "/home/ana/Downloads/setup.iso", "write: No space left on device", std::nullopt);
    }

    AppModel model(AppPlaces{data, home.path("cache"), QString::fromStdString(home.path("settings.ini")),
                             home.path("autostart")});
    MainWindow window(model);
    window.show();
    model.add({QString::fromStdString(root)});
    model.scan();
    QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
    Selection left;
    left.excluded.insert(root + "/Videos/Archive");
    model.setSelection(left);
    QTRY_VERIFY_WITH_TIMEOUT(!window.scanView()->groups().busy(), 60000);

    QTreeView* list = window.scanView()->groupList();
    QCOMPARE(list->model()->rowCount(), 5);
    list->expand(list->model()->index(0, 0));
    list->expand(list->model()->index(1, 0));
    list->setCurrentIndex(list->model()->index(1, 0, list->model()->index(0, 0)));
    save(&window, "scan");

    CompareDialog compare(model, root + "/2024/Holiday/IMG_0412.png", root + "/Imported/IMG_0412.png", &window);
    compare.show();
    save(&compare, "compare");
    QVERIFY(!compare.differences().contains("Size"));
    QVERIFY(!compare.differences().contains("Owner"));

    QSignalSpy measured(&model, &AppModel::trueSizeMeasured);
    model.measureTrueSize(QString::fromStdString(root));
    QTRY_VERIFY_WITH_TIMEOUT(!measured.isEmpty(), 60000);
    // The screens answer to Ctrl+1 to Ctrl+5 (shortcuts reach the active window only).
    compare.close();
    QApplication::setActiveWindow(&window);
    QVERIFY(QTest::qWaitForWindowActive(&window));
    QTest::keyClick(&window, Qt::Key_2, Qt::ControlModifier);
    QCOMPARE(window.currentScreen(), MainWindow::trueSizeScreen);
    QVERIFY2(window.trueSizeView()->sentence().startsWith("Deleting it frees "), qPrintable(window.trueSizeView()->sentence()));
    QVERIFY(window.trueSizeView()->sentence().contains("; the file manager says "));
    save(&window, "true-size");

    QTest::keyClick(&window, Qt::Key_3, Qt::ControlModifier);
    QCOMPARE(window.currentScreen(), MainWindow::acrossScreen);
    // Copies across two real disks: a photo library backed up to a second disk, a film, and a
    // folder of documents that has drifted apart a little.
    std::unique_ptr<test::LoopVolume> second, third;
    if (test::LoopVolume::unavailableReason(test::LoopVolume::Kind::btrfs).empty() &&
        test::LoopVolume::unavailableReason(test::LoopVolume::Kind::xfs).empty()) {
        second = test::LoopVolume::create(test::LoopVolume::Kind::btrfs);
        third = test::LoopVolume::create(test::LoopVolume::Kind::xfs);
        for (const auto& top : {second->path("Pictures"), third->path("Backup/Pictures")}) {
            writePicture(top + "/2024/Holiday/IMG_0412.png", 20);
            writePicture(top + "/2024/Garden/IMG_0533.png", 200);
            test::writeRandomFile(top + "/2023/Snow/IMG_0101.jpg", 2'300'000, 5);
            test::writeRandomFile(top + "/2023/Snow/IMG_0102.jpg", 2'100'000, 6);
            test::writeFile(top + "/Documents/notes.txt", notes);
            test::writeRandomFile(top + "/Documents/tax-2023.pdf", 420'000, 4);
        }
        test::writeFile(third->path("Backup/Pictures/Documents/notes.txt"), notes + "- milk\n");
        test::writeFile(third->path("Backup/Pictures/Documents/letter.odt"), "Dear Ana");
        test::writeRandomFile(second->path("Videos/birthday.mov"), 3'400'000, 3);
        test::writeRandomFile(third->path("Backup/Videos/birthday.mov"), 3'400'000, 3);
        AcrossView* across = window.acrossView();
        across->setFolders({second->mountPoint(), third->path("Backup")});
        QTest::mouseClick(across->findChild<QPushButton*>("search"), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!model.acrossBusy() && model.acrossResult(), 60000);
        QVERIFY(across->results().rowCount() >= 3);
        across->list()->expandAll();
        // The nearly identical folders side by side, as Compare shows them.
        const int last = across->results().rowCount() - 1;
        QCOMPARE(across->results().kindOf(across->results().index(last, 0)), AcrossModel::Kind::near);
        across->list()->setCurrentIndex(across->results().index(last, 0));
        QTest::mouseClick(across->findChild<QPushButton*>("compare"), Qt::LeftButton);
        auto* folders = across->findChild<QDialog*>("compareFolders");
        QVERIFY(folders && folders->isVisible());
        save(folders, "across-compare");
        folders->close();
        QApplication::setActiveWindow(&window);
        QVERIFY(QTest::qWaitForWindowActive(&window));
        across->list()->setCurrentIndex(across->results().index(1, 0, across->results().index(0, 0)));
    }
    save(&window, "across-disks");
    model.setBackupDisk(QString::fromStdString(root), true);
    model.setAutomatic(true);
    // A folder on a disk that cannot make clones is named, not watched: a pass there would only
    // journal every copy as left alone again.
    QCOMPARE(model.automaticUnwatched().size(), cloneAbility(root).canShare ? 0 : 1);
    QTest::keyClick(&window, Qt::Key_4, Qt::ControlModifier);
    QCOMPARE(window.currentScreen(), MainWindow::automaticScreen);
    if (model.backupDisks().volumes.empty()) {
        model.clearError();  // a disk without an identifier (some virtual disks) cannot be marked
    } else {
        QCOMPARE(window.automaticView()->backupDisks()->topLevelItemCount(), 1);
        QCOMPARE(window.automaticView()->backupDisks()->topLevelItem(0)->text(1), QString("yes"));  // connected
    }
    save(&window, "automatic");

    model.setAutomatic(false);
    QTest::keyClick(&window, Qt::Key_5, Qt::ControlModifier);
    QCOMPARE(window.currentScreen(), MainWindow::journalScreen);
    QTRY_COMPARE(window.journalView()->entries().rowCount(), 5);
    QCOMPARE(window.journalView()->entries().index(0, JournalModel::eventColumn).data().toString(),
             QString("failed: write: No space left on device"));
    save(&window, "journal");

    window.showSettings();
    save(window.settingsWindow(), "settings");
    window.settingsWindow()->close();
    window.close();
    AppModel::waitForTasks();
}

QTEST_MAIN(ScreenshotsTest)
#include "screenshots_test.moc"
