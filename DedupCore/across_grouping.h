// The grouping behind the search across disks: identical files that lie on two or more volumes,
// found with the scan's digests (and its digest cache), in steps from the cheapest: sizes met on
// another volume; a 64 KiB prefix digest, which is the whole digest of a smaller file; the whole
// files of what still meets a file on another volume, read side by side.
//
// Unlike the scan's grouping, a set of copies on one volume alone is never read further: no copy
// there is a copy across disks. Every volume is read by a reader of its own, all at once, each as
// its disk is read fastest (one file at a time on a spinning disk).
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
    std::vector<uint32_t> members;  // indices into the files, in inode order per volume
};

struct AcrossSets {
    std::vector<AcrossSet> sets;  // each on two or more volumes
    int64_t bytesRead = 0;
};

struct AcrossReading {
    HashCache* cache = nullptr;  // optional; not owned
    int threads = 0;             // files read at once on each volume; 0: by its disk
};

// Groups the `wanted` files (indices into `files`) by content. `volumes[i]` is the volume of
// files[i]. The extent facts of every member of a set are filled in (`files[i].clones`), from the
// cache where it knows them, so that what removing a copy frees can be told.
AcrossSets groupAcross(std::vector<ScannedFile>& files, const std::vector<uint32_t>& volumes,
                       const std::vector<uint32_t>& wanted, const AcrossReading& reading,
                       const ProgressCallback& progress, const CancelCallback& isCancelled);

}  // namespace dedup
