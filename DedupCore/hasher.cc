#include "hasher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "hash_cache.h"
#include "parallel.h"
#include "platform/file_io.h"

namespace dedup {

std::string digestText(const Digest& digest) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string text(64, '0');
    for (size_t i = 0; i < digest.size(); ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0xF];
    }
    return text;
}

namespace {

struct DigestContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

// SHA-256 as OpenSSL provides it, looked up once: left to EVP_DigestInit_ex, the lookup is made
// again for every digest and costs more than digesting a small file.
const EVP_MD* sha256Method() {
    static EVP_MD* const method = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return method ? method : EVP_sha256();
}

void startDigest(EVP_MD_CTX* context) {
    if (!context || EVP_DigestInit_ex(context, sha256Method(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available from OpenSSL");
    }
}

DigestContext newDigestContext() {
    DigestContext context(EVP_MD_CTX_new());
    startDigest(context.get());
    return context;
}

Digest finish(EVP_MD_CTX* context) {
    Digest digest{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context, digest.data(), &length);
    return digest;
}

// Each thread keeps its chunk buffers: memory stays at one or two chunks per worker however many
// files it reads.
std::span<std::byte> chunkBuffer() {
    thread_local std::unique_ptr<std::byte[]> buffer(new std::byte[ContentHash::chunkSize]);
    return {buffer.get(), ContentHash::chunkSize};
}
std::span<std::byte> secondChunkBuffer() {
    thread_local std::unique_ptr<std::byte[]> buffer(new std::byte[ContentHash::chunkSize]);
    return {buffer.get(), ContentHash::chunkSize};
}

// A short read is not the end of a file: fills the whole buffer unless the file ends first.
// `listedEnd`, when the file was listed as ending within the buffer, is where: the first read asks
// for one byte more, and getting exactly that many means it ended there, which spares the read
// that would return nothing. A byte more means it grew, and the buffer is filled as any other.
size_t fill(const platform::FileDescriptor& fd, const std::string& path, std::span<std::byte> buffer,
            int64_t listedEnd = -1) {
    size_t total = 0;
    if (listedEnd >= 0 && listedEnd < static_cast<int64_t>(buffer.size())) {
        const auto expected = static_cast<size_t>(listedEnd);
        total = platform::readSome(fd, path, buffer.first(expected + 1));
        if (total == expected || total == 0) return total;
    }
    while (total < buffer.size()) {
        size_t got = platform::readSome(fd, path, buffer.subspan(total));
        if (got == 0) break;
        total += got;
    }
    return total;
}

// What a turn of side-by-side reading does after the first 64 KiB, if it is asked to stop there.
struct PrefixStep {
    // Told each set of files (indices into the files) that agree in their first 64 KiB and go on
    // beyond them; false: read them no further, and give them no whole digest.
    const std::function<bool(const std::vector<size_t>&)>& goOn;
    std::vector<std::optional<std::string>>& prefixes;  // their prefix digests, at the files' indices
};

// One turn of Hasher::digestsSideBySide over files[i] for every i in `batch`. A run is a set of
// files whose bytes agreed so far and so share one digest state; its first file is read into one
// buffer, the others into a second one and compared with it. With a `prefix` step the first read
// stops at 64 KiB, where each run's state gives the prefix digest of all its files at once.
void digestSideBySide(const std::vector<const ScannedFile*>& files, const std::vector<size_t>& batch,
                      std::vector<std::optional<std::string>>& result, HashCache* cache, Locked<int64_t>& bytesRead,
                      const std::function<bool()>& isCancelled, int64_t readAhead, const PrefixStep* prefix,
                      const Hasher::WhileOpen* whileOpen = nullptr) {
    struct Member {
        size_t index;
        platform::FileDescriptor fd;
        int64_t read = 0;
    };
    struct Run {
        DigestContext context;
        std::vector<size_t> members;  // into `members` below
        bool ended = false;
        bool stopped = false;  // left at the prefix: its files get no whole digest
    };
    std::vector<Member> members;
    members.reserve(batch.size());
    for (size_t i : batch) {
        try {
            members.push_back({i, platform::openForReading(files[i]->path, files[i]->status.size)});
        } catch (const std::exception&) {
            // unreadable or gone: no digest, so it matches nothing
        }
    }
    // A deque, so that a run split off while another is being read leaves references intact.
    std::deque<Run> runs;
    runs.push_back({newDigestContext(), {}});
    for (size_t m = 0; m < members.size(); ++m) runs.front().members.push_back(m);
    auto first = chunkBuffer();
    auto other = secondChunkBuffer();
    // Many copies share what is asked ahead, so that a set of thirty copies of a film does not
    // ask the disk for a gigabyte at once; whole chunks, so the windows start where chunks do.
    constexpr int64_t aheadForAll = int64_t{64} << 20;
    constexpr auto chunk = static_cast<int64_t>(ContentHash::chunkSize);
    const int64_t window =
        std::min(readAhead, std::max(chunk, aheadForAll / std::max<int64_t>(std::ssize(members), 1) / chunk * chunk));
    int64_t askedUpTo = 0;  // where the next window is asked for
    auto path = [&](size_t m) -> const std::string& { return files[members[m].index]->path; };
    auto anyOpen = [&] { return std::any_of(runs.begin(), runs.end(), [](const Run& r) { return !r.ended; }); };

    for (int64_t offset = 0, step = 0; anyOpen(); offset += step) {
        if (isCancelled && isCancelled()) return;
        step = prefix && offset == 0 ? ContentHash::partialLimit : chunk;
        if (window > 0 && offset >= askedUpTo) {
            // Two windows ahead, so the next one is on its way while this one is digested.
            askedUpTo = offset + window;
            for (const auto& run : runs) {
                if (run.ended) continue;
                for (size_t m : run.members) {
                    // Asking for what is in memory already costs a walk over its pages: a file
                    // whose last byte asked for is there is taken to be there whole. A page the
                    // kernel dropped meanwhile is still read, by its own read-ahead.
                    int64_t end = std::min(offset + 2 * window, files[members[m].index]->status.size);
                    if (end <= offset || !platform::isInMemory(members[m].fd, end - 1)) {
                        platform::readAhead(members[m].fd, offset, 2 * window);
                    }
                }
            }
        }
        const auto wanted = static_cast<size_t>(step);
        // Where a file ends, if it was listed as ending within this step.
        auto listedEnd = [&](size_t m) { return files[members[m].index]->status.size - offset; };
        for (size_t r = 0, open = runs.size(); r < open; ++r) {
            Run& run = runs[r];
            if (run.ended) continue;
            // The first member that can still be read leads; one that fails drops out.
            std::optional<size_t> got;
            while (!got && !run.members.empty()) {
                try {
                    got = fill(members[run.members.front()].fd, path(run.members.front()), first.first(wanted),
                               listedEnd(run.members.front()));
                    members[run.members.front()].read += static_cast<int64_t>(*got);
                } catch (const std::exception&) {
                    run.members.erase(run.members.begin());
                }
            }
            if (!got) {
                run.ended = true;
                continue;
            }
            for (size_t k = 1; k < run.members.size();) {
                size_t m = run.members[k];
                size_t n = 0;
                try {
                    n = fill(members[m].fd, path(m), other.first(wanted), listedEnd(m));
                } catch (const std::exception&) {
                    run.members.erase(run.members.begin() + static_cast<ptrdiff_t>(k));
                    continue;
                }
                members[m].read += static_cast<int64_t>(n);
                if (n == *got && std::memcmp(first.data(), other.data(), n) == 0) {
                    ++k;
                    continue;
                }
                // Different from here on: it goes on alone, from the state of all the bytes before.
                Run split{DigestContext(EVP_MD_CTX_new()), {m}, n < wanted};
                if (!split.context || EVP_MD_CTX_copy_ex(split.context.get(), run.context.get()) != 1) {
                    throw std::runtime_error("SHA-256 state cannot be copied");
                }
                EVP_DigestUpdate(split.context.get(), other.data(), n);
                runs.push_back(std::move(split));
                run.members.erase(run.members.begin() + static_cast<ptrdiff_t>(k));
            }
            EVP_DigestUpdate(run.context.get(), first.data(), *got);
            run.ended = *got < wanted;
        }
        if (!prefix || offset != 0) continue;
        // The files that go on past 64 KiB: each run's state so far is their prefix digest. Files
        // that each differed from the first file but not from each other split off apart; having
        // the same digest, they join again here. A file of 64 KiB exactly is whole already, and
        // ends with the next read.
        std::map<std::string, size_t> runOfPrefix;
        for (size_t r = 0; r < runs.size(); ++r) {
            Run& run = runs[r];
            if (run.ended || run.members.empty()) continue;
            if (files[members[run.members.front()].index]->status.size <= ContentHash::partialLimit) continue;
            DigestContext copy(EVP_MD_CTX_new());
            if (!copy || EVP_MD_CTX_copy_ex(copy.get(), run.context.get()) != 1) {
                throw std::runtime_error("SHA-256 state cannot be copied");
            }
            auto [joined, isNew] = runOfPrefix.try_emplace(digestText(finish(copy.get())), r);
            if (isNew) continue;
            auto& into = runs[joined->second].members;
            into.insert(into.end(), run.members.begin(), run.members.end());
            run.members.clear();
            run.ended = true;
        }
        for (const auto& [text, r] : runOfPrefix) {
            Run& run = runs[r];
            std::vector<size_t> indices;
            for (size_t m : run.members) {
                const ScannedFile& file = *files[members[m].index];
                if (cache) cache->store(text, HashCache::Kind::partial, file);
                prefix->prefixes[members[m].index] = text;
                indices.push_back(members[m].index);
            }
            if (!prefix->goOn(indices)) run.ended = run.stopped = true;
        }
    }
    // Files that split apart and agree again (small ones, never joined at a prefix) have runs of
    // their own but one digest: the sets told to `whileOpen` are by digest.
    std::map<std::string, std::vector<size_t>> agreeing;
    for (auto& run : runs) {
        if (run.members.empty() || run.stopped) continue;
        std::string text = digestText(finish(run.context.get()));
        for (size_t m : run.members) {
            const ScannedFile& file = *files[members[m].index];
            if (cache) cache->store(text, HashCache::Kind::full, file);
            result[members[m].index] = text;
        }
        if (whileOpen && *whileOpen) {
            auto& set = agreeing[text];
            set.insert(set.end(), run.members.begin(), run.members.end());
        }
    }
    for (const auto& [text, set] : agreeing) {
        if (set.size() < 2) continue;
        std::vector<size_t> indices;
        std::vector<const platform::FileDescriptor*> open;
        for (size_t m : set) {
            indices.push_back(members[m].index);
            open.push_back(&members[m].fd);
        }
        (*whileOpen)(indices, open);
    }
    int64_t total = 0;
    for (const auto& member : members) total += member.read;
    bytesRead.with([&](int64_t& sum) { sum += total; });
}

// One digest per file from the cache, absent where it knows none; the indices of those go to
// `unread`, in order.
template <typename KindOf>
std::vector<std::optional<std::string>> askCacheFirst(const std::vector<const ScannedFile*>& files, HashCache* cache,
                                                      KindOf kindOf, std::vector<size_t>& unread) {
    std::vector<std::optional<std::string>> result;
    if (cache) {
        std::vector<HashCache::Lookup> lookups;
        lookups.reserve(files.size());
        for (const ScannedFile* file : files) lookups.push_back({kindOf(*file), file});
        result = cache->digests(lookups);
    } else {
        result.resize(files.size());
    }
    for (size_t i = 0; i < files.size(); ++i) {
        if (!result[i]) unread.push_back(i);
    }
    return result;
}

}  // namespace

Digest ContentHash::sha256(const std::string& path, int64_t limit) { return sha256(path, limit, -1); }

Digest ContentHash::sha256(const std::string& path, int64_t limit, int64_t listedSize) {
    platform::FileDescriptor fd = platform::openForReading(path, limit);
    // One context per thread, started afresh for every file.
    thread_local DigestContext context(EVP_MD_CTX_new());
    startDigest(context.get());
    auto buffer = chunkBuffer();
    // Each step filled as fill() fills it: a file listed as ending within a step is read there in
    // one call, and a step cut short is the file's end.
    for (int64_t offset = 0; offset < limit;) {
        const auto want = static_cast<size_t>(std::min<int64_t>(limit - offset, chunkSize));
        size_t got = fill(fd, path, buffer.first(want), listedSize < 0 ? -1 : listedSize - offset);
        EVP_DigestUpdate(context.get(), buffer.data(), got);
        offset += static_cast<int64_t>(got);
        if (got < want) break;
    }
    return finish(context.get());
}

std::vector<std::optional<std::string>> Hasher::digests(const std::vector<ScannedFile>& files, int64_t limit,
                                                        bool rotational, HashCache* cache,
                                                        Locked<int64_t>& bytesRead,
                                                        const std::function<void(const std::string&)>& reading,
                                                        const std::function<bool()>& isCancelled, int workers) {
    std::vector<const ScannedFile*> pointers;
    pointers.reserve(files.size());
    for (const auto& file : files) pointers.push_back(&file);
    return digests(pointers, limit, rotational, cache, bytesRead, reading, isCancelled, workers);
}

std::vector<std::optional<std::string>> Hasher::digests(const std::vector<const ScannedFile*>& files, int64_t limit,
                                                        bool rotational, HashCache* cache,
                                                        Locked<int64_t>& bytesRead,
                                                        const std::function<void(const std::string&)>& reading,
                                                        const std::function<bool()>& isCancelled, int workers) {
    auto kindOf = [limit](const ScannedFile& file) {
        return limit >= file.status.size ? HashCache::Kind::full : HashCache::Kind::partial;
    };
    // The cache answers for all files in one pass before any worker starts, so the workers neither
    // wait on each other for it nor read a file it knows.
    std::vector<size_t> unread;
    auto result = askCacheFirst(files, cache, kindOf, unread);
    // The cache takes one store at a time. Rather than wait on each other for it, the workers hand
    // what they made to this thread, which stores it while they go on reading.
    struct Made {
        std::mutex lock;
        std::condition_variable changed;
        std::vector<size_t> indices;
        bool all = false;
    } made;
    constexpr size_t storedTogether = 64;
    // Counted here and handed on now and then: every worker taking a lock per file would cost more
    // than the count is worth.
    std::atomic<int64_t> uncounted{0};
    constexpr int64_t countedEvery = 8 << 20;
    // Each index is written by exactly one worker, and the vector is not resized while they run,
    // so the entries need no lock of their own.
    auto work = [&](size_t k) {
        if (isCancelled && isCancelled()) return;
        size_t i = unread[k];
        const ScannedFile& file = *files[i];
        if (reading) reading(file.path);
        try {
            result[i] = digestText(ContentHash::sha256(file.path, limit, file.status.size));
        } catch (const std::exception&) {
            return;  // unreadable or gone: no digest, so it matches nothing
        }
        int64_t bytes = std::min(file.status.size, limit);
        if (uncounted.fetch_add(bytes) + bytes >= countedEvery) {
            bytesRead.with([&](int64_t& total) { total += uncounted.exchange(0); });
        }
        if (!cache) return;
        std::lock_guard lock(made.lock);
        made.indices.push_back(i);
        if (made.indices.size() == storedTogether) made.changed.notify_one();
    };
    size_t readers = limit <= ContentHash::partialLimit ? shortReadersFor(workers, rotational)
                                                         : workersFor(workers, rotational);
    if (!cache) {
        parallelFor(unread.size(), readers, work);
    } else {
        std::jthread hashing([&] {
            parallelFor(unread.size(), readers, work);
            std::lock_guard lock(made.lock);
            made.all = true;
            made.changed.notify_one();
        });
        std::vector<size_t> storing;
        for (bool last = false; !last;) {
            {
                std::unique_lock lock(made.lock);
                made.changed.wait(lock, [&] { return made.all || made.indices.size() >= storedTogether; });
                storing.swap(made.indices);
                last = made.all;
            }
            for (size_t i : storing) cache->store(*result[i], kindOf(*files[i]), *files[i]);
            storing.clear();
        }
    }
    bytesRead.with([&](int64_t& total) { total += uncounted.exchange(0); });
    return result;
}

std::vector<std::optional<std::string>> Hasher::digestsSideBySide(const std::vector<const ScannedFile*>& files,
                                                                  HashCache* cache, Locked<int64_t>& bytesRead,
                                                                  const std::function<void(const std::string&)>& reading,
                                                                  const std::function<bool()>& isCancelled,
                                                                  int64_t readAhead) {
    std::vector<size_t> unread;
    auto result = askCacheFirst(files, cache, [](const ScannedFile&) { return HashCache::Kind::full; }, unread);
    for (size_t start = 0; start < unread.size(); start += filesSideBySide) {
        if (isCancelled && isCancelled()) break;
        std::vector<size_t> batch(unread.begin() + static_cast<ptrdiff_t>(start),
                                  unread.begin() + static_cast<ptrdiff_t>(std::min(unread.size(), start + filesSideBySide)));
        if (reading) reading(files[batch.front()]->path);
        try {
            digestSideBySide(files, batch, result, cache, bytesRead, isCancelled, readAhead, nullptr);
        } catch (const std::exception&) {
            // No digest state to be had: these files stay without a digest and match nothing.
        }
    }
    return result;
}

std::vector<std::optional<std::string>> Hasher::digestsFromStart(
    const std::vector<const ScannedFile*>& files, HashCache* cache, Locked<int64_t>& bytesRead,
    const std::function<bool()>& isCancelled, int64_t readAhead,
    const std::function<bool(const std::vector<size_t>&)>& goOn, std::vector<std::optional<std::string>>& prefixes,
    const WhileOpen& whileOpen) {
    if (files.size() > filesSideBySide) throw std::invalid_argument("more files than are read side by side");
    std::vector<std::optional<std::string>> result(files.size());
    prefixes.assign(files.size(), std::nullopt);
    std::vector<size_t> all(files.size());
    for (size_t i = 0; i < files.size(); ++i) all[i] = i;
    PrefixStep step{goOn, prefixes};
    try {
        digestSideBySide(files, all, result, cache, bytesRead, isCancelled, readAhead, &step, &whileOpen);
    } catch (const std::exception&) {
        // No digest state to be had: these files stay without a digest and match nothing.
    }
    return result;
}

bool sameContent(const std::string& a, const std::string& b) {
    platform::FileDescriptor fa = platform::openForReading(a);
    platform::FileDescriptor fb = platform::openForReading(b);
    auto bufferA = chunkBuffer();
    auto bufferB = secondChunkBuffer();
    for (;;) {
        // Each chunk filled fully, so the two line up.
        size_t na = fill(fa, a, bufferA);
        size_t nb = fill(fb, b, bufferB);
        if (na != nb || std::memcmp(bufferA.data(), bufferB.data(), na) != 0) return false;
        if (na == 0) return true;
    }
}

}  // namespace dedup
