// Micro-benchmarks of the scan's hot paths: digesting content, listing folders, grouping files.
// Run by hand: build/bench/engine_bench. They print throughput; nothing here asserts a time.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "directory_reader.h"
#include "duplicate_finder.h"
#include "hasher.h"

namespace {

namespace fs = std::filesystem;

// A scratch folder on a disk (not tmpfs), removed when the process ends.
const fs::path& scratch() {
    static const fs::path folder = [] {
        fs::path path = fs::temp_directory_path() / ("dedup-bench-" + std::to_string(::getpid()));
        fs::create_directories(path);
        std::atexit([] { fs::remove_all(scratch()); });
        return path;
    }();
    return folder;
}

void writeFile(const fs::path& path, size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (auto& b : bytes) b = static_cast<char>(random());
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void ContentDigest(benchmark::State& state) {
    auto size = static_cast<size_t>(state.range(0));
    fs::path file = scratch() / ("digest-" + std::to_string(size));
    writeFile(file, size, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(dedup::ContentHash::sha256(file, dedup::ContentHash::fullLimit));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(ContentDigest)->Arg(64 << 10)->Arg(8 << 20);

void ListFolder(benchmark::State& state) {
    fs::path folder = scratch() / "listing";
    if (!fs::exists(folder)) {
        fs::create_directories(folder);
        for (int i = 0; i < 5000; ++i) writeFile(folder / ("photo-" + std::to_string(i) + ".jpg"), 100, 2);
    }
    for (auto _ : state) benchmark::DoNotOptimize(dedup::DirectoryReader::read(folder));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 5000);
}
BENCHMARK(ListFolder);

void ScanTree(benchmark::State& state) {
    fs::path root = scratch() / "tree";
    if (!fs::exists(root)) {
        for (int i = 0; i < 2000; ++i) {
            fs::path folder = root / ("f" + std::to_string(i % 40));
            fs::create_directories(folder);
            writeFile(folder / ("a" + std::to_string(i)), 4096 + static_cast<size_t>(i % 300), static_cast<uint32_t>(i % 600));
        }
    }
    dedup::DuplicateFinder finder;
    finder.options.minimumSize = 1;
    for (auto _ : state) benchmark::DoNotOptimize(finder.scan({root.string()}, nullptr, nullptr));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 2000);
}
BENCHMARK(ScanTree)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
