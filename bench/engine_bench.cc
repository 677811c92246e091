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
#include "journal.h"

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

// The cost of making started entries durable: N entries announced with one write and one sync, as
// a batch does, against the same entries one sync each (Arg 1). Items are entries per second.
// Meaningful on a disk only: $TMPDIR on tmpfs syncs for free.
void JournalAnnounce(benchmark::State& state) {
    auto perSync = static_cast<size_t>(state.range(0));
    dedup::Journal journal((scratch() / ("journal-" + std::to_string(perSync) + ".jsonl")).string());
    std::vector<dedup::JournalEntry> batch;
    for (size_t i = 0; i < perSync; ++i) {
        auto entry = dedup::JournalEntry::make(dedup::JournalEntry::Event::started,
                                               "/home/ana/Pictures/2024/IMG_" + std::to_string(i) + ".jpg");
        entry.source = "/home/ana/Pictures/IMG_" + std::to_string(i) + ".jpg";
        entry.digest = std::string(64, 'a');
        entry.temporary = "/home/ana/Pictures/2024/.IMG_" + std::to_string(i) + ".jpg.dedup-" + dedup::makeUUID();
        batch.push_back(entry);
    }
    for (auto _ : state) journal.append(batch);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(perSync));
}
BENCHMARK(JournalAnnounce)->Arg(1)->Arg(64)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
