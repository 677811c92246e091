// The screens' own behaviour, through their controls: the scan options edited without losing a
// byte of a folder's name, the list's filter and folder exclusion, the journal's filter and
// verdicts, the settings reaching the model.
#include <QCheckBox>
#include <QDialog>
#include <QComboBox>
#include <QDBusConnection>
#include <QApplication>
#include <QDropEvent>
#include <QLabel>
#include <QMimeData>
#include <QUrl>
#include <QLineEdit>
#include <QMenu>
#include <QListWidget>
#include <QPushButton>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTableView>
#include <QTest>
#include <QTreeView>

#include <filesystem>

#include <QFile>

#include "app_model.h"
#include "report_export.h"
#include "journal_view.h"
#include "main_window.h"
#include "scan_options_editor.h"
#include "scan_view.h"
#include "settings_view.h"
#include "support/test_files.h"

using namespace dedup;
using namespace dedup::app;

namespace {

AppPlaces placesIn(const test::TempDir& dir) {
    return AppPlaces{dir.path("data"), dir.path("cache"), QString::fromStdString(dir.path("settings.ini")),
                     dir.path("autostart")};
}

template <typename T>
T* named(QWidget* parent, const QString& accessibleName) {
    for (T* w : parent->findChildren<T*>()) {
        if (w->accessibleName() == accessibleName) return w;
    }
    return nullptr;
}

// Stands in for the desktop's file manager on the test's own session bus.
class FakeFileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    QStringList shown;
public slots:
    void ShowItems(const QStringList& uris, const QString&) { shown += uris; }
};

}  // namespace

class ViewsTest : public QObject {
    Q_OBJECT
private slots:
    void scanOptionsSurviveTheEditorUnchanged();
    void listFiltersAndLeavesOutAFolderThroughItsControls();
    void droppedFileIsRefusedWhereItWasDroppedAndDismissed();
    void unreadableFoldersAndFilesOfAScanCanBeSeen();
    void folderNamedInBytesThatAreNotUtf8IsAddedScannedAndRemoved();
    void showInFolderNamesTheFileByItsOwnBytes();
    void journalFiltersByKindAndShowsVerdicts();
    void settingsReachTheModel();
};

void ViewsTest::scanOptionsSurviveTheEditorUnchanged() {
    ScanOptionsEditor editor;
    ScanOptions o = ScanOptions::recommended();
    o.excludedPaths = {"/home/ana/caf\xe9", "/home/ana/.cache"};  // the first is not UTF-8
    o.homeFolder = "/home/ana";
    editor.setOptions(o);
    QCOMPARE(editor.options(), o);  // 102400 bytes is not rounded to a unit

    auto* kinds = editor.findChild<QLineEdit*>();
    kinds->setText(".JPG, heic;  mov ");
    o.allowedExtensions = std::set<std::string>{"jpg", "heic", "mov"};
    QCOMPARE(editor.options(), o);
    o.minimumSize = 5'000'000;
    editor.setOptions(o);
    QCOMPARE(editor.findChild<QSpinBox*>()->value(), 5);
    QCOMPARE(editor.options(), o);
}

void ViewsTest::listFiltersAndLeavesOutAFolderThroughItsControls() {
    test::TempDir dir;
    const std::string root = dir.path("files");
    test::writeRandomFile(root + "/a/song.mp3", 200000, 1);
    test::writeFile(root + "/b/song.mp3", test::readFile(root + "/a/song.mp3"));
    test::writeRandomFile(root + "/a/film.mkv", 300000, 2);
    test::writeFile(root + "/b/film.mkv", test::readFile(root + "/a/film.mkv"));
    test::writeFile(root + "/c/film.mkv", test::readFile(root + "/a/film.mkv"));
    test::runCommandChecked({"touch", "-d", "2003-03-03", root + "/c/film.mkv"});
    test::runCommandChecked({"touch", "-d", "2001-01-01", root + "/b/song.mp3"});

    AppModel model(placesIn(dir));
    ScanView view(model);
    view.show();
    model.add({QString::fromStdString(root)});
    QTest::mouseClick(view.findChild<QPushButton*>("scan"), Qt::LeftButton);
    QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
    // The list is tabulated, sorted and filtered on a worker: each change shows once it answered.
    auto settled = [&] { return QTest::qWaitFor([&] { return !view.groups().busy(); }, 60000); };
    QVERIFY(settled());
    QTreeView* list = view.groupList();
    QCOMPARE(list->model()->rowCount(), 2);
    // What the scan did, as the command says it at its end.
    const QString figures = named<QLabel>(&view, "Scan figures")->text();
    QVERIFY2(figures.startsWith("Looked at 5 files; read ") &&
                 figures.contains("800.0 kB can be reclaimed in 2 groups.") && figures.contains("Took "),
             qPrintable(figures));
    QVERIFY(!view.findChild<QPushButton*>("showUnreadable")->isVisibleTo(&view));
    QVERIFY(!view.findChild<QPushButton*>("leaveOutFolder")->isEnabled());  // nothing chosen yet

    named<QComboBox>(&view, "Filter by")->setCurrentIndex(2);  // extension
    QTest::keyClicks(named<QLineEdit>(&view, "Filter text"), "MP3");
    QVERIFY(settled());
    QCOMPARE(list->model()->rowCount(), 1);
    QCOMPARE(list->model()->index(0, 0).data().toString(), QString("song.mp3"));
    named<QLineEdit>(&view, "Filter text")->clear();
    named<QComboBox>(&view, "Smallest size shown")->setCurrentIndex(0);
    QVERIFY(settled());
    QCOMPARE(list->model()->rowCount(), 2);

    // The oldest copy of each group kept, in one step; a second time changes nothing.
    auto* keepEvery = view.findChild<QPushButton*>("keepEvery");
    QVERIFY(keepEvery->isEnabled());
    keepEvery->menu()->actions().at(0)->trigger();
    QCOMPARE(model.result()->groups[0].files.front().path, root + "/c/film.mkv");
    QCOMPARE(model.result()->groups[1].files.front().path, root + "/b/song.mp3");
    QVERIFY(settled());
    QCOMPARE(list->model()->index(0, 0, list->model()->index(0, 0)).data(GroupsModel::PathRole).toByteArray().toStdString(),
             root + "/c/film.mkv");
    QSignalSpy kept(&model, &AppModel::keptCopyChanged);
    keepEvery->menu()->actions().at(0)->trigger();
    QCOMPARE(kept.count(), 0);

    // Leave out the folder of a copy of the film: every file below it, in every group.
    QModelIndex film = list->model()->index(0, 0);
    QModelIndex copy;
    for (int row = 1; row < list->model()->rowCount(film); ++row) {
        QModelIndex i = list->model()->index(row, 0, film);
        if (i.data(GroupsModel::PathRole).toByteArray().toStdString() == root + "/b/film.mkv") copy = i;
    }
    QVERIFY(copy.isValid());
    list->setCurrentIndex(copy);
    QTest::mouseClick(view.findChild<QPushButton*>("leaveOutFolder"), Qt::LeftButton);
    QCOMPARE(model.selection().excluded, std::set<std::string>{root + "/b"});
    QCOMPARE(Selection::load(dir.path("data/selection.json")), model.selection());
    QCOMPARE(named<QLabel>(&view, "Reclaimable total")->text(), QString("500.0 kB to reclaim"));  // b/song.mp3 is kept, so only b/film.mkv is left out

    // Removing the folder is refused while it is not chosen, and then done.
    auto* folders = named<QListWidget>(&view, "Folders to look in");
    QVERIFY(!view.findChild<QPushButton*>("removeFolder")->isEnabled());
    folders->setCurrentRow(0);
    QTest::mouseClick(view.findChild<QPushButton*>("removeFolder"), Qt::LeftButton);
    QVERIFY(model.sources().empty());
    QVERIFY(!view.findChild<QPushButton*>("scan")->isEnabled());
    AppModel::waitForTasks();
}

void ViewsTest::folderNamedInBytesThatAreNotUtf8IsAddedScannedAndRemoved() {
    test::TempDir dir;
    const std::string odd = dir.path("caf\xff");  // Latin-1 from an old disk: not UTF-8
    const std::string bytes = test::randomBytes(300000, 7);
    test::writeFile(odd + "/a.bin", bytes);
    test::writeFile(odd + "/sub/b.bin", bytes);
    const QString shown = QString::fromStdString(dir.path("caf") + "\\xff");
    {
        AppModel model(placesIn(dir));
        ScanView view(model);
        view.show();
        // An open dialog hands the name over as Qt decoded it, with U+FFFD for the byte.
        model.add({QFile::decodeName(QByteArray::fromStdString(odd))});
        QCOMPARE(model.sources(), std::vector<std::string>{odd});
        auto* folders = named<QListWidget>(&view, "Folders to look in");
        QCOMPARE(folders->item(0)->text(), shown);

        model.scan();
        QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
        QCOMPARE(model.result()->groups.size(), size_t{1});
        QCOMPARE(model.result()->groups[0].files[0].path.substr(0, odd.size()), odd);
        model.setSelection(Selection{{odd + "/sub"}});
        QCOMPARE(Selection::load(dir.path("data/selection.json")).excluded, std::set<std::string>{odd + "/sub"});

        folders->setCurrentRow(0);
        QTest::mouseClick(view.findChild<QPushButton*>("removeFolder"), Qt::LeftButton);
        QVERIFY(model.sources().empty());

        // Dropped from a file manager: by the time Qt hands the URL over, the byte is U+FFFD too.
        QMimeData mime;
        mime.setData("text/uri-list", "file://" + QUrl::toPercentEncoding(QByteArray::fromStdString(odd), "/") + "\r\n");
        QVERIFY(mime.urls().at(0).toLocalFile().contains(QChar(0xfffd)));
        QDragEnterEvent enter(view.rect().center(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&view, &enter);
        QDropEvent drop(view.rect().center(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(&view, &drop);
        QVERIFY2(model.error().isEmpty(), qPrintable(model.error()));
        QCOMPARE(model.sources(), std::vector<std::string>{odd});
        AppModel::waitForTasks();
    }
    {
        // Saved and read back byte for byte; removed by the text the list shows.
        AppModel model(placesIn(dir));
        QCOMPARE(model.sources(), std::vector<std::string>{odd});
        QCOMPARE(model.selection().excluded, std::set<std::string>{odd + "/sub"});
        model.remove(shown);
        QVERIFY(model.sources().empty());

        // A second folder whose name differs only in that byte: the dialog's name could be either.
        const std::string twin = dir.path("caf\xfe");
        std::filesystem::create_directories(twin);
        model.add({QFile::decodeName(QByteArray::fromStdString(odd))});
        QVERIFY(model.sources().empty());
        QVERIFY2(model.error().contains("drag the one you mean"), qPrintable(model.error()));
        AppModel::waitForTasks();
    }
}

void ViewsTest::unreadableFoldersAndFilesOfAScanCanBeSeen() {
    test::TempDir dir;
    ScanResult saved;
    saved.filesSeen = 1234567;
    saved.bytesRead = 5'000'000;
    saved.unreadableFolders = {"/d/locked"};
    saved.unreadableFiles = {"/d/gone\xff.jpg", "/d/moved.jpg"};
    test::writeFile(dir.path("saved.json"), Report::json(saved));
    AppModel model(placesIn(dir));
    ScanView view(model);
    view.show();
    QSignalSpy loaded(&model, &AppModel::scanLoaded);
    model.loadScan(QString::fromStdString(dir.path("saved.json")));
    QVERIFY(loaded.wait());
    QCOMPARE(loaded.first().at(0).toBool(), true);
    const QString figures = named<QLabel>(&view, "Scan figures")->text();
    QCOMPARE(figures, QString("Looked at 1,234,567 files; read 5.0 MB to compare them. 0 bytes can be reclaimed in 0 "
                              "groups. 1 folder and 2 files could not be read and were left out."));
    auto* show = view.findChild<QPushButton*>("showUnreadable");
    QVERIFY(show->isVisibleTo(&view));
    QTest::mouseClick(show, Qt::LeftButton);
    auto* dialog = view.findChild<QDialog*>("unreadable");
    QVERIFY(dialog && dialog->isVisible());
    auto* list = dialog->findChild<QListWidget*>();
    QCOMPARE(list->count(), 3);
    QCOMPARE(list->item(0)->text(), QString("Folder: /d/locked"));
    QCOMPARE(list->item(1)->text(), QString("File: /d/gone\\xff.jpg"));  // the byte as it is, not U+FFFD
    dialog->close();
    AppModel::waitForTasks();
}

void ViewsTest::droppedFileIsRefusedWhereItWasDroppedAndDismissed() {
    test::TempDir dir;
    test::writeFile(dir.path("folder/photo.jpg"), "x");
    AppModel model(placesIn(dir));
    ScanView view(model);
    view.show();
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(QString::fromStdString(dir.path("folder/photo.jpg"))),
                  QUrl::fromLocalFile(QString::fromStdString(dir.path("folder")))});
    QDragEnterEvent enter(view.rect().center(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&view, &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(view.rect().center(), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&view, &drop);
    // The folder is taken, the file is named as refused, and nothing else is lost.
    QCOMPARE(model.sources(), std::vector<std::string>{dir.path("folder")});
    auto* message = named<QLabel>(&view, "Message");
    QVERIFY(message->isVisible());
    QVERIFY2(message->text().contains("photo.jpg"), qPrintable(message->text()));
    QTest::mouseClick(view.findChild<QPushButton*>("dismiss"), Qt::LeftButton);
    QVERIFY(!message->isVisible());
    QVERIFY(model.error().isEmpty());
}

void ViewsTest::showInFolderNamesTheFileByItsOwnBytes() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) QSKIP("no session bus: run under dbus-run-session");
    FakeFileManager manager;
    QVERIFY(bus.registerObject("/org/freedesktop/FileManager1", &manager, QDBusConnection::ExportAllSlots));
    QVERIFY(bus.registerService("org.freedesktop.FileManager1"));

    test::TempDir dir;
    const std::string odd = dir.path("files/caf\xe9 #1.txt");  // not UTF-8, and a '#' a URL would cut at
    test::writeRandomFile(dir.path("files/kept.txt"), 200000, 5);
    test::writeFile(odd, test::readFile(dir.path("files/kept.txt")));
    AppModel model(placesIn(dir));
    ScanView view(model);
    view.show();
    model.add({QString::fromStdString(dir.path("files"))});
    model.scan();
    QTRY_VERIFY_WITH_TIMEOUT(model.phase() == AppModel::Phase::idle && model.hasResult(), 60000);
    QTreeView* list = view.groupList();
    QModelIndex group = list->model()->index(0, 0);
    for (int row = 0; row < list->model()->rowCount(group); ++row) {
        QModelIndex i = list->model()->index(row, 0, group);
        if (i.data(GroupsModel::PathRole).toByteArray().toStdString() == odd) list->setCurrentIndex(i);
    }
    QTest::mouseClick(view.findChild<QPushButton*>("reveal"), Qt::LeftButton);
    QCOMPARE(manager.shown.size(), 1);
    QUrl url(manager.shown.front());
    QCOMPARE(url.scheme(), QString("file"));
    QCOMPARE(QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()).toStdString(), odd);
    bus.unregisterService("org.freedesktop.FileManager1");
    AppModel::waitForTasks();
}

void ViewsTest::journalFiltersByKindAndShowsVerdicts() {
    test::TempDir dir;
    {
        Journal journal(dir.path("data/journal.jsonl"));
        JournalEntry gone = JournalEntry::make(JournalEntry::Event::replaced, dir.path("no-longer-there.jpg"));
        gone.digest = std::string(64, 'a');
        gone.source = dir.path("kept.jpg");
        journal.append(gone);
        JournalEntry skipped = JournalEntry::make(JournalEntry::Event::skipped, dir.path("busy.jpg"));
        skipped.detail = "inUse";
        journal.append(skipped);
    }
    AppModel model(placesIn(dir));
    JournalView view(model);
    view.show();
    JournalModel& entries = view.entries();
    QTRY_COMPARE(entries.rowCount(), 2);
    QCOMPARE(entries.index(0, JournalModel::eventColumn).data().toString(), QString("left alone: open in another app"));

    QTest::mouseClick(view.findChildren<QPushButton*>().at(0), Qt::LeftButton);  // Verify
    QTRY_COMPARE(entries.index(1, JournalModel::verdictColumn).data().toString(), QString("gone"));

    auto* kind = named<QComboBox>(&view, "Show entries of kind");
    kind->setCurrentIndex(kind->findText("Clones made"));
    QCOMPARE(entries.rowCount(), 1);
    QCOMPARE(entries.index(0, JournalModel::verdictColumn).data().toString(), QString("gone"));
    kind->setCurrentIndex(0);
    QTest::keyClicks(named<QLineEdit>(&view, "Filter by path"), "busy");
    QCOMPARE(entries.rowCount(), 1);
    AppModel::waitForTasks();
}

void ViewsTest::settingsReachTheModel() {
    test::TempDir dir;
    AppModel model(placesIn(dir));
    SettingsView view(model);
    view.show();
    QCOMPARE(model.moveReplacedToTrash(), false);
    QCOMPARE(model.restoreFolderDates(), true);
    for (QCheckBox* box : view.findChildren<QCheckBox*>()) {
        if (box->text().contains("Trash")) box->click();
        if (box->text().contains("dates of the folders")) {
            QVERIFY(box->isChecked());  // shows the model's default
            box->click();
        }
    }
    QCOMPARE(model.moveReplacedToTrash(), true);
    QCOMPARE(model.restoreFolderDates(), false);
    // A change made elsewhere shows here.
    model.setCoordinate(true);
    bool shown = false;
    for (QCheckBox* box : view.findChildren<QCheckBox*>()) {
        if (box->text().contains("another program")) shown = box->isChecked();
    }
    QVERIFY(shown);
}

QTEST_MAIN(ViewsTest)
#include "views_test.moc"
