#include "duplicate_finder.h"

#include <atomic>
#include <thread>

#include <nlohmann/json.hpp>

#include "duplicate_grouper.h"
#include "hash_cache.h"
#include "path_text.h"
#include "walk.h"

namespace dedup {

DuplicateFinder::Grouping DuplicateFinder::groups(const std::vector<ScannedFile>& files, bool acrossVolumes,
                                                  const ProgressCallback& progress,
                                                  const CancelCallback& isCancelled) const {
    return groupDuplicates(*this, files, acrossVolumes, progress, isCancelled);
}

ScanResult DuplicateFinder::scan(const std::vector<std::string>& roots, const ProgressCallback& progress,
                                 const CancelCallback& isCancelled) const {
    // Remembers a cancellation seen anywhere, including during the walk, which returns quietly.
    std::atomic<bool> stopped{false};
    CancelCallback latch = [&] {
        if (!stopped && isCancelled && isCancelled()) stopped = true;
        return stopped.load();
    };
    // From a cold cache the database is read while the walk waits on the folders.
    std::jthread readingAhead;
    if (cache) readingAhead = std::jthread([this](std::stop_token stop) { cache->readAhead(stop); });
    Walk walk(options);
    walk.progress = progress;
    walk.isCancelled = latch;
    for (const auto& root : roots) walk.visit(root);
    // What the walk kept to meet each folder and file once is of no use to the grouping, which
    // needs the memory more.
    walk.inodes = {};
    walk.folders = {};
    // The list grew by doubling; a third of it may stand empty through the whole grouping.
    walk.files.shrink_to_fit();

    // The groups take their files from the walk's list instead of copying them. What stays behind
    // serves only the pruning, which needs no path of a file whose disk the cache met in this scan.
    Grouping grouping = groupDuplicatesTaking(*this, walk.files, progress, latch);
    ScanResult result;
    result.groups = std::move(grouping.groups);
    result.filesSeen = static_cast<int64_t>(walk.files.size());
    result.bytesRead = grouping.bytesRead;
    result.unreadableFolders = std::move(walk.unreadable);
    result.unreadableFiles = std::move(grouping.unreadableFiles);
    result.leftovers = std::move(walk.leftovers);
    result.cancelled = grouping.cancelled || stopped;
    if (cache) {
        // A partial scan did not see every file: pruning after it would drop good records.
        if (!result.cancelled) cache->prune(roots, walk.files);
        cache->flush();
    }
    return result;
}

void to_json(nlohmann::json& j, const DuplicateGroup& g) {
    j = {{"digest", g.digest}, {"files", g.files}, {"reclaimableBytes", g.reclaimableBytes}};
}
void from_json(const nlohmann::json& j, DuplicateGroup& g) {
    j.at("digest").get_to(g.digest);
    j.at("files").get_to(g.files);
    j.at("reclaimableBytes").get_to(g.reclaimableBytes);
}

void to_json(nlohmann::json& j, const ScanResult& r) {
    j = {{"groups", r.groups},
         {"filesSeen", r.filesSeen},
         {"bytesRead", r.bytesRead},
         {"unreadableFolders", pathTexts(r.unreadableFolders)},
         {"unreadableFiles", pathTexts(r.unreadableFiles)},
         {"leftovers", pathTexts(r.leftovers)},
         {"cancelled", r.cancelled}};
}
void from_json(const nlohmann::json& j, ScanResult& r) {
    j.at("groups").get_to(r.groups);
    j.at("filesSeen").get_to(r.filesSeen);
    j.at("bytesRead").get_to(r.bytesRead);
    r.unreadableFolders = pathsFromTexts(j.at("unreadableFolders").get<std::vector<std::string>>());
    r.leftovers = pathsFromTexts(j.at("leftovers").get<std::vector<std::string>>());
    r.unreadableFiles.clear();
    if (auto it = j.find("unreadableFiles"); it != j.end()) r.unreadableFiles = pathsFromTexts(it->get<std::vector<std::string>>());
    j.at("cancelled").get_to(r.cancelled);
}

}  // namespace dedup
