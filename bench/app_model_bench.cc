// How the desktop application's model keeps the window responsive while the engine works: how
// many progress updates reach the main thread per second of a scan (at most ten are wanted), the
// longest the main thread went without turning its event loop during the scan, and how long
// switching automatic mode off blocks it while the first index of a large tree is being built.
//
//   build/bench/app_model_bench [FOLDER]
//
// Without FOLDER it writes a tree of 40,000 small files (every fourth one a copy) into a temporary
// folder and removes it afterwards.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include "app_model.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

void writeTree(const fs::path& root, int files) {
    for (int i = 0; i < files; ++i) {
        fs::path folder = root / ("d" + std::to_string(i / 500));
        fs::create_directories(folder);
        std::ofstream out(folder / ("f" + std::to_string(i) + ".bin"), std::ios::binary);
        const int content = i % 4 == 0 ? 0 : i;  // every fourth file has the same bytes
        std::string bytes(4096, static_cast<char>('a' + content % 26));
        bytes.replace(0, std::to_string(content).size(), std::to_string(content));
        out << bytes;
    }
}

double milliseconds(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const fs::path scratch = fs::temp_directory_path() / ("app-model-bench-" + std::to_string(::getpid()));
    fs::create_directories(scratch);
    fs::path tree = argc > 1 ? fs::path(argv[1]) : scratch / "tree";
    if (argc <= 1) writeTree(tree, 40000);

    int code = 0;
    {
        dedup::app::AppModel model({(scratch / "data").string(), (scratch / "cache").string(),
                                    QString::fromStdString((scratch / "settings.ini").string()),
                                    (scratch / "autostart").string()});
        dedup::ScanOptions options = model.options();
        options.minimumSize = 1;
        model.setOptions(options);
        model.add({QString::fromStdString(tree.string())});

        int updates = 0;
        QObject::connect(&model, &dedup::app::AppModel::progressChanged, [&] { ++updates; });
        Clock::duration longestStall{};
        auto lastTurn = Clock::now();
        QTimer turns;
        turns.setInterval(0);
        QObject::connect(&turns, &QTimer::timeout, [&] {
            auto now = Clock::now();
            longestStall = std::max(longestStall, now - lastTurn);
            lastTurn = now;
        });

        const auto started = Clock::now();
        turns.start();
        model.scan();
        while (model.phase() != dedup::app::AppModel::Phase::idle) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        turns.stop();
        const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
        if (!model.hasResult()) {
            std::fprintf(stderr, "the scan ended without a result: %s\n", model.error().toUtf8().constData());
            code = 1;
        } else {
            std::printf("scan: %lld files seen, %zu groups in %.2f s\n",
                        static_cast<long long>(model.result()->filesSeen), model.result()->groups.size(), seconds);
            std::printf("progress updates on the main thread: %d (%.1f per second)\n", updates, updates / seconds);
            std::printf("longest main-thread stall during the scan: %.1f ms\n", milliseconds(longestStall));
        }

        // Switch automatic mode on and off again while its first index of the tree is under way.
        model.setAnytime(true);
        model.setAutomatic(true);
        QElapsedTimer wait;
        wait.start();
        while (wait.elapsed() < 100) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        const auto stopping = Clock::now();
        model.setAutomatic(false);
        std::printf("automatic mode off during its first index: main thread blocked %.1f ms\n",
                    milliseconds(Clock::now() - stopping));
    }
    dedup::app::AppModel::waitForTasks();
    fs::remove_all(scratch);
    return code;
}
