// SHA-256 digests of file contents, of a prefix or of the whole file, for many files at once, with
// the digest cache in front of the disk; and the byte-for-byte comparison that is the last proof of
// identical content before a copy is replaced.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "file_records.h"
#include "locked.h"

namespace dedup {

class HashCache;

using Digest = std::array<unsigned char, 32>;

// 64 lower-case hexadecimal characters: the digest's text everywhere (groups, cache, journal, CSV).
std::string digestText(const Digest& digest);

namespace ContentHash {
inline constexpr size_t chunkSize = 256 << 10;
inline constexpr int64_t partialLimit = 65536;
inline constexpr int64_t fullLimit = std::numeric_limits<int64_t>::max();

// The digest of the first `limit` bytes (all of a shorter file). Throws SystemError.
Digest sha256(const std::string& path, int64_t limit);
// The same for a file listed with `listedSize` bytes: a file below the limit is read in one call
// when it still has that size. One that grew or shrank since is read to its end as any other.
Digest sha256(const std::string& path, int64_t limit, int64_t listedSize);
}  // namespace ContentHash

namespace Hasher {
// Files read side by side hold one descriptor each; beyond this many they are taken in turns.
inline constexpr size_t filesSideBySide = 32;

// One optional digest text per file, at the same index; absent when the file could not be read or
// cancellation came first. Never throws. Solid-state volumes are read by `workers` threads (0: one
// per core); rotational ones by one thread in list order, unless `workers` says otherwise.
// `reading` and `isCancelled` are called from worker threads.
std::vector<std::optional<std::string>> digests(const std::vector<ScannedFile>& files, int64_t limit,
                                                bool rotational, HashCache* cache, Locked<int64_t>& bytesRead,
                                                const std::function<void(const std::string&)>& reading,
                                                const std::function<bool()>& isCancelled, int workers = 0);
// The same for files held elsewhere, so a caller need not copy them.
std::vector<std::optional<std::string>> digests(const std::vector<const ScannedFile*>& files, int64_t limit,
                                                bool rotational, HashCache* cache, Locked<int64_t>& bytesRead,
                                                const std::function<void(const std::string&)>& reading,
                                                const std::function<bool()>& isCancelled, int workers = 0);

// Whole-file digests of files of one size that are likely equal (their prefixes agree), at the
// price of about one digest however many copies there are: the files are read side by side, chunk
// by chunk, and while a file's bytes equal the first file's so far it shares that file's digest
// state; a file that differs takes a copy of the state up to there and goes on alone. Each file is
// still read exactly once, so every one gets its own digest, cached like any other. Runs on the
// caller's thread; absent entries as for digests(). `readAhead` bytes of each file are asked of the
// disk ahead of the reading (0: none).
std::vector<std::optional<std::string>> digestsSideBySide(const std::vector<const ScannedFile*>& files,
                                                          HashCache* cache, Locked<int64_t>& bytesRead,
                                                          const std::function<void(const std::string&)>& reading,
                                                          const std::function<bool()>& isCancelled,
                                                          int64_t readAhead = 0);

// Reads at most `filesSideBySide` files of one size side by side from their start, none asked of
// the cache: each file is read once for both its digests, and each set of files that agree is
// digested once. The first 64 KiB are read first; the prefix digest of every file that goes on
// beyond them is cached and set in `prefixes`, and `goOn` is asked of each set of such files that
// agree so far (their indices): it ends the reading of sets that can no longer interest the
// caller, which get no whole digest. Absent entries as for digests(); more files than
// `filesSideBySide` throw std::invalid_argument. `whileOpen`, if set, is told each set of two or
// more files read to their end that agree throughout, with their descriptors at the same
// positions, before they are closed: what else the caller wants of them needs no open of its own.
using WhileOpen = std::function<void(const std::vector<size_t>& agree,
                                     const std::vector<const platform::FileDescriptor*>& open)>;
std::vector<std::optional<std::string>> digestsFromStart(const std::vector<const ScannedFile*>& files,
                                                         HashCache* cache, Locked<int64_t>& bytesRead,
                                                         const std::function<bool()>& isCancelled, int64_t readAhead,
                                                         const std::function<bool(const std::vector<size_t>&)>& goOn,
                                                         std::vector<std::optional<std::string>>& prefixes,
                                                         const WhileOpen& whileOpen = {});
}  // namespace Hasher

// Compares two files chunk by chunk. Throws SystemError when one cannot be opened or read.
bool sameContent(const std::string& a, const std::string& b);

}  // namespace dedup
