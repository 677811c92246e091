// How the application's list of identical files copes with a million files in 200,000 groups:
// loading a scan result, sorting by each key, filtering, changing the selection, and a tree view
// scrolling through it. Work that can be done off the main thread is: each step is timed in its two
// halves. "Time" is the processor time the main thread spends (what would freeze the window); the
// counter worker_ms is the processor time a worker spends meanwhile. MainThreadLongestTurn runs
// every step the way the window does (asynchronously) and reports, per step, the main thread's
// processor time in the longest single turn of its event loop.
//
//   build/bench/groups_model_bench                       # 1,000,000 files, 200,000 groups
//   build/bench/groups_model_bench --benchmark_filter=Sort
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>

#include <time.h>
#include <string>

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QHeaderView>
#include <QScrollBar>
#include <QTreeView>

#include "app_model.h"
#include "big_result.h"
#include "groups_model.h"

namespace {

using dedup::DuplicateGroup;
using dedup::ScanResult;
using dedup::Selection;
using dedup::app::GroupsModel;

using dedup::bench::bigResult;
using dedup::bench::filesPerGroup;
using dedup::bench::groupCount;

void report(benchmark::State& state) {
    state.counters["files"] = groupCount * filesPerGroup;
    state.counters["groups"] = groupCount;
}

// The processor time of the calling thread: on a shared two-core machine, wall-clock time mostly
// measures the other processes; this is the work the main thread (or the worker) itself does.
struct Clock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<Clock, duration>;
    static time_point now() {
        timespec t{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
        return time_point(duration(static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec));
    }
};
double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::shared_ptr<const ScanResult> sharedResult() {
    // The model reads the result through a shared handle and never copies it.
    static const std::shared_ptr<const ScanResult> shared(&bigResult(), [](const ScanResult*) {});
    return shared;
}

// A model with the big result installed, the way the window has it once the worker answered.
void loadInto(GroupsModel& model, const Selection& selection = {}) {
    model.install(GroupsModel::build(bigResult(), selection, {}));
}

// Turns the event loop until the model's workers have answered; the longest turn is what the
// window would have felt.
double settle(GroupsModel& model) {
    double longest = 0;
    while (model.busy() || dedup::app::AppModel::runningTasks() > 0) {
        const auto start = Clock::now();
        QCoreApplication::processEvents(QEventLoop::AllEvents);
        longest = std::max(longest, seconds(Clock::now() - start));
    }
    const auto start = Clock::now();
    QCoreApplication::processEvents(QEventLoop::AllEvents);
    return std::max(longest, seconds(Clock::now() - start));
}

// Lets the order just asked for land as the window would, then computes it again in its halves:
// answers the main thread's share and adds the worker's to `worker`.
double arrangeInHalves(GroupsModel& model, double& worker) {
    settle(model);
    auto start = Clock::now();
    GroupsModel::ArrangeJob job = model.arrangeJob();
    const double prepare = seconds(Clock::now() - start);
    start = Clock::now();
    GroupsModel::Arrangement arranged = GroupsModel::arrange(job);
    worker += seconds(Clock::now() - start);
    start = Clock::now();
    model.install(job, std::move(arranged));
    return prepare + seconds(Clock::now() - start);
}

void Load(benchmark::State& state) {
    double worker = 0;
    for (auto _ : state) {
        GroupsModel model;
        auto start = Clock::now();
        GroupsModel::Build built = GroupsModel::build(bigResult(), Selection{{"/home/ana/Pictures/7"}}, {});
        worker += seconds(Clock::now() - start);
        start = Clock::now();
        model.setResult(nullptr, Selection{{"/home/ana/Pictures/7"}});  // what setResult does before its worker
        model.install(std::move(built));
        state.SetIterationTime(seconds(Clock::now() - start));
        benchmark::DoNotOptimize(model.reclaimableBytes());
        settle(model);  // the old arrays are freed by a worker
    }
    state.counters["worker_ms"] = worker * 1000 / static_cast<double>(state.iterations());
    report(state);
}

void Sort(benchmark::State& state) {
    GroupsModel model;
    loadInto(model);
    const GroupsModel::SortKey keys[] = {GroupsModel::SortKey::path, GroupsModel::SortKey::name,
                                         GroupsModel::SortKey::size, GroupsModel::SortKey::extension,
                                         GroupsModel::SortKey::frees, GroupsModel::SortKey::copies};
    const auto key = keys[state.range(0)];
    double worker = 0;
    int flip = 0;
    for (auto _ : state) {
        // Alternating the direction, so every iteration really sorts.
        model.sortBy(key, flip++ % 2 ? Qt::AscendingOrder : Qt::DescendingOrder);
        state.SetIterationTime(arrangeInHalves(model, worker));
        benchmark::DoNotOptimize(model.index(0, 0));
    }
    static const char* const names[] = {"path", "name", "size", "extension", "frees", "copies"};
    state.SetLabel(names[state.range(0)]);
    state.counters["worker_ms"] = worker * 1000 / static_cast<double>(state.iterations());
    report(state);
}

void Filter(benchmark::State& state) {
    GroupsModel model;
    loadInto(model);
    double worker = 0;
    int flip = 0;
    for (auto _ : state) {
        // Alternates, so every iteration really filters.
        model.setFilter({flip++ % 2 ? "copy 3" : "pictures/1", GroupsModel::FilterField::path, 0});
        state.SetIterationTime(arrangeInHalves(model, worker));
        benchmark::DoNotOptimize(model.rowCount());
    }
    state.counters["worker_ms"] = worker * 1000 / static_cast<double>(state.iterations());
    report(state);
}

void SelectionOneFile(benchmark::State& state) {
    GroupsModel model;
    loadInto(model);
    const std::string path = model.groupAt(model.index(1000, 0)).files[2].path;
    int flip = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        model.setSelection(flip++ % 2 ? Selection{} : Selection{{path}});
        state.SetIterationTime(seconds(Clock::now() - start));
        benchmark::DoNotOptimize(model.reclaimableBytes());
    }
    state.counters["worker_ms"] = 0;
    report(state);
}

void SelectionFolder(benchmark::State& state) {
    GroupsModel model;
    loadInto(model);
    int flip = 0;
    double worker = 0;
    for (auto _ : state) {
        // One fortieth of every file, spread over all groups: figured on a worker. The main thread
        // finds the groups, then takes the worker's figures in one turn.
        const auto start = Clock::now();
        model.setSelection(flip++ % 2 ? Selection{} : Selection{{"/home/ana/Pictures/12"}});
        const double call = seconds(Clock::now() - start);
        const auto waited = std::chrono::steady_clock::now();
        const double turn = settle(model);
        worker += std::chrono::duration<double>(std::chrono::steady_clock::now() - waited).count();
        state.SetIterationTime(call + turn);
        benchmark::DoNotOptimize(model.reclaimableBytes());
    }
    state.counters["worker_wall_ms"] = worker * 1000 / static_cast<double>(state.iterations());
    report(state);
}

// The view on the offscreen platform: one screenful painted after a jump of the scroll bar (the
// view asks data() for the rows it shows). Time is per screenful.
void ViewScrollScreenful(benchmark::State& state) {
    GroupsModel model;
    loadInto(model);
    QTreeView view;
    view.setUniformRowHeights(true);
    view.resize(1200, 800);
    view.setModel(&model);
    // As the Scan & Reclaim screen sets it up.
    view.setTextElideMode(Qt::ElideMiddle);
    view.header()->setSectionResizeMode(GroupsModel::folderColumn, QHeaderView::Stretch);
    view.header()->setSectionResizeMode(GroupsModel::copiesColumn, QHeaderView::ResizeToContents);
    view.header()->setStretchLastSection(false);
    view.show();
    view.grab();
    view.expand(model.index(groupCount / 2, 0));
    int page = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        view.verticalScrollBar()->setValue(view.verticalScrollBar()->maximum() * (page++ % 50) / 50);
        benchmark::DoNotOptimize(view.grab());
        state.SetIterationTime(seconds(Clock::now() - start));
    }
    state.counters["worker_ms"] = 0;
    report(state);
}

// Every step as the window does it, asynchronously: the longest turn of the event loop, in
// milliseconds, across loading, each sort, a filter and a folder left out.
void MainThreadLongestTurn(benchmark::State& state) {
    for (auto _ : state) {
        GroupsModel model;
        double longest = 0;
        auto step = [&](const char* name, auto&& change) {
            const auto start = Clock::now();
            change();
            const double call = seconds(Clock::now() - start);
            const double turn = std::max(call, settle(model));
            state.counters[name] = turn * 1000;
            longest = std::max(longest, turn);
        };
        step("load_ms", [&] { model.setResult(sharedResult(), Selection{{"/home/ana/Pictures/7"}}); });
        step("path_ms", [&] { model.sortBy(GroupsModel::SortKey::path, Qt::AscendingOrder); });
        step("name_ms", [&] { model.sortBy(GroupsModel::SortKey::name, Qt::AscendingOrder); });
        step("size_ms", [&] { model.sortBy(GroupsModel::SortKey::size, Qt::AscendingOrder); });
        step("ext_ms", [&] { model.sortBy(GroupsModel::SortKey::extension, Qt::AscendingOrder); });
        step("filter_ms", [&] { model.setFilter({"pictures/1", GroupsModel::FilterField::path, 0}); });
        step("folder_ms", [&] { model.setSelection(Selection{{"/home/ana/Pictures/12"}}); });
        step("clear_ms", [&] { model.clear(); });
        state.SetIterationTime(longest);
    }
}

}  // namespace

BENCHMARK(Load)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();
BENCHMARK(Sort)->DenseRange(0, 5)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();
BENCHMARK(Filter)->Unit(benchmark::kMillisecond)->Iterations(4)->UseManualTime();
BENCHMARK(SelectionOneFile)->Unit(benchmark::kMillisecond)->Iterations(10)->UseManualTime();
BENCHMARK(SelectionFolder)->Unit(benchmark::kMillisecond)->Iterations(4)->UseManualTime();
BENCHMARK(ViewScrollScreenful)->Unit(benchmark::kMillisecond)->Iterations(50)->UseManualTime();
BENCHMARK(MainThreadLongestTurn)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? QByteArray("offscreen") : qgetenv("QT_QPA_PLATFORM"));
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
