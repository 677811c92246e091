// How the application's list of identical files copes with a million files in 200,000 groups:
// loading a scan result, sorting, filtering, changing the selection, and a tree view opening and
// scrolling through it. Each step runs once per iteration on the same data, as a user would do it;
// the figures are wall-clock time on the main thread, where any of them would freeze the window.
//
//   build/bench/groups_model_bench                       # 1,000,000 files, 200,000 groups
//   build/bench/groups_model_bench --benchmark_filter=Sort
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QHeaderView>
#include <QScrollBar>
#include <QTreeView>

#include "groups_model.h"

namespace {

using dedup::DuplicateGroup;
using dedup::ScanResult;
using dedup::Selection;
using dedup::app::GroupsModel;

constexpr int groupCount = 200'000;
constexpr int filesPerGroup = 5;

// Paths spread over 1,000 folders in two levels, names with a handful of extensions, sizes spread
// over six orders of magnitude; about one copy in eight shares blocks with another, so the plan's
// clone-family rule is exercised too.
const ScanResult& bigResult() {
    static const ScanResult result = [] {
        ScanResult r;
        r.groups.reserve(groupCount);
        static const char* const extensions[] = {"jpg", "png", "mov", "pdf", "txt", "iso", "JPG", "heic"};
        uint64_t inode = 1;
        uint64_t seed = 88172645463325252ull;
        auto next = [&] {
            seed ^= seed << 13;
            seed ^= seed >> 7;
            seed ^= seed << 17;
            return seed;
        };
        for (int g = 0; g < groupCount; ++g) {
            DuplicateGroup group;
            group.digest = std::to_string(next());
            const int64_t size = static_cast<int64_t>(1000 + next() % 1'000'000'000);
            const char* ext = extensions[g % 8];
            for (int f = 0; f < filesPerGroup; ++f) {
                dedup::ScannedFile file;
                file.path = "/home/ana/Pictures/" + std::to_string(next() % 40) + "/" + std::to_string(next() % 25) +
                            "/IMG_" + std::to_string(g) + (f ? " copy " + std::to_string(f) : std::string()) + "." + ext;
                file.status.size = size;
                file.status.inode = inode++;
                file.status.device = 1;
                if (f >= 3 && g % 2 == 0) file.clones = dedup::CloneInfo{0, static_cast<uint64_t>(g) + 1, 2, false};
                group.files.push_back(std::move(file));
            }
            group.reclaimableBytes = size * (filesPerGroup - 1);
            r.groups.push_back(std::move(group));
        }
        return r;
    }();
    return result;
}

void report(benchmark::State& state) {
    state.counters["files"] = groupCount * filesPerGroup;
    state.counters["groups"] = groupCount;
}

void Load(benchmark::State& state) {
    const ScanResult& result = bigResult();
    for (auto _ : state) {
        GroupsModel model;
        model.setResult(result, Selection{{"/home/ana/Pictures/7"}});
        benchmark::DoNotOptimize(model.reclaimableBytes());
    }
    report(state);
}

void Sort(benchmark::State& state) {
    GroupsModel model;
    model.setResult(bigResult(), {});
    const GroupsModel::SortKey keys[] = {GroupsModel::SortKey::path, GroupsModel::SortKey::name,
                                         GroupsModel::SortKey::size, GroupsModel::SortKey::extension};
    const auto key = keys[state.range(0)];
    for (auto _ : state) {
        model.sortBy(key, Qt::AscendingOrder);
        benchmark::DoNotOptimize(model.index(0, 0));
    }
    state.SetLabel(state.range(0) == 0 ? "path" : state.range(0) == 1 ? "name" : state.range(0) == 2 ? "size" : "extension");
    report(state);
}

void Filter(benchmark::State& state) {
    GroupsModel model;
    model.setResult(bigResult(), {});
    int flip = 0;
    for (auto _ : state) {
        // Alternates, so every iteration really filters.
        model.setFilter({flip++ % 2 ? "copy 3" : "pictures/1", GroupsModel::FilterField::path, 0});
        benchmark::DoNotOptimize(model.rowCount());
    }
    report(state);
}

void SelectionOneFile(benchmark::State& state) {
    GroupsModel model;
    model.setResult(bigResult(), {});
    const std::string path = model.groupAt(model.index(1000, 0)).files[2].path;
    int flip = 0;
    for (auto _ : state) {
        model.setSelection(flip++ % 2 ? Selection{} : Selection{{path}});
        benchmark::DoNotOptimize(model.reclaimableBytes());
    }
    report(state);
}

void SelectionFolder(benchmark::State& state) {
    GroupsModel model;
    model.setResult(bigResult(), {});
    model.setSelection({});
    int flip = 0;
    for (auto _ : state) {
        // One fortieth of every file, spread over all groups.
        model.setSelection(flip++ % 2 ? Selection{} : Selection{{"/home/ana/Pictures/12"}});
        benchmark::DoNotOptimize(model.reclaimableBytes());
    }
    report(state);
}

// The view on the offscreen platform: showing the model, then paging to the end and back.
void ViewOpenAndScroll(benchmark::State& state) {
    GroupsModel model;
    model.setResult(bigResult(), {});
    for (auto _ : state) {
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
        for (int page = 0; page < 50; ++page) {
            view.verticalScrollBar()->setValue(view.verticalScrollBar()->maximum() * page / 50);
            view.grab();
        }
        view.scrollToBottom();
        benchmark::DoNotOptimize(view.grab());
    }
    report(state);
}

}  // namespace

BENCHMARK(Load)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(Sort)->DenseRange(0, 3)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();
BENCHMARK(Filter)->Unit(benchmark::kMillisecond)->Iterations(4)->UseRealTime();
BENCHMARK(SelectionOneFile)->Unit(benchmark::kMillisecond)->Iterations(10)->UseRealTime();
BENCHMARK(SelectionFolder)->Unit(benchmark::kMillisecond)->Iterations(4)->UseRealTime();
BENCHMARK(ViewOpenAndScroll)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? QByteArray("offscreen") : qgetenv("QT_QPA_PLATFORM"));
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
