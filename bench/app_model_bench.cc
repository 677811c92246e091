// How the desktop application's model keeps the window responsive while the engine works: how
// many progress updates reach the main thread per second of a scan (at most ten are wanted), the
// longest the main thread went without turning its event loop during the scan, and how long
// switching automatic mode off blocks it while the first index of a large tree is being built;
// then, for a saved scan of a million files in 200,000 groups, how long the main thread went
// without turning its event loop while the scan was opened and while the table was exported, next
// to how long the same parse and write take when done on the calling thread.
//
//   build/bench/app_model_bench [FOLDER]
//
// Without FOLDER it writes a tree of 40,000 small files (every fourth one a copy) into a temporary
// folder and removes it afterwards.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include "app_model.h"
#include "big_result.h"
#include "report_export.h"

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

// The longest time between two turns of the main thread's event loop while it runs.
class StallWatch {
public:
    StallWatch() {
        turns_.setInterval(0);
        QObject::connect(&turns_, &QTimer::timeout, [this] {
            const auto now = Clock::now();
            longest_ = std::max(longest_, now - last_);
            last_ = now;
        });
    }
    void start() {
        longest_ = {};
        last_ = Clock::now();
        turns_.start();
    }
    Clock::duration stop() {
        turns_.stop();
        longest_ = std::max(longest_, Clock::now() - last_);
        return longest_;
    }

private:
    QTimer turns_;
    Clock::time_point last_;
    Clock::duration longest_{};
};

// Opens a saved scan of a million files, then exports its table, through the model as the window
// does; prints the main thread's longest stall in each beside the same work done in line.
int openAndExportMillion(dedup::app::AppModel& model, const fs::path& scratch) {
    const std::string saved = (scratch / "million.json").string();
    {
        std::ofstream out(saved, std::ios::binary);
        out << dedup::Report::json(dedup::bench::bigResult());
    }
    {
        std::ifstream in(saved, std::ios::binary);
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const auto parsing = Clock::now();
        const dedup::ScanResult parsed = dedup::Report::load(text);
        std::printf("saved scan of %zu groups (%.0f MB): parsed on the calling thread in %.1f ms\n",
                    parsed.groups.size(), static_cast<double>(text.size()) / 1e6, milliseconds(Clock::now() - parsing));
        const auto writing = Clock::now();
        const std::string table = dedup::Report::csv(parsed.groups, {});
        std::printf("its table (%.0f MB): made on the calling thread in %.1f ms\n",
                    static_cast<double>(table.size()) / 1e6, milliseconds(Clock::now() - writing));
    }

    StallWatch watch;
    bool done = false;
    bool ok = false;
    auto answer = [&](bool success, const QString& message) {
        done = true;
        ok = success;
        if (!success) std::fprintf(stderr, "%s\n", message.toUtf8().constData());
    };
    auto loaded = QObject::connect(&model, &dedup::app::AppModel::scanLoaded, answer);
    auto exported = QObject::connect(&model, &dedup::app::AppModel::exported, answer);

    watch.start();
    auto started = Clock::now();
    model.loadScan(QString::fromStdString(saved));
    while (!done) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    Clock::duration stall = watch.stop();
    if (!ok) return 1;
    std::printf("open through the model: %.1f ms in all, longest main-thread stall %.1f ms\n",
                milliseconds(Clock::now() - started), milliseconds(stall));

    done = false;
    watch.start();
    started = Clock::now();
    model.exportCsv(QString::fromStdString((scratch / "million.csv").string()));
    while (!done) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    stall = watch.stop();
    if (!ok) return 1;
    std::printf("export through the model: %.1f ms in all, longest main-thread stall %.1f ms\n",
                milliseconds(Clock::now() - started), milliseconds(stall));
    QObject::disconnect(loaded);
    QObject::disconnect(exported);
    return 0;
}

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
        StallWatch watch;
        const auto started = Clock::now();
        watch.start();
        model.scan();
        while (model.phase() != dedup::app::AppModel::Phase::idle) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        const Clock::duration longestStall = watch.stop();
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
        while (model.automaticStopping()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);

        if (openAndExportMillion(model, scratch) != 0) code = 1;
    }
    dedup::app::AppModel::waitForTasks();
    fs::remove_all(scratch);
    return code;
}
