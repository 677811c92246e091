// The grouping behind the search across disks: identical files that lie on two or more volumes,
// found with the scan's digests (and its digest cache), in steps from the cheapest: sizes met on
// another volume; a 64 KiB prefix digest, which is the whole digest of a smaller file; the whole
// files of what still meets a file on another volume, read side by side.
//
// Unlike the scan's grouping, a set of copies on one volume alone is never read further: no copy
// there is a copy across disks. Every disk is read by a reader of its own, all at once, each as it
// is read fastest: one file at a time on a spinning disk (whose volumes share that one reader),
// several on solid state.
//
// A plain call on the caller's thread; reading runs on worker threads, so `progress` and
// `isCancelled` must be safe to call from any thread. Never throws: an unreadable file matches
// nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "duplicate_finder.h"

namespace dedup {

class HashCache;

struct AcrossSet {
    std::string digest;
    std::vector<uint32_t> members;  // indices into the files, in the order they were given
    int64_t freedBytes = 0;         // the most that removing one copy frees on its disk
};

struct AcrossSets {
    std::vector<AcrossSet> sets;  // each on two or more volumes
    int64_t bytesRead = 0;
    // Per file: its extent facts were not read, because another copy of the set already frees
    // all its size, which no copy can top. Such a file counts its whole size until they are.
    std::vector<char> blocksLeft;
};

struct AcrossReading {
    HashCache* cache = nullptr;  // optional; not owned
    int threads = 0;             // files read at once on each volume; 0: by its disk
};

// Groups the `wanted` files (indices into `files`) by content. `volumes[i]` is the volume of
// files[i]. The extent facts of the members of a set (`files[i].clones`) are read, from the cache
// where it knows them, one copy after the other until one frees all its size.
AcrossSets groupAcross(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes,
                       const std::vector<uint32_t>& wanted, const AcrossReading& reading,
                       const ProgressCallback& progress, const CancelCallback& isCancelled);

// Reads the extent facts of the files `which` (from the cache where it knows them), each volume by
// readers of its own. A file that cannot be read keeps none: it counts its whole size.
void readAcrossBlocks(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes,
                      const std::vector<uint32_t>& which, const AcrossReading& reading,
                      const CancelCallback& isCancelled);

}  // namespace dedup
