#include "across_grouping.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <thread>

#include "across_volumes.h"
#include "hash_cache.h"
#include "hasher.h"
#include "locked.h"
#include "parallel.h"
#include "platform/file_io.h"
#include "platform/storage.h"

namespace dedup {

namespace {

// How far ahead of the reading a disk is asked for a file's bytes: a spinning disk gets long
// stretches of one file before its head moves to the copy on the other disk.
constexpr int64_t solidReadAhead = int64_t{4} << 20;
constexpr int64_t spinningReadAhead = int64_t{16} << 20;

// Which volumes one reader reads. The volumes of one spinning disk (two partitions of a USB disk)
// share its reader, so that its head does not jump between them; a volume on solid state (or on a
// disk that only claims to spin, as a hypervisor's does) is read by readers of its own. Asked once
// per volume, on the caller's thread, before any reader starts.
class Disks {
public:
    uint32_t of(uint32_t volume, const std::string& path) {
        auto [it, isNew] = byVolume_.try_emplace(volume, 0);
        if (!isNew) return it->second;
        auto disks = platform::disksUnder(path);
        bool spinning = anySpins(disks);
        std::string key = "volume " + std::to_string(volume);
        if (spinning) {
            key.clear();
            for (const auto& disk : disks) key += disk.sysPath + "\n";
        }
        auto [known, isNewDisk] = byKey_.try_emplace(key, static_cast<uint32_t>(spins_.size()));
        if (isNewDisk) spins_.push_back(spinning);
        it->second = known->second;
        return it->second;
    }
    uint32_t at(uint32_t volume) const { return byVolume_.at(volume); }
    bool spins(uint32_t disk) const { return spins_[disk] != 0; }
    bool anyDiskSpins() const { return std::any_of(spins_.begin(), spins_.end(), [](char s) { return s != 0; }); }
    // Readers at once for work that touches every disk: as many as they bear together.
    size_t readers(int threads) const {
        size_t workers = 0;
        for (char spinning : spins_) workers += workersFor(threads, spinning != 0);
        return std::max<size_t>(workers, 1);
    }

private:
    std::map<uint32_t, uint32_t> byVolume_;
    std::map<std::string, uint32_t> byKey_;
    std::vector<char> spins_;
};

// Keeps the extent facts just read of `which` files, in the order of the cache's records (by
// inode), so that each of its pages is written once rather than once for every file on it.
void storeBlocks(HashCache& cache, const std::vector<ScannedFile>& files, std::vector<uint32_t>& which, int64_t stamp) {
    std::sort(which.begin(), which.end(), [&](uint32_t a, uint32_t b) {
        const FileStatus& x = files[a].status;
        const FileStatus& y = files[b].status;
        return x.device != y.device ? x.device < y.device : x.inode < y.inode;
    });
    for (uint32_t i : which) cache.storeBlocks(files[i], HashCache::Blocks{files[i].clones}, stamp);
}

// A file still in the running, with the digest read so far (empty: none yet, or unreadable).
struct Candidate {
    uint32_t file;
    std::string digest;
};

class Grouping {
public:
    Grouping(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes, const AcrossReading& options,
             const ProgressCallback& progress, const CancelCallback& isCancelled)
        : files_(files), volumes_(volumes), options_(options), progress_(progress), isCancelled_(isCancelled) {}

    AcrossSets run(const std::vector<uint32_t>& wanted) {
        std::vector<Candidate> candidates = metOnAnotherVolume(wanted);
        // Each candidate is asked of the cache up to three times (prefix, blocks, whole digest):
        // it reads what it keeps of all of them in one pass, and lets go however this ends.
        struct Forget {
            HashCache* cache;
            ~Forget() {
                if (cache) cache->forgetRemembered();
            }
        } forget{options_.cache};
        if (options_.cache && !candidates.empty()) {
            std::vector<const ScannedFile*> kept;
            kept.reserve(candidates.size());
            for (const auto& c : candidates) kept.push_back(&file(c));
            try {
                options_.cache->remember(kept);
            } catch (const std::exception&) {
                // Every lookup goes to the database then: slower, never another answer.
            }
        }
        // Taken before any extent map is read: a reclaim sharing blocks meanwhile moves the stamp,
        // and what is read now is kept under the old one, so it is read again next time.
        if (options_.cache) stamp_ = options_.cache->replacementStamp();
        mapRead_.assign(files_.size(), 0);
        std::vector<std::vector<Candidate>> fromStart = readFromStart(candidates);
        digestPrefixes(candidates);
        AcrossSets result;
        std::vector<std::vector<Candidate>> whole;
        for (auto& run : spanningRuns(candidates)) {
            // Up to 64 KiB the prefix digest is the digest of the whole file.
            if (files_[run.front().file].status.size <= ContentHash::partialLimit) {
                result.sets.push_back(setOf(run));
            } else {
                whole.push_back(std::move(run));
            }
        }
        digestWholeFiles(whole);
        digestFromStart(fromStart);
        for (auto* parts : {&whole, &fromStart}) {
            for (auto& part : *parts) {
                for (auto& run : spanningRuns(part)) result.sets.push_back(setOf(run));
            }
        }
        readCloneFacts(result.sets, result.blocksLeft);
        result.bytesRead = bytesRead_.get();
        return result;
    }

private:
    bool cancelled() {
        if (!cancelled_ && isCancelled_ && isCancelled_()) cancelled_ = true;
        return cancelled_.load();
    }

    const ScannedFile& file(const Candidate& c) const { return files_[c.file]; }

    // Called for every file read, from the readers; one in so many is reported.
    void reading(const std::string& path) {
        if (progress_ && readingCount_++ % filesPerReport == 0) {
            progress_(ScanProgress{ScanProgress::Phase::hashing, static_cast<int64_t>(files_.size()), bytesRead_.get(), path});
        }
    }

    // Files whose size some file on another volume has too: no other file can be a copy across disks.
    std::vector<Candidate> metOnAnotherVolume(const std::vector<uint32_t>& wanted) const {
        // Sorted with their keys beside them: looking each file up for every comparison would
        // make most of them wait on memory.
        struct Keyed {
            int64_t size;
            uint32_t volume, file;
        };
        std::vector<Keyed> order;
        order.reserve(wanted.size());
        for (uint32_t i : wanted) order.push_back({files_[i].status.size, volumes_[i], i});
        std::sort(order.begin(), order.end(), [](const Keyed& a, const Keyed& b) {
            return a.size != b.size ? a.size < b.size : a.volume != b.volume ? a.volume < b.volume : a.file < b.file;
        });
        std::vector<Candidate> result;
        for (size_t start = 0, end = 0; start < order.size(); start = end) {
            while (end < order.size() && order[end].size == order[start].size) ++end;
            // Sorted by volume within a size: two volumes when the first and the last differ.
            if (order[start].volume == order[end - 1].volume) continue;
            for (size_t k = start; k < end; ++k) result.push_back({order[k].file, {}});
        }
        return result;
    }

    // Takes out of `candidates` (sorted by size) the sizes best read from their start in one pass,
    // each file once for both its digests and each set of copies digested once: sizes with a file
    // the cache knows nothing of, and either few enough files to be read side by side or files
    // small enough to be whole at the first step. The rest, all of whose prefixes the cache knows
    // (a second search) or too many large files to be read side by side, are left to be read a
    // prefix first.
    std::vector<std::vector<Candidate>> readFromStart(std::vector<Candidate>& candidates) {
        std::vector<char> known(candidates.size(), 0);
        if (HashCache* cache = options_.cache) {
            std::vector<HashCache::Lookup> lookups;
            lookups.reserve(candidates.size());
            for (const auto& c : candidates) {
                bool small = file(c).status.size <= ContentHash::partialLimit;
                lookups.push_back({small ? HashCache::Kind::full : HashCache::Kind::partial, &file(c)});
            }
            try {
                auto digests = cache->digests(lookups);
                for (size_t k = 0; k < digests.size(); ++k) known[k] = digests[k].has_value();
            } catch (const std::exception&) {
                // Read then, as if the cache knew nothing.
            }
        }
        // From disk, files are read fastest each disk in the order of its inodes, which only
        // reading them a prefix first allows; from memory, reading each once and digesting each
        // set once is the faster way.
        std::optional<bool> inMemory;  // asked only if some size needs it
        std::vector<std::vector<Candidate>> parts;
        std::vector<Candidate> rest;
        auto sizeOf = [&](size_t k) { return file(candidates[k]).status.size; };
        for (size_t start = 0, end = 0; start < candidates.size(); start = end) {
            while (end < candidates.size() && sizeOf(end) == sizeOf(start)) ++end;
            auto first = candidates.begin() + static_cast<ptrdiff_t>(start);
            auto last = candidates.begin() + static_cast<ptrdiff_t>(end);
            bool allKnown = std::all_of(known.begin() + static_cast<ptrdiff_t>(start),
                                        known.begin() + static_cast<ptrdiff_t>(end), [](char k) { return k != 0; });
            bool fromStart =
                !allKnown && (end - start <= Hasher::filesSideBySide || sizeOf(start) <= ContentHash::partialLimit);
            if (fromStart) {
                if (!inMemory) inMemory = mostlyInMemory(candidates);
                fromStart = *inMemory;
            }
            if (!fromStart) {
                rest.insert(rest.end(), std::make_move_iterator(first), std::make_move_iterator(last));
            } else {
                parts.emplace_back(std::make_move_iterator(first), std::make_move_iterator(last));
            }
        }
        candidates = std::move(rest);
        return parts;
    }

    // Whether the candidates' bytes are in memory, as far as a few dozen of them, taken evenly,
    // tell by their first and their last bytes: asking costs an open each, so not all are asked.
    bool mostlyInMemory(const std::vector<Candidate>& candidates) const {
        constexpr size_t asked = 48;
        const size_t count = std::min(asked, candidates.size());
        size_t there = 0, probed = 0;
        for (size_t k = 0; k < count; ++k) {
            const ScannedFile& f = file(candidates[k * candidates.size() / count]);
            if (f.status.size == 0) continue;
            try {
                platform::FileDescriptor fd = platform::openForReading(f.path);
                ++probed;
                if (platform::isInMemory(fd, 0) && platform::isInMemory(fd, f.status.size - 1)) ++there;
            } catch (const std::exception&) {
                // gone or unreadable: says nothing either way
            }
        }
        return probed == 0 || there * 8 >= probed * 7;
    }

    // Runs `work` on each part, as many at a time as all their disks together bear (one where a
    // disk spins: nearly every part has a copy on every disk, and a second part would make that
    // disk's head jump between them), the largest first, so that no long read is left for last
    // while the other readers stand idle. Every disk must be known to disks_ before.
    template <typename Parts, typename Work>
    void eachPartLargestFirst(Parts& parts, Work work) {
        size_t workers = disks_.anyDiskSpins() && options_.threads == 0 ? 1 : disks_.readers(options_.threads);
        auto weight = [&](const auto& part) { return file(part.front()).status.size * std::ssize(part); };
        std::stable_sort(parts.begin(), parts.end(), [&](const auto& a, const auto& b) { return weight(a) > weight(b); });
        parallelFor(parts.size(), workers, [&](size_t p) {
            if (!cancelled()) work(parts[p]);
        });
    }

    // Reads the parts readFromStart() chose, as digestWholeFiles() reads its own, but from their
    // start: a set of files whose first 64 KiB agree on one volume only is read no further, as it
    // would not be after its prefix digests. A size with more files than are read side by side
    // holds small files only, whole at the first step, which no set stops: it is read in turns of
    // that many, by name, so that the copies of one file mostly share a turn and are digested once.
    void digestFromStart(std::vector<std::vector<Candidate>>& parts) {
        if (parts.empty() || cancelled()) return;
        std::vector<std::span<Candidate>> turns;
        for (auto& part : parts) {
            for (const auto& c : part) disks_.of(volumes_[c.file], file(c).path);
            if (part.size() > Hasher::filesSideBySide) {
                auto name = [&](const Candidate& c) {
                    std::string_view path = file(c).path;
                    return path.substr(path.rfind('/') + 1);
                };
                std::stable_sort(part.begin(), part.end(), [&](const Candidate& a, const Candidate& b) { return name(a) < name(b); });
            }
            for (size_t first = 0; first < part.size(); first += Hasher::filesSideBySide) {
                turns.emplace_back(part.data() + first, std::min(Hasher::filesSideBySide, part.size() - first));
            }
        }
        eachPartLargestFirst(turns, [&](std::span<Candidate> part) {
            std::vector<const ScannedFile*> list;
            for (auto& c : part) list.push_back(&file(c));
            reading(list.front()->path);
            auto spans = [&](const std::vector<size_t>& agree) {
                uint32_t volume = volumes_[part[agree.front()].file];
                return std::any_of(agree.begin(), agree.end(), [&](size_t k) { return volumes_[part[k].file] != volume; });
            };
            // A set of copies is open here already: its extent maps are read now rather than
            // each copy opened again for them afterwards, in the order readCloneFacts() keeps.
            auto readMaps = [&](const std::vector<size_t>& agree, const std::vector<const platform::FileDescriptor*>& open) {
                if (!spans(agree)) return;
                std::vector<size_t> order(agree.size());
                for (size_t k = 0; k < order.size(); ++k) order[k] = k;
                std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return part[agree[a]].file < part[agree[b]].file; });
                for (size_t k : order) {
                    ScannedFile& copy = files_[part[agree[k]].file];
                    if (copy.status.links != 1) continue;
                    try {
                        copy.clones = CloneInfo::read(*open[k], copy.path);
                    } catch (const std::exception&) {
                        break;  // left to readCloneFacts(), which tries once more by its path
                    }
                    mapRead_[part[agree[k]].file] = 1;
                    if (AcrossVolumes::freedByRemoving(copy) >= copy.status.size) break;
                }
            };
            std::vector<std::optional<std::string>> prefixes;
            // In memory, as these are: asking the disk for read-ahead would only cost a call per file.
            auto digests = Hasher::digestsFromStart(list, options_.cache, bytesRead_, [this] { return cancelled(); }, 0,
                                                    spans, prefixes, readMaps);
            for (size_t k = 0; k < part.size(); ++k) {
                if (digests[k]) part[k].digest = std::move(*digests[k]);
            }
        });
    }

    // The prefix digest of every candidate: each disk by a reader of its own, all disks at once,
    // each volume in inode order (which follows the layout on disk closely enough to spare a cold
    // disk seeks).
    void digestPrefixes(std::vector<Candidate>& candidates) {
        std::map<uint32_t, std::vector<size_t>> byDisk;
        for (size_t k = 0; k < candidates.size(); ++k) {
            byDisk[disks_.of(volumes_[candidates[k].file], file(candidates[k]).path)].push_back(k);
        }
        std::vector<std::jthread> readers;
        for (auto& [disk, list] : byDisk) {
            readers.emplace_back([this, &candidates, positions = &list, spinning = disks_.spins(disk)] {
                std::stable_sort(positions->begin(), positions->end(), [&](size_t a, size_t b) {
                    const ScannedFile& x = file(candidates[a]);
                    const ScannedFile& y = file(candidates[b]);
                    uint32_t vx = volumes_[candidates[a].file], vy = volumes_[candidates[b].file];
                    return vx != vy ? vx < vy : x.status.inode < y.status.inode;
                });
                std::vector<const ScannedFile*> list;
                list.reserve(positions->size());
                for (size_t k : *positions) list.push_back(&file(candidates[k]));
                auto digests = Hasher::digests(list, ContentHash::partialLimit, spinning, options_.cache, bytesRead_,
                                               [this](const std::string& p) { reading(p); },
                                               [this] { return cancelled(); }, options_.threads);
                // Each reader writes the entries of its own disk only.
                for (size_t k = 0; k < list.size(); ++k) {
                    if (digests[k]) candidates[(*positions)[k]].digest = std::move(*digests[k]);
                }
            });
        }
    }

    // The whole-file digests of the candidates of each part (files of one size whose prefixes
    // agree), read side by side: the copies on both disks are read at once, each disk asked for
    // long stretches ahead.
    void digestWholeFiles(std::vector<std::vector<Candidate>>& parts) {
        if (parts.empty() || cancelled()) return;
        eachPartLargestFirst(parts, [&](std::vector<Candidate>& part) {
            std::vector<const ScannedFile*> list;
            bool anySpins = false;
            for (auto& c : part) {
                c.digest.clear();  // the prefix says nothing of the rest of the file
                list.push_back(&file(c));
                anySpins = anySpins || disks_.spins(disks_.at(volumes_[c.file]));
            }
            auto digests = Hasher::digestsSideBySide(list, options_.cache, bytesRead_,
                                                     [this](const std::string& path) { reading(path); },
                                                     [this] { return cancelled(); },
                                                     anySpins ? spinningReadAhead : solidReadAhead);
            for (size_t k = 0; k < part.size(); ++k) {
                if (digests[k]) part[k].digest = std::move(*digests[k]);
            }
        });
    }

    // Runs of candidates of one size and one digest that lie on two or more volumes; a candidate
    // without a digest (unreadable, or not read before a cancellation) matches nothing.
    std::vector<std::vector<Candidate>> spanningRuns(std::vector<Candidate>& candidates) const {
        std::erase_if(candidates, [](const Candidate& c) { return c.digest.empty(); });
        auto sizeOf = [&](const Candidate& c) { return file(c).status.size; };
        // They come in order of size: only each size's few files need sorting by digest.
        auto bySize = [&](const Candidate& a, const Candidate& b) { return sizeOf(a) < sizeOf(b); };
        if (!std::is_sorted(candidates.begin(), candidates.end(), bySize)) {
            std::stable_sort(candidates.begin(), candidates.end(), bySize);
        }
        for (auto first = candidates.begin(); first != candidates.end();) {
            auto last = std::find_if(first, candidates.end(), [&](const Candidate& c) { return sizeOf(c) != sizeOf(*first); });
            std::sort(first, last, [](const Candidate& a, const Candidate& b) {
                return a.digest != b.digest ? a.digest < b.digest : a.file < b.file;
            });
            first = last;
        }
        std::vector<std::vector<Candidate>> runs;
        for (size_t start = 0, end = 0; start < candidates.size(); start = end) {
            while (end < candidates.size() && sizeOf(candidates[end]) == sizeOf(candidates[start]) &&
                   candidates[end].digest == candidates[start].digest) {
                ++end;
            }
            uint32_t volume = volumes_[candidates[start].file];
            bool spans = std::any_of(candidates.begin() + static_cast<ptrdiff_t>(start),
                                     candidates.begin() + static_cast<ptrdiff_t>(end),
                                     [&](const Candidate& c) { return volumes_[c.file] != volume; });
            if (!spans) continue;
            runs.emplace_back(std::make_move_iterator(candidates.begin() + static_cast<ptrdiff_t>(start)),
                              std::make_move_iterator(candidates.begin() + static_cast<ptrdiff_t>(end)));
        }
        candidates.clear();
        return runs;
    }

    static AcrossSet setOf(std::vector<Candidate>& run) {
        AcrossSet set{std::move(run.front().digest), {}};
        set.members.reserve(run.size());
        for (const auto& c : run) set.members.push_back(c.file);
        return set;
    }

    // What removing one copy of each set frees: the most any copy frees alone. The copies' extent
    // facts are taken from the cache where it kept them for this version of the file, else read
    // one copy after the other, and no further once a copy frees all its size, which none can
    // top: copies on different disks rarely share blocks with anything, so mostly one map is
    // read per set. A copy with other names frees nothing whatever its blocks; its map is not read.
    void readCloneFacts(std::vector<AcrossSet>& sets, std::vector<char>& left) {
        left.assign(files_.size(), 0);
        auto freesAll = [&](uint32_t i) { return AcrossVolumes::freedByRemoving(files_[i]) >= files_[i].status.size; };
        // Maps read while the files were open for their digests count as asked, and are kept.
        std::vector<char> asked(mapRead_);
        HashCache* cache = options_.cache;
        if (cache) {
            std::vector<const ScannedFile*> lookups;
            std::vector<uint32_t> which;
            for (const auto& set : sets) {
                for (uint32_t i : set.members) {
                    if (files_[i].status.links == 1 && !files_[i].clones && !asked[i]) which.push_back(i);
                }
            }
            for (uint32_t i : which) lookups.push_back(&files_[i]);
            auto known = cache->blocks(lookups, stamp_);
            for (size_t k = 0; k < which.size(); ++k) {
                if (!known[k]) continue;
                files_[which[k]].clones = std::move(known[k]->clones);
                asked[which[k]] = 1;
            }
        }
        std::vector<char> read(std::move(mapRead_));
        parallelFor(sets.size(), disks_.readers(options_.threads), [&](size_t s) {
            auto& members = sets[s].members;
            bool done = std::any_of(members.begin(), members.end(), [&](uint32_t i) { return asked[i] && freesAll(i); });
            for (uint32_t i : members) {
                if (asked[i] || files_[i].status.links != 1) continue;
                if (done || cancelled()) {
                    left[i] = 1;
                    continue;
                }
                try {
                    files_[i].clones = CloneInfo::read(files_[i].path);
                    read[i] = 1;
                } catch (const std::exception&) {
                    // Unknown sharing: the copy counts its whole size.
                }
                done = freesAll(i);
            }
            // A copy left unread is topped by the one that freed all its size, which is counted.
            for (uint32_t i : members) {
                if (!left[i]) sets[s].freedBytes = std::max(sets[s].freedBytes, AcrossVolumes::freedByRemoving(files_[i]));
            }
        });
        if (!cache) return;
        std::vector<uint32_t> stored;
        for (uint32_t i = 0; i < files_.size(); ++i) {
            if (read[i]) stored.push_back(i);
        }
        storeBlocks(*cache, files_, stored, stamp_);
    }

    std::vector<ScannedFile>& files_;
    const std::vector<uint32_t>& volumes_;
    const AcrossReading& options_;
    const ProgressCallback& progress_;
    const CancelCallback& isCancelled_;
    std::atomic<bool> cancelled_{false};
    Disks disks_;  // of every candidate's volume, known before any reader starts
    int64_t stamp_ = 0;  // the cache's replacement stamp before any extent map was read
    // Per file: its extent map was read while it was open for its digest (each entry written by
    // the one reader of the file's part).
    std::vector<char> mapRead_;
    Locked<int64_t> bytesRead_{0};
    static constexpr uint32_t filesPerReport = 16;
    std::atomic<uint32_t> readingCount_{0};
};

}  // namespace

void readAcrossBlocks(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes,
                      const std::vector<uint32_t>& which, const AcrossReading& reading,
                      const CancelCallback& isCancelled) {
    std::vector<uint32_t> missing;
    for (uint32_t i : which) {
        if (!files[i].clones) missing.push_back(i);
    }
    if (missing.empty()) return;
    HashCache* cache = reading.cache;
    const int64_t stamp = cache ? cache->replacementStamp() : 0;
    if (cache) {
        std::vector<const ScannedFile*> asked;
        for (uint32_t i : missing) asked.push_back(&files[i]);
        auto known = cache->blocks(asked, stamp);
        std::vector<uint32_t> unknown;
        for (size_t k = 0; k < missing.size(); ++k) {
            if (known[k]) {
                files[missing[k]].clones = std::move(known[k]->clones);
            } else {
                unknown.push_back(missing[k]);
            }
        }
        missing = std::move(unknown);
    }
    Disks disks;
    std::map<uint32_t, std::vector<uint32_t>> byDisk;
    for (uint32_t i : missing) byDisk[disks.of(volumes[i], files[i].path)].push_back(i);
    std::vector<char> read(files.size(), 0);
    {
        std::vector<std::jthread> readers;
        for (auto& [disk, list] : byDisk) {
            size_t workers = workersFor(reading.threads, disks.spins(disk));
            readers.emplace_back([&, workers, &list = list] {
                parallelFor(list.size(), workers, [&](size_t k) {
                    if (isCancelled && isCancelled()) return;
                    try {
                        files[list[k]].clones = CloneInfo::read(files[list[k]].path);
                        read[list[k]] = 1;
                    } catch (const std::exception&) {
                        // Unknown sharing: the copy counts its whole size.
                    }
                });
            });
        }
    }
    if (!cache) return;
    std::erase_if(missing, [&](uint32_t i) { return !read[i]; });
    storeBlocks(*cache, files, missing, stamp);
}

AcrossSets groupAcross(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes,
                       const std::vector<uint32_t>& wanted, const AcrossReading& reading,
                       const ProgressCallback& progress, const CancelCallback& isCancelled) {
    return Grouping(files, volumes, reading, progress, isCancelled).run(wanted);
}

}  // namespace dedup
