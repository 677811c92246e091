#include "duplicate_grouper.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "hash_cache.h"
#include "hasher.h"
#include "locked.h"
#include "parallel.h"
#include "path_names.h"
#include "platform/system.h"
#include "reclaim_plan.h"

namespace dedup {

namespace {

// A digest's text held in place: a unit for nearly every file of a large tree, and a string each
// would cost a heap block of its own. All zero bytes: no digest (unreadable, or not read yet).
struct DigestText {
    std::array<char, 64> text{};

    bool empty() const { return text[0] == 0; }
    void clear() { text.fill(0); }
    DigestText& operator=(const std::optional<std::string>& digest) {
        clear();
        if (digest && digest->size() == text.size()) std::copy(digest->begin(), digest->end(), text.begin());
        return *this;
    }
    std::string str() const { return empty() ? std::string() : std::string(text.begin(), text.end()); }
    auto operator<=>(const DigestText&) const = default;
};

// Files that share all their blocks (or one file on its own): the finder's unit of comparison.
struct Unit {
    std::vector<size_t> files;  // indices into the pool, in path order
    bool replaceable = true;
    DigestText digest;
};

// Files of one size on one device (on any device when grouping across volumes).
struct Bucket {
    uint64_t device = 0;
    int64_t size = 0;
    std::vector<size_t> files;
    std::vector<Unit> units;
};

// Units of one bucket that agree so far on their digest.
struct Candidate {
    Bucket* bucket;
    std::vector<size_t> units;
};

// How far ahead of the reading the disk is asked for a file's bytes: a spinning disk gets long
// stretches of one file before its head moves to the next file of the set.
constexpr int64_t solidReadAhead = int64_t{4} << 20;
constexpr int64_t spinningReadAhead = int64_t{16} << 20;

// One grouping: owns the buckets, units and candidates it makes, on the caller's thread; the
// digests and extent maps are read on threads of its own.
class Grouper {
public:
    Grouper(const DuplicateFinder& finder, bool acrossVolumes, const ProgressCallback& progress,
            const CancelCallback& isCancelled, int64_t filesSeen)
        : finder_(finder),
          acrossVolumes_(acrossVolumes),
          progress_(progress),
          isCancelled_(isCancelled),
          filesSeen_(filesSeen) {}

    // The steps in order, cheapest first: sizes from the listing; a 64 KiB prefix of each file whose
    // size another file shares; the extent maps of the files whose prefix another shares too; the
    // whole files, read side by side.
    DuplicateFinder::Grouping run(const std::vector<ScannedFile>& files) {
        files_ = &files;
        // What the cache remembers for this grouping is let go however the grouping ends.
        struct Forget {
            HashCache* cache;
            ~Forget() {
                if (cache) cache->forgetRemembered();
            }
        } forget{finder_.cache};
        bucketBySize(files);
        std::vector<Candidate> candidates;
        {
            // The cache reads what it keeps while the units are formed, which asks nothing of it.
            std::jthread remembering;
            if (finder_.cache && !pool_.empty()) remembering = std::jthread([this] { rememberKept(); });
            for (auto& bucket : buckets_) {
                if (cancelled()) break;
                Candidate all{&bucket, formUnits(bucket, bucket.files)};
                if (worthHashing(all)) candidates.push_back(std::move(all));
            }
        }
        digestPrefixes(candidates);
        candidates = splitByDigest(candidates, [](const Bucket&) { return true; });
        readCloneFacts(candidates);
        candidates = withoutHoles(candidates);
        candidates = joinClones(candidates);
        // Up to 64 KiB the prefix digest already covers the whole file.
        auto needsWholeFile = [](const Bucket& b) { return b.size > ContentHash::partialLimit; };
        digestWholeFiles(candidates, needsWholeFile);
        candidates = splitByDigest(candidates, needsWholeFile);
        if (finder_.cache) finder_.cache->forgetRemembered();  // before the groups are made: memory
        DuplicateFinder::Grouping result;
        for (auto& candidate : candidates) result.groups.push_back(makeGroup(candidate));
        std::stable_sort(result.groups.begin(), result.groups.end(), [](const auto& a, const auto& b) {
            if (a.reclaimableBytes != b.reclaimableBytes) return a.reclaimableBytes > b.reclaimableBytes;
            return a.files.front().path < b.files.front().path;
        });
        result.bytesRead = bytesRead_.get();
        result.cancelled = cancelled();
        result.unreadableFiles = std::move(unreadable_);
        std::sort(result.unreadableFiles.begin(), result.unreadableFiles.end());
        return result;
    }

private:
    // Called from worker threads too; once asked, the answer stays yes.
    bool cancelled() {
        if (!cancelled_ && isCancelled_ && isCancelled_()) cancelled_ = true;
        return cancelled_.load();
    }

    // Sizes come straight from the listing: no file is opened for a size met only once.
    void bucketBySize(const std::vector<ScannedFile>& files) {
        struct Key {
            uint64_t device;
            int64_t size;
            uint32_t index;
        };
        std::vector<Key> keys;
        keys.reserve(files.size());
        for (size_t i = 0; i < files.size(); ++i) {
            keys.push_back({acrossVolumes_ ? 0 : files[i].status.device, files[i].status.size, static_cast<uint32_t>(i)});
        }
        std::sort(keys.begin(), keys.end(), [](const Key& a, const Key& b) {
            return a.device != b.device ? a.device < b.device : a.size != b.size ? a.size < b.size : a.index < b.index;
        });
        // Runs of one device and size; counted first, so that nothing grows while it is filled.
        std::vector<std::pair<size_t, size_t>> runs;
        size_t pooled = 0;
        for (size_t start = 0, end = 0; start < keys.size(); start = end) {
            while (end < keys.size() && keys[end].device == keys[start].device && keys[end].size == keys[start].size) ++end;
            if (end - start < 2) continue;
            runs.emplace_back(start, end);
            pooled += end - start;
        }
        pool_.reserve(pooled);
        buckets_.reserve(runs.size());
        for (auto [start, end] : runs) {
            Bucket& bucket = buckets_.emplace_back(Bucket{keys[start].device, keys[start].size, {}, {}});
            bucket.files.reserve(end - start);
            bucket.units.reserve(end - start);
            for (size_t k = start; k < end; ++k) {
                bucket.files.push_back(pool_.size());
                pool_.push_back({keys[k].index, files[keys[k].index].clones});
            }
        }
    }

    const ScannedFile& file(size_t member) const { return (*files_)[pool_[member].index]; }

    // Every file whose size another shares is asked about up to three times (its prefix digest,
    // its blocks, its whole digest): the cache reads what it keeps of all of them in one pass.
    // Runs beside the forming of units: reads only the pool, which is complete by then. Without
    // it every lookup goes to the database, so a failure costs time, never an answer.
    void rememberKept() noexcept {
        try {
            std::vector<const ScannedFile*> kept;
            kept.reserve(pool_.size());
            for (size_t i = 0; i < pool_.size(); ++i) kept.push_back(&file(i));
            finder_.cache->remember(kept);
        } catch (const std::exception&) {
        }
    }

    // The extent map is read only for files whose size and prefix another file shares: most files
    // of a common size differ in their first bytes, and a digest from the cache costs no reading.
    // What the cache kept of an unchanged file's blocks spares opening it at all.
    void readCloneFacts(const std::vector<Candidate>& candidates) {
        std::vector<size_t> missing;
        for (const auto& candidate : candidates) {
            for (size_t u : candidate.units) {
                for (size_t i : candidate.bucket->units[u].files) {
                    if (!pool_[i].clones) missing.push_back(i);
                }
            }
        }
        HashCache* cache = finder_.cache;
        // Taken before any map is read: a reclaim that shares blocks meanwhile moves the stamp, and
        // what is read now is kept under the old one, so it is read again next time.
        const int64_t stamp = cache ? cache->replacementStamp() : 0;
        if (cache && !finder_.fullCheck) {
            std::vector<const ScannedFile*> asked;
            asked.reserve(missing.size());
            for (size_t i : missing) asked.push_back(&file(i));
            auto known = cache->blocks(asked, stamp);
            std::vector<size_t> unknown;
            for (size_t k = 0; k < missing.size(); ++k) {
                if (known[k]) {
                    pool_[missing[k]].clones = std::move(known[k]->clones);
                } else {
                    unknown.push_back(missing[k]);
                }
            }
            missing = std::move(unknown);
        }
        std::vector<char> read(missing.size(), 0);
        parallelFor(missing.size(), workersFor(finder_.threads, false), [&](size_t k) {
            if (cancelled()) return;
            Member& member = pool_[missing[k]];
            try {
                member.clones = CloneInfo::read(file(missing[k]).path);
                read[k] = 1;
            } catch (const std::exception&) {
                // Unknown sharing: the file stands on its own and counts its whole size.
            }
        });
        if (!cache) return;
        // Stored in the order of the cache's records (by inode), so that each of its pages is
        // written once rather than once for every file on it.
        std::vector<size_t> stored;
        for (size_t k = 0; k < missing.size(); ++k) {
            if (read[k]) stored.push_back(missing[k]);
        }
        std::sort(stored.begin(), stored.end(), [&](size_t a, size_t b) {
            const FileStatus& x = file(a).status;
            const FileStatus& y = file(b).status;
            return x.device != y.device ? x.device < y.device : x.inode < y.inode;
        });
        for (size_t i : stored) cache->storeBlocks(file(i), HashCache::Blocks{pool_[i].clones}, stamp);
    }

    // Makes units of `files` (members of `bucket`): files that share all their blocks form one, in
    // path order, any other file is one on its own. Returns their indices in bucket.units, in no
    // particular order: a group puts its units in order when it is made.
    std::vector<size_t> formUnits(Bucket& bucket, const std::vector<size_t>& files) {
        std::vector<size_t> formed;
        formed.reserve(files.size());
        std::map<std::pair<uint64_t, uint64_t>, size_t> families;
        for (size_t index : files) {
            const auto& clones = pool_[index].clones;
            if (!clones || clones->privateSize != 0) {
                formed.push_back(bucket.units.size());
                bucket.units.push_back(Unit{{index}, true, {}});
                continue;
            }
            auto key = std::pair{file(index).status.device, clones->cloneID};
            auto [it, isNew] = families.emplace(key, bucket.units.size());
            if (isNew) {
                formed.push_back(bucket.units.size());
                bucket.units.push_back(Unit{{}, true, {}});
            }
            bucket.units[it->second].files.push_back(index);
        }
        for (const auto& [key, u] : families) {
            auto& members = bucket.units[u].files;
            std::sort(members.begin(), members.end(), [&](size_t a, size_t b) { return file(a).path < file(b).path; });
        }
        if (!acrossVolumes_) {
            for (size_t u : formed) {
                Unit& unit = bucket.units[u];
                unit.replaceable = std::all_of(unit.files.begin(), unit.files.end(),
                                               [&](size_t i) { return isReplaceable(file(i)); });
            }
        }
        return formed;
    }

    // A file made of holes alone reads as zeros like a written one, but holds no block to share: as
    // a kept copy it would give others nothing, as a copy it frees nothing. It leaves its set.
    std::vector<Candidate> withoutHoles(std::vector<Candidate>& candidates) {
        std::vector<Candidate> result;
        for (auto& candidate : candidates) {
            std::erase_if(candidate.units, [&](size_t u) {
                const auto& files = candidate.bucket->units[u].files;
                return std::any_of(files.begin(), files.end(),
                                   [&](size_t i) { return pool_[i].clones && pool_[i].clones->noBlocks; });
            });
            if (worthHashing(candidate)) result.push_back(std::move(candidate));
        }
        return result;
    }

    // With the extent maps read, files of a candidate that share all their blocks become one unit;
    // a candidate left with one unit (or none that could be replaced) is no longer worth reading.
    std::vector<Candidate> joinClones(std::vector<Candidate>& candidates) {
        std::vector<Candidate> result;
        for (auto& candidate : candidates) {
            auto& units = candidate.bucket->units;
            bool anyClone = std::any_of(candidate.units.begin(), candidate.units.end(), [&](size_t u) {
                return std::any_of(units[u].files.begin(), units[u].files.end(), [&](size_t i) {
                    return pool_[i].clones && pool_[i].clones->privateSize == 0;
                });
            });
            if (!anyClone) {
                result.push_back(std::move(candidate));
                continue;
            }
            DigestText digest = units[candidate.units.front()].digest;
            std::vector<size_t> files;
            for (size_t u : candidate.units) files.insert(files.end(), units[u].files.begin(), units[u].files.end());
            Candidate joined{candidate.bucket, formUnits(*candidate.bucket, files)};
            for (size_t u : joined.units) candidate.bucket->units[u].digest = digest;
            if (worthHashing(joined)) result.push_back(std::move(joined));
        }
        return result;
    }

    // A file that gave no digest although the scan went on could not be read: the user is told.
    void noteUnread(const std::string& path) {
        if (cancelled()) return;
        std::lock_guard lock(unreadableLock_);
        unreadable_.push_back(path);
    }

    bool isReplaceable(const ScannedFile& file) {
        const FileStatus& s = file.status;
        if (!s.isRegularFile() || s.links != 1) return false;
        if (s.flags & (FileFlags::anyImmutable | FileFlags::anyAppend)) return false;
        if (s.uid != user_) return false;
        // Linux has no separate right to delete one file: a writable folder grants it to the
        // file's owner, which the test above already made sure of.
        std::string_view parent = parentViewOf(file.path);
        if (auto it = writableFolders_.find(parent); it != writableFolders_.end()) return it->second;
        std::string folder(parent);
        bool writable = platform::canAccess(folder, platform::writeAccess);
        writableFolders_.emplace(std::move(folder), writable);
        return writable;
    }

    static bool worthHashing(const Candidate& candidate) {
        if (candidate.units.size() < 2) return false;
        return std::any_of(candidate.units.begin(), candidate.units.end(),
                           [&](size_t u) { return candidate.bucket->units[u].replaceable; });
    }

    bool rotational(uint64_t device, const std::string& path) {
        auto [it, isNew] = rotational_.try_emplace(device, false);
        if (isNew) it->second = StorageKind::isRotational(path);
        return it->second;
    }

    // Called for every file read, from the readers; one in so many is reported, which is plenty for
    // a person and spares the readers a lock and a copy of the path each.
    void reading(const std::string& path) {
        if (progress_ && readingCount_++ % filesPerReport == 0) {
            progress_(ScanProgress{ScanProgress::Phase::hashing, filesSeen_, bytesRead_.get(), path});
        }
    }

    // The prefix digest of one file of every unit. All buckets are hashed in one pass per device,
    // so the readers stay busy however small the buckets are.
    void digestPrefixes(std::vector<Candidate>& candidates) {
        struct Job {
            Unit* unit;
            const ScannedFile* file;
        };
        std::map<uint64_t, std::vector<Job>> jobsByDevice;
        for (auto& candidate : candidates) {
            for (size_t u : candidate.units) {
                Unit& unit = candidate.bucket->units[u];
                const ScannedFile& first = file(unit.files.front());
                jobsByDevice[first.status.device].push_back({&unit, &first});
            }
        }
        for (auto& [device, jobs] : jobsByDevice) {
            if (cancelled()) break;
            // Inode order follows the on-disk layout closely enough to spare a cold disk some seeks.
            std::stable_sort(jobs.begin(), jobs.end(),
                             [](const Job& a, const Job& b) { return a.file->status.inode < b.file->status.inode; });
            std::vector<const ScannedFile*> files;
            files.reserve(jobs.size());
            for (const auto& job : jobs) files.push_back(job.file);
            auto digests = Hasher::digests(files, ContentHash::partialLimit, rotational(device, files.front()->path),
                                           finder_.cache, bytesRead_, [this](const std::string& p) { reading(p); },
                                           isCancelled_, finder_.threads);
            for (size_t i = 0; i < jobs.size(); ++i) {
                jobs[i].unit->digest = digests[i];
                if (!digests[i]) noteUnread(jobs[i].file->path);
            }
        }
    }

    // The whole-file digest of one file of every unit that `needs` it, each candidate's files read
    // side by side, candidates on as many readers as the disk bears.
    template <typename Needs>
    void digestWholeFiles(std::vector<Candidate>& candidates, Needs needs) {
        auto firstOf = [this](const Candidate& c, size_t k) -> const ScannedFile& {
            return file(c.bucket->units[c.units[k]].files.front());
        };
        std::map<uint64_t, std::vector<Candidate*>> jobsByDevice;
        for (auto& candidate : candidates) {
            if (!needs(*candidate.bucket)) continue;
            // The prefix digest proves nothing about the rest of the file: a unit the reading does
            // not reach (a scan cancelled half-way) must match nothing, never its prefix's peers.
            for (size_t u : candidate.units) candidate.bucket->units[u].digest.clear();
            jobsByDevice[firstOf(candidate, 0).status.device].push_back(&candidate);
        }
        for (auto& [device, jobs] : jobsByDevice) {
            if (cancelled()) break;
            bool spins = rotational(device, firstOf(*jobs.front(), 0).path);
            size_t workers = workersFor(finder_.threads, spins);
            // One reader goes through the disk in inode order; several take the largest sets first,
            // so that no long read is left for last while the other readers stand idle.
            std::stable_sort(jobs.begin(), jobs.end(), [&](const Candidate* a, const Candidate* b) {
                if (workers == 1) return firstOf(*a, 0).status.inode < firstOf(*b, 0).status.inode;
                return a->bucket->size * std::ssize(a->units) > b->bucket->size * std::ssize(b->units);
            });
            parallelFor(jobs.size(), workers, [&](size_t j) {
                if (cancelled()) return;
                Candidate& candidate = *jobs[j];
                std::vector<const ScannedFile*> files;
                for (size_t k = 0; k < candidate.units.size(); ++k) files.push_back(&firstOf(candidate, k));
                auto digests = Hasher::digestsSideBySide(files, finder_.cache, bytesRead_,
                                                         [this](const std::string& p) { reading(p); }, isCancelled_,
                                                         spins ? spinningReadAhead : solidReadAhead);
                for (size_t k = 0; k < files.size(); ++k) {
                    candidate.bucket->units[candidate.units[k]].digest = digests[k];
                    if (!digests[k]) noteUnread(files[k]->path);
                }
            });
        }
    }

    // Splits each candidate that `needs` it by its units' digests; a part worth no more reading goes.
    template <typename Needs>
    std::vector<Candidate> splitByDigest(std::vector<Candidate>& candidates, Needs needs) {
        std::vector<Candidate> result;
        for (auto& candidate : candidates) {
            if (!needs(*candidate.bucket)) {
                result.push_back(std::move(candidate));
                continue;
            }
            // Units in digest order, so that equal digests stand together; stable, so the units of
            // a part keep their order.
            std::vector<size_t> units;
            for (size_t u : candidate.units) {
                // Unreadable or cancelled: no digest, so it matches nothing.
                if (!candidate.bucket->units[u].digest.empty()) units.push_back(u);
            }
            auto digestOf = [&](size_t u) -> const DigestText& { return candidate.bucket->units[u].digest; };
            std::stable_sort(units.begin(), units.end(), [&](size_t a, size_t b) { return digestOf(a) < digestOf(b); });
            for (size_t start = 0, end = 0; start < units.size(); start = end) {
                while (end < units.size() && digestOf(units[end]) == digestOf(units[start])) ++end;
                Candidate part{candidate.bucket, {units.begin() + static_cast<ptrdiff_t>(start),
                                                  units.begin() + static_cast<ptrdiff_t>(end)}};
                if (worthHashing(part)) result.push_back(std::move(part));
            }
        }
        return result;
    }

    DuplicateGroup makeGroup(Candidate& candidate) {
        auto& units = candidate.bucket->units;
        // A copy that cannot be replaced stands first, so it is the one kept; then the largest
        // family of clones, so the fewest blocks move.
        std::stable_sort(candidate.units.begin(), candidate.units.end(), [&](size_t a, size_t b) {
            const Unit& x = units[a];
            const Unit& y = units[b];
            if (x.replaceable != y.replaceable) return !x.replaceable;
            if (x.files.size() != y.files.size()) return x.files.size() > y.files.size();
            return file(x.files.front()).path < file(y.files.front()).path;
        });
        DuplicateGroup group;
        group.digest = units[candidate.units.front()].digest.str();
        for (size_t u : candidate.units) {
            for (size_t i : units[u].files) {
                if (taken_) {
                    group.files.push_back(std::move((*taken_)[pool_[i].index]));
                } else {
                    group.files.push_back(file(i));
                }
                group.files.back().clones = pool_[i].clones;
            }
        }
        // Only what a reclaim can do counts: a copy that cannot be replaced (another user's, in a
        // folder its user may not write) is shown, but frees nothing.
        Selection leftAlone;
        for (size_t u = 0, at = 0; u < candidate.units.size(); ++u) {
            const Unit& unit = units[candidate.units[u]];
            for (size_t k = 0; k < unit.files.size(); ++k, ++at) {
                if (!unit.replaceable) leftAlone.excluded.insert(group.files[at].path);
            }
        }
        group.reclaimableBytes = Report::reclaimableBytes({group}, leftAlone);
        return group;
    }

    const DuplicateFinder& finder_;
    const uint32_t user_ = platform::effectiveUser();  // asked once: the answer is the same for every file
    bool acrossVolumes_;
    const ProgressCallback& progress_;
    const CancelCallback& isCancelled_;
    int64_t filesSeen_;
    std::atomic<bool> cancelled_{false};
    // A file whose size another file shares, with the extent facts read for it.
    struct Member {
        uint32_t index;  // into the walk's files
        std::optional<CloneInfo> clones;
    };
    const std::vector<ScannedFile>* files_ = nullptr;

public:
    std::vector<ScannedFile>* taken_ = nullptr;  // the same files, to be moved into the groups

private:
    std::vector<Member> pool_;
    std::vector<Bucket> buckets_;
    // Asked by folder name for every file: looked up without making a string of it each time.
    struct NameHash {
        using is_transparent = void;
        size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>{}(name); }
    };
    std::unordered_map<std::string, bool, NameHash, std::equal_to<>> writableFolders_;
    std::unordered_map<uint64_t, bool> rotational_;
    Locked<int64_t> bytesRead_{0};
    std::mutex unreadableLock_;
    std::vector<std::string> unreadable_;
    static constexpr uint32_t filesPerReport = 16;
    std::atomic<uint32_t> readingCount_{0};
};

}  // namespace

DuplicateFinder::Grouping groupDuplicates(const DuplicateFinder& finder, const std::vector<ScannedFile>& files,
                                          bool acrossVolumes, const ProgressCallback& progress,
                                          const CancelCallback& isCancelled) {
    return Grouper(finder, acrossVolumes, progress, isCancelled, static_cast<int64_t>(files.size())).run(files);
}

DuplicateFinder::Grouping groupDuplicatesTaking(const DuplicateFinder& finder, std::vector<ScannedFile>& files,
                                                const ProgressCallback& progress, const CancelCallback& isCancelled) {
    Grouper grouper(finder, false, progress, isCancelled, static_cast<int64_t>(files.size()));
    grouper.taken_ = &files;
    return grouper.run(files);
}

}  // namespace dedup
