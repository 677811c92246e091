// VELMORA.dedup's desktop application: one copy per desktop session, a window over the model,
// and a background life while automatic reclaiming runs.
#include <memory>
#include <string_view>

#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>

#include "allocator.h"
#include "app_model.h"
#include "automation_client.h"
#include "automation_service.h"
#include "dedup_version.h"
#include "desktop_session.h"
#include "main_window.h"

namespace {

void nameApplication() {
    QCoreApplication::setApplicationName("VELMORA.dedup");
    QCoreApplication::setOrganizationName("VELMORA");
    QCoreApplication::setApplicationVersion(QString::fromLatin1(dedup::kVersion));
    QGuiApplication::setDesktopFileName("org.velmora.dedup");
}

void describeOptions(QCommandLineParser& parser, const QCommandLineOption& background) {
    parser.setApplicationDescription("Gives back the space that identical files take.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption(background);
    // Handled before the application starts; declared so that --help lists it.
    parser.addOption(QCommandLineOption("action", "Run one action on folders without the window: find, reclaim or "
                                                  "true-size (with --json, answer in JSON).",
                                        "action"));
}

// --help and --version only print, so they must work where no display can be opened: a terminal
// over ssh, a package being checked. A QApplication would abort there before parsing anything.
bool onlyPrints(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--") break;
        if (argument == "-h" || argument == "--help" || argument == "--help-all" || argument == "-v" ||
            argument == "--version") {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    dedup::releaseFreedMemoryAtOnce();
    nameApplication();
    const QCommandLineOption background("background", "Start without a window, as at login; ends at once unless "
                                                      "automatic reclaiming is on.");
    if (onlyPrints(argc, argv)) {
        QCoreApplication textOnly(argc, argv);
        QCommandLineParser parser;
        describeOptions(parser, background);
        parser.process(textOnly);  // prints the help or the version and exits
        return 0;
    }

    // The icon lives in a static library, whose resources the linker would otherwise drop.
    Q_INIT_RESOURCE(app_resources);
    // A folder menu or a script asking for one action needs no window, nor even a display.
    if (int code = 0; dedup::app::handleActionCommand(argc, argv, code)) return code;
    QApplication application(argc, argv);
    QCommandLineParser parser;
    describeOptions(parser, background);
    parser.process(application);

    dedup::app::quitOnTerminationSignals();
    dedup::app::SingleInstance instance;
    if (instance.claim() == dedup::app::SingleInstance::Claim::another) return 0;

    std::unique_ptr<dedup::app::AppModel> model;
    try {
        model = std::make_unique<dedup::app::AppModel>();
    } catch (const std::exception& error) {
        QMessageBox::critical(nullptr, "VELMORA.dedup",
                              QString("VELMORA.dedup cannot start.\n\n%1\n\nNothing was changed.")
                                  .arg(QString::fromUtf8(error.what())));
        return 1;
    }

    // Scripts and the file managers' menus reach the actions through the copy the user sees.
    auto automation = std::make_unique<dedup::app::AutomationService>(
        dedup::app::ActionPlaces{model->places().data, model->places().cache});
    automation->exportOn(QDBusConnection::sessionBus());

    int code = 0;
    {
        dedup::app::MainWindow window(*model);
        dedup::app::BackgroundMode life(*model, window);
        QObject::connect(&instance, &dedup::app::SingleInstance::raiseRequested, &life,
                         &dedup::app::BackgroundMode::showWindow);
        QObject::connect(&life, &dedup::app::BackgroundMode::quitRequested, &application, &QApplication::quit);
        bool run = true;
        if (parser.isSet(background)) {
            run = life.startHidden();  // nothing to do without automatic reclaiming
        } else {
            window.show();
        }
        if (run) code = application.exec();
    }
    // A reclaim under way finishes the replacement it is in, then stops; the process ends after.
    model->cancelCurrent();
    // Actions asked for over the bus stop too; a reclaim among them finishes its replacement first.
    automation.reset();
    model.reset();
    dedup::app::AppModel::waitForTasks();
    return code;
}
