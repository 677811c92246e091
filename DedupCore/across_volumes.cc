#include "across_volumes.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

#include "across_grouping.h"
#include "folder_prefetch.h"
#include "hasher.h"
#include "parallel.h"
#include "path_names.h"
#include "path_text.h"
#include "platform/system.h"
#include "platform/trash.h"
#include "temporary_name.h"
#include "tree_digest.h"
#include "walk.h"

namespace dedup {

namespace {

constexpr uint32_t none = UINT32_MAX;

// One entry of a folder as the walk found it.
struct Entry {
    std::string name;
    TreeItem::Kind kind = TreeItem::Kind::other;
    uint32_t index = none;  // file: into files; folder: into folders
    std::string linkTarget;
};

struct Folder {
    std::string path;
    uint32_t parent = none;
    uint32_t volume = 0;
    bool complete = true;  // every entry was read and none is another disk's mount point
    std::vector<Entry> entries;
    uint64_t shape = 0;
    bool candidate = false;  // its shape has a twin on another volume
    std::string digest;
    int64_t bytes = 0, fileCount = 0, freed = 0;
    bool blocksLeft = false;  // some file below counts its whole size, its extent facts unread
};

// 64-bit mixing for the shape: only a filter, so a collision costs reading, never a wrong answer.
uint64_t mix(uint64_t h, uint64_t v) {
    h ^= v + 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2);
    return h * 0xFF51AFD7ED558CCDull;
}
uint64_t mixText(uint64_t h, const std::string& text) {
    h = mix(h, std::hash<std::string>{}(text));
    return mix(h, text.size());
}

std::string childPath(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

// One search: owns what the walk found. Runs on the caller's thread but for the readers of the
// walk, one per disk, which work on what is their own until merged.
class Search {
public:
    Search(const AcrossOptions& options, const ProgressCallback& progress, const CancelCallback& isCancelled)
        : options_(options), progress_(progress), isCancelled_(isCancelled) {}

    AcrossResult run(const std::vector<std::string>& roots) {
        walkDisks(roots);
        if (options_.folders) shapeFolders();
        groupFiles();
        if (options_.folders) digestFolders();
        if (options_.folders && !cancelled()) nearFolders();
        return finish();
    }

private:
    bool cancelled() {
        if (!cancelled_ && isCancelled_ && isCancelled_()) cancelled_ = true;
        return cancelled_.load();
    }

    uint32_t volumeIndex(uint64_t device, const std::string& path) {
        auto [it, isNew] = deviceVolumes_.try_emplace(device, 0);
        if (isNew) {
            std::string name = AcrossVolumes::volumeOf(path, device);
            auto found = std::find(volumeNames_.begin(), volumeNames_.end(), name);
            it->second = static_cast<uint32_t>(found - volumeNames_.begin());
            if (found == volumeNames_.end()) volumeNames_.push_back(name);
        }
        return it->second;
    }

    // What one reader found on one disk; indices are its own until merged.
    struct Partial {
        std::vector<ScannedFile> files;
        std::vector<Folder> folders;
        std::vector<uint64_t> folderDevices;
        std::unordered_map<InodeKey, uint32_t, InodeKeyHash> inodes;
        std::vector<std::string> unreadable;

        // Takes the path only for a file not met before (another name of a hard-linked file is not).
        uint32_t fileIndex(std::string&& path, const FileStatus& status) {
            auto [it, isNew] = inodes.try_emplace(InodeKey{status.device, status.inode}, 0);
            if (isNew) {
                it->second = static_cast<uint32_t>(files.size());
                files.push_back({std::move(path), status, std::nullopt});
            }
            return it->second;
        }
        uint32_t addFolder(std::string path, uint32_t parent, uint64_t device) {
            Folder folder;
            folder.path = std::move(path);
            folder.parent = parent;
            folders.push_back(std::move(folder));
            folderDevices.push_back(device);
            return static_cast<uint32_t>(folders.size() - 1);
        }
    };

    // One reader per disk, all at once: a USB disk and the internal one are listed side by side.
    // Roots on one device go to one reader, in the order given, so a file reachable from two of
    // them is taken once.
    void walkDisks(const std::vector<std::string>& roots) {
        std::vector<uint64_t> devices;
        std::vector<std::vector<std::string>> rootsByDisk;
        for (const auto& root : roots) {
            uint64_t device = UINT64_MAX;
            try {
                device = FileStatus::read(root).device;
            } catch (const SystemError&) {
            }
            auto found = std::find(devices.begin(), devices.end(), device);
            if (found == devices.end()) {
                devices.push_back(device);
                rootsByDisk.emplace_back();
                found = devices.end() - 1;
            }
            rootsByDisk[static_cast<size_t>(found - devices.begin())].push_back(root);
        }
        std::vector<Partial> partials(rootsByDisk.size());
        {
            std::vector<std::jthread> readers;
            for (size_t d = 0; d < rootsByDisk.size(); ++d) {
                readers.emplace_back([this, &partials, &rootsByDisk, d] {
                    for (const auto& root : rootsByDisk[d]) {
                        if (cancelled()) break;
                        walkRoot(root, partials[d]);
                    }
                });
            }
        }
        size_t total = files_.size();
        for (const auto& partial : partials) total += partial.files.size();
        files_.reserve(total);
        fileVolumes_.reserve(total);
        for (auto& partial : partials) merge(partial);
    }

    void merge(Partial& partial) {
        auto fileBase = static_cast<uint32_t>(files_.size());
        auto folderBase = static_cast<uint32_t>(folders_.size());
        for (auto& file : partial.files) {
            fileVolumes_.push_back(volumeIndex(file.status.device, file.path));
            files_.push_back(std::move(file));
        }
        for (size_t i = 0; i < partial.folders.size(); ++i) {
            Folder& folder = partial.folders[i];
            folder.volume = volumeIndex(partial.folderDevices[i], folder.path);
            if (folder.parent != none) folder.parent += folderBase;
            for (auto& entry : folder.entries) {
                if (entry.kind == TreeItem::Kind::file) entry.index += fileBase;
                if (entry.kind == TreeItem::Kind::folder) entry.index += folderBase;
            }
            folders_.push_back(std::move(folder));
        }
        unreadable_.insert(unreadable_.end(), partial.unreadable.begin(), partial.unreadable.end());
    }

    // Runs on a reader thread: touches only `partial` and what never changes during the walk.
    void walkRoot(const std::string& root, Partial& partial) {
        FileStatus status;
        try {
            status = FileStatus::read(root);
        } catch (const SystemError&) {
            partial.unreadable.push_back(root);
            return;
        }
        if (status.isRegularFile()) {
            partial.fileIndex(std::string(root), status);
            return;
        }
        if (!status.isDirectory()) return;
        FolderPrefetch prefetch(2, 32);
        std::vector<uint32_t> stack{partial.addFolder(root, none, status.device)};
        while (!stack.empty()) {
            if (cancelled()) return;
            uint32_t current = stack.back();
            stack.pop_back();
            std::string path = partial.folders[current].path;
            if (progress_) {
                progress_(ScanProgress{ScanProgress::Phase::walking, static_cast<int64_t>(partial.files.size()), 0, path});
            }
            std::vector<DirectoryEntry> listing;
            try {
                listing = prefetch.take(path);
            } catch (const SystemError&) {
                partial.unreadable.push_back(path);
                partial.folders[current].complete = false;
                continue;
            }
            std::optional<bool> atVolumeRoot;
            for (auto& item : listing) {
                if (isTemporaryName(item.name) || item.name.starts_with(temporaryMarker)) continue;
                std::string child = childPath(path, item.name);
                Entry entry{std::move(item.name), TreeItem::Kind::other, none, {}};
                if (item.status.isDirectory()) {
                    if (!atVolumeRoot) atVolumeRoot = Walk::isVolumeRoot(path);
                    // The disk's own Trash and system folders belong to no copy of anything.
                    if (*atVolumeRoot && Walk::isVolumeSystemFolder(entry.name)) continue;
                    if (child == homeTrash_) continue;
                    if (item.status.device != status.device) {
                        // Another disk mounted inside: this tree cannot be compared whole.
                        partial.folders[current].complete = false;
                        continue;
                    }
                    entry.kind = TreeItem::Kind::folder;
                    prefetch.request(child);
                    entry.index = partial.addFolder(std::move(child), current, status.device);
                    stack.push_back(entry.index);
                } else if (item.status.isRegularFile()) {
                    entry.kind = TreeItem::Kind::file;
                    entry.index = partial.fileIndex(std::move(child), item.status);
                } else if (item.status.isSymbolicLink()) {
                    entry.kind = TreeItem::Kind::link;
                    entry.linkTarget = platform::readLink(child);
                }
                partial.folders[current].entries.push_back(std::move(entry));
            }
        }
    }

    // A folder's shape from names, kinds, sizes and link targets, bottom-up: a subfolder always
    // comes after its parent in the list. Folders whose shape meets one on another volume are
    // candidates, and so are all the folders inside them.
    void shapeFolders() {
        for (size_t i = folders_.size(); i-- > 0;) {
            Folder& folder = folders_[i];
            std::vector<uint64_t> items;
            bool complete = folder.complete;
            for (const auto& entry : folder.entries) {
                uint64_t h = mix(mixText(0, entry.name), static_cast<uint64_t>(entry.kind));
                if (entry.kind == TreeItem::Kind::file) h = mix(h, static_cast<uint64_t>(files_[entry.index].status.size));
                if (entry.kind == TreeItem::Kind::link) h = mixText(h, entry.linkTarget);
                if (entry.kind == TreeItem::Kind::folder) {
                    h = mix(h, folders_[entry.index].shape);
                    complete = complete && folders_[entry.index].complete;
                }
                items.push_back(h);
            }
            folder.complete = complete;
            std::sort(items.begin(), items.end());
            uint64_t shape = mix(0x5EED, items.size());
            for (uint64_t h : items) shape = mix(shape, h);
            folder.shape = shape;
        }
        std::unordered_map<uint64_t, std::set<uint32_t>> volumesByShape;
        for (const auto& folder : folders_) {
            if (folder.complete) volumesByShape[folder.shape].insert(folder.volume);
        }
        inTree_.assign(files_.size(), false);
        for (auto& folder : folders_) {
            folder.candidate = folder.complete && volumesByShape[folder.shape].size() >= 2;
            if (!folder.candidate) continue;
            for (const auto& entry : folder.entries) {
                if (entry.kind == TreeItem::Kind::file) inTree_[entry.index] = true;
            }
        }
    }

    // Files worth a group (large enough), and every file of a candidate tree whatever its size,
    // are grouped by content; only sets on two or more volumes come back.
    void groupFiles() {
        int64_t smallest = std::max<int64_t>(1, options_.minimumSize);
        std::vector<uint32_t> wanted;
        for (uint32_t i = 0; i < files_.size(); ++i) {
            if (files_[i].status.size >= smallest || (!inTree_.empty() && inTree_[i])) wanted.push_back(i);
        }
        inTree_ = {};
        AcrossReading reading{options_.cache, options_.threads};
        AcrossSets found = groupAcross(files_, fileVolumes_, wanted, reading, progress_, [this] { return cancelled(); });
        bytesRead_ = found.bytesRead;
        blocksLeft_ = std::move(found.blocksLeft);
        setOf_.assign(files_.size(), none);
        for (auto& set : found.sets) {
            auto index = static_cast<uint32_t>(setDigests_.size());
            for (uint32_t i : set.members) setOf_[i] = index;
            setDigests_.push_back(std::move(set.digest));
            if (files_[set.members.front()].status.size < smallest) continue;
            FileGroup group{index, std::move(set.members), set.freedBytes};
            std::sort(group.members.begin(), group.members.end(),
                      [&](uint32_t a, uint32_t b) { return files_[a].path < files_[b].path; });
            fileGroups_.push_back(std::move(group));
        }
    }

    // The content digest of a file, empty when no copy of it lies on another volume.
    const std::string& digestOf(uint32_t file) const {
        static const std::string none_;
        return setOf_.empty() || setOf_[file] == none ? none_ : setDigests_[setOf_[file]];
    }

    // Tree digests of the candidate folders, bottom-up; a file no other file matched gets no
    // digest, and a folder holding one cannot be identical to anything.
    void digestFolders() {
        for (size_t i = folders_.size(); i-- > 0;) {
            Folder& folder = folders_[i];
            if (!folder.candidate) continue;
            std::vector<TreeItem> items;
            items.reserve(folder.entries.size());
            bool matchable = true;
            // Two names of one file in a folder count its bytes once.
            std::vector<uint32_t> ownFiles;
            for (const auto& entry : folder.entries) {
                TreeItem item{entry.kind, entry.name, {}};
                if (entry.kind == TreeItem::Kind::file) {
                    item.payload = digestOf(entry.index);
                    if (item.payload.empty()) matchable = false;
                    ownFiles.push_back(entry.index);
                    folder.fileCount += 1;
                } else if (entry.kind == TreeItem::Kind::folder) {
                    const Folder& sub = folders_[entry.index];
                    item.payload = sub.digest;
                    if (item.payload.empty()) matchable = false;
                    folder.bytes += sub.bytes;
                    folder.freed += sub.freed;
                    folder.blocksLeft = folder.blocksLeft || sub.blocksLeft;
                    folder.fileCount += sub.fileCount;
                } else if (entry.kind == TreeItem::Kind::link) {
                    item.payload = entry.linkTarget;
                }
                items.push_back(std::move(item));
            }
            std::sort(ownFiles.begin(), ownFiles.end());
            ownFiles.erase(std::unique(ownFiles.begin(), ownFiles.end()), ownFiles.end());
            for (uint32_t i : ownFiles) {
                folder.bytes += files_[i].status.size;
                folder.freed += AcrossVolumes::freedByRemoving(files_[i]);
                folder.blocksLeft = folder.blocksLeft || blocksLeft_[i];
            }
            if (matchable) folder.digest = treeDigest(std::move(items));
        }
        std::map<std::string, std::vector<uint32_t>> byDigest;
        for (uint32_t i = 0; i < folders_.size(); ++i) {
            if (!folders_[i].digest.empty()) byDigest[folders_[i].digest].push_back(i);
        }
        // A folder whose parent is itself identical to a folder on another volume is reported
        // with its parent, not again on its own.
        identical_.assign(folders_.size(), 0);
        auto& identical = identical_;
        for (const auto& [digest, members] : byDigest) {
            if (spansVolumes(members)) {
                for (uint32_t i : members) identical[i] = 1;
            }
        }
        int64_t smallest = std::max<int64_t>(1, options_.minimumSize);
        std::vector<std::pair<const std::string*, std::vector<uint32_t>*>> reportedCopies;
        for (auto& [digest, members] : byDigest) {
            if (!spansVolumes(members)) continue;
            bool allCovered = std::all_of(members.begin(), members.end(), [&](uint32_t i) {
                return folders_[i].parent != none && identical[folders_[i].parent];
            });
            if (allCovered || folders_[members.front()].bytes < smallest) continue;
            std::sort(members.begin(), members.end(), [&](uint32_t a, uint32_t b) { return folders_[a].path < folders_[b].path; });
            reportedCopies.emplace_back(&digest, &members);
        }
        settleFreed(reportedCopies);
        for (const auto& [digest, copies] : reportedCopies) {
            const auto& members = *copies;
            AcrossTreeGroup group;
            group.digest = *digest;
            group.bytes = folders_[members.front()].bytes;
            group.fileCount = folders_[members.front()].fileCount;
            for (uint32_t i : members) {
                group.folders.push_back(folders_[i].path);
                group.volumes.push_back(volumeNames_[folders_[i].volume]);
                group.freedBytes = std::max(group.freedBytes, folders_[i].freed);
            }
            treeGroups_.push_back(std::move(group));
        }
        // Files inside the reported trees are already said; a group is left out when all its
        // copies are among them.
        // Looked up by each folder above a file, not by trying every reported tree against it: a
        // search finds thousands of trees and tens of thousands of file groups.
        std::unordered_set<std::string_view> reported;
        for (const auto& group : treeGroups_) reported.insert(group.folders.begin(), group.folders.end());
        auto insideReported = [&](const std::string& path) {
            std::string_view above(path);
            while (!above.empty()) {
                size_t slash = above.rfind('/');
                if (slash == std::string_view::npos) return false;
                above = slash == 0 ? std::string_view("/") : above.substr(0, slash);
                if (reported.contains(above)) return true;
                if (slash == 0) return false;
            }
            return false;
        };
        std::erase_if(fileGroups_, [&](const FileGroup& group) {
            return std::all_of(group.members.begin(), group.members.end(),
                               [&](uint32_t i) { return insideReported(files_[i].path); });
        });
    }

    // Makes what each copy of the reported trees frees exact where it matters. A tree of which one
    // copy's files were all looked at and free all their size frees the most any copy can; for the
    // other trees the files left unread below their copies are read now (all in one go), and what
    // each copy frees is counted again.
    void settleFreed(const std::vector<std::pair<const std::string*, std::vector<uint32_t>*>>& trees) {
        std::vector<const std::vector<uint32_t>*> unsettled;
        std::vector<uint32_t> unread;
        for (const auto& [digest, copies] : trees) {
            bool settled = std::any_of(copies->begin(), copies->end(), [&](uint32_t i) {
                return !folders_[i].blocksLeft && folders_[i].freed >= folders_[i].bytes;
            });
            if (settled) continue;
            unsettled.push_back(copies);
            for (uint32_t i : *copies) {
                if (folders_[i].blocksLeft) eachFileBelow(i, [&](uint32_t f) {
                    if (blocksLeft_[f]) unread.push_back(f);
                });
            }
        }
        if (unread.empty()) return;
        // A file below two reported trees (one inside the other on one disk) is read once.
        std::sort(unread.begin(), unread.end());
        unread.erase(std::unique(unread.begin(), unread.end()), unread.end());
        readAcrossBlocks(files_, fileVolumes_, unread, AcrossReading{options_.cache, options_.threads},
                         [this] { return cancelled(); });
        for (uint32_t f : unread) blocksLeft_[f] = 0;
        for (const auto* copies : unsettled) {
            for (uint32_t i : *copies) folders_[i].freed = freedBelow(i);
        }
    }

    template <typename Visit>
    void eachFileBelow(uint32_t folder, Visit visit) const {
        for (const auto& entry : folders_[folder].entries) {
            if (entry.kind == TreeItem::Kind::file) visit(entry.index);
            if (entry.kind == TreeItem::Kind::folder) eachFileBelow(entry.index, visit);
        }
    }

    // What removing this folder frees, counted afresh: each file once per folder, as the digests
    // count it.
    int64_t freedBelow(uint32_t folder) {
        int64_t total = 0;
        std::set<uint32_t> ownFiles;
        for (const auto& entry : folders_[folder].entries) {
            if (entry.kind == TreeItem::Kind::file && ownFiles.insert(entry.index).second) {
                total += AcrossVolumes::freedByRemoving(files_[entry.index]);
            }
            if (entry.kind == TreeItem::Kind::folder) total += folders_[entry.index].freed = freedBelow(entry.index);
        }
        return total;
    }

    // The path of every file below a folder, relative to the folder the comparison started from.
    void filesBelow(uint32_t folder, const std::string& prefix, std::vector<std::string>& out) const {
        for (const auto& entry : folders_[folder].entries) {
            std::string rel = prefix.empty() ? entry.name : prefix + "/" + entry.name;
            if (entry.kind == TreeItem::Kind::file) out.push_back(std::move(rel));
            if (entry.kind == TreeItem::Kind::folder) filesBelow(entry.index, rel, out);
        }
    }

    // Compares the files below two folders by their paths relative to them, walking both trees
    // side by side: an entry is looked up by its name in the other folder, so that only the paths
    // of what differs are spelled out (two copies of a large tree hold hundreds of thousands).
    void compareBelow(uint32_t a, uint32_t b, const std::string& prefix, AcrossNearGroup& near) {
        auto counts = [](const Entry& e) { return e.kind == TreeItem::Kind::file || e.kind == TreeItem::Kind::folder; };
        auto byName = [&](uint32_t folder) {
            std::unordered_map<std::string_view, const Entry*> names;
            for (const auto& entry : folders_[folder].entries) {
                if (counts(entry)) names.emplace(entry.name, &entry);
            }
            return names;
        };
        const auto inA = byName(a), inB = byName(b);
        auto rel = [&](const std::string& name) { return prefix.empty() ? name : prefix + "/" + name; };
        // What one side alone holds under a name: the file, or every file below the folder.
        auto alone = [&](const Entry& entry, std::vector<std::string>& out) {
            if (entry.kind == TreeItem::Kind::file) out.push_back(rel(entry.name));
            if (entry.kind == TreeItem::Kind::folder) filesBelow(entry.index, rel(entry.name), out);
        };
        for (const auto& [name, entry] : inA) {
            auto found = inB.find(name);
            if (found == inB.end()) {
                alone(*entry, near.onlyInFirst);
                continue;
            }
            const Entry& twin = *found->second;
            if (entry->kind != twin.kind) {
                alone(*entry, near.onlyInFirst);
                alone(twin, near.onlyInSecond);
            } else if (entry->kind == TreeItem::Kind::folder) {
                compareBelow(entry->index, twin.index, rel(entry->name), near);
            } else if (sameFile(entry->index, twin.index)) {
                near.sameFiles += 1;
                near.sameBytes += files_[entry->index].status.size;
            } else {
                near.changed.push_back(rel(entry->name));
            }
        }
        for (const auto& [name, entry] : inB) {
            if (!inA.contains(name)) alone(*entry, near.onlyInSecond);
        }
    }

    bool sameFile(uint32_t a, uint32_t b) {
        const ScannedFile& x = files_[a];
        const ScannedFile& y = files_[b];
        if (x.status.size != y.status.size) return false;
        if (!digestOf(a).empty() && !digestOf(b).empty()) return digestOf(a) == digestOf(b);
        // Too small to have been read for the groups: compared here, byte for byte.
        try {
            return sameContent(x.path, y.path);
        } catch (const SystemError&) {
            return false;
        }
    }

    // Folders of one name on different volumes that hold mostly the same files, with what differs.
    // Only the top of such a pair is compared: a pair whose parents share a name too is left to them.
    void nearFolders() {
        std::map<std::string, std::vector<uint32_t>> byName;
        for (uint32_t i = 0; i < folders_.size(); ++i) byName[nameOf(folders_[i].path)].push_back(i);
        auto covered = [&](uint32_t i) {
            for (uint32_t p = i; p != none; p = folders_[p].parent) {
                if (identical_[p]) return true;
            }
            return false;
        };
        for (const auto& [name, members] : byName) {
            if (members.size() < 2 || members.size() > maxNamesakes) continue;
            for (size_t x = 0; x < members.size(); ++x) {
                for (size_t y = x + 1; y < members.size(); ++y) {
                    uint32_t a = members[x], b = members[y];
                    const Folder& fa = folders_[a];
                    const Folder& fb = folders_[b];
                    if (fa.volume == fb.volume || covered(a) || covered(b)) continue;
                    if (fa.parent != none && fb.parent != none && folders_[fa.parent].volume != folders_[fb.parent].volume &&
                        nameOf(folders_[fa.parent].path) == nameOf(folders_[fb.parent].path)) {
                        continue;
                    }
                    comparePair(a, b);
                }
            }
        }
    }

    void comparePair(uint32_t a, uint32_t b) {
        AcrossNearGroup near;
        near.folders = {folders_[a].path, folders_[b].path};
        compareBelow(a, b, "", near);
        for (auto* paths : {&near.onlyInFirst, &near.onlyInSecond, &near.changed}) std::sort(paths->begin(), paths->end());
        int64_t differing = static_cast<int64_t>(near.onlyInFirst.size() + near.onlyInSecond.size() + near.changed.size());
        // Mostly the same: at least as many files alike as differing, and something differs.
        if (near.sameFiles == 0 || differing == 0 || near.sameFiles < differing) return;
        if (near.sameBytes < std::max<int64_t>(1, options_.minimumSize)) return;
        if (folders_[b].path < folders_[a].path) {
            std::swap(near.folders[0], near.folders[1]);
            std::swap(near.onlyInFirst, near.onlyInSecond);
        }
        nearGroups_.push_back(std::move(near));
    }

    bool spansVolumes(const std::vector<uint32_t>& members) const {
        std::set<uint32_t> volumes;
        for (uint32_t i : members) volumes.insert(folders_[i].volume);
        return volumes.size() >= 2;
    }

    AcrossResult finish() {
        AcrossResult result;
        auto byFreed = [](const auto& a, const auto& b, const std::string& pa, const std::string& pb) {
            return a.freedBytes != b.freedBytes ? a.freedBytes > b.freedBytes : pa < pb;
        };
        std::stable_sort(treeGroups_.begin(), treeGroups_.end(), [&](const auto& a, const auto& b) {
            return byFreed(a, b, a.folders.front(), b.folders.front());
        });
        std::stable_sort(fileGroups_.begin(), fileGroups_.end(), [&](const auto& a, const auto& b) {
            return byFreed(a, b, files_[a.members.front()].path, files_[b.members.front()].path);
        });
        std::stable_sort(nearGroups_.begin(), nearGroups_.end(), [](const auto& a, const auto& b) {
            return a.sameBytes != b.sameBytes ? a.sameBytes > b.sameBytes : a.folders < b.folders;
        });
        result.trees = std::move(treeGroups_);
        result.nearlyIdentical = std::move(nearGroups_);
        // The files go into the groups rather than being copied: nothing needs them after this.
        // Tens of thousands of groups are made on every core, each its own share of them, as
        // each file and digest belongs to one group.
        result.files.resize(fileGroups_.size());
        constexpr size_t groupsPerShare = 4096;
        parallelFor((fileGroups_.size() + groupsPerShare - 1) / groupsPerShare, workersFor(0, false), [&](size_t share) {
            const size_t end = std::min(fileGroups_.size(), (share + 1) * groupsPerShare);
            for (size_t g = share * groupsPerShare; g < end; ++g) {
                const FileGroup& group = fileGroups_[g];
                AcrossFileGroup& out = result.files[g];
                out.digest = std::move(setDigests_[group.set]);
                out.size = files_[group.members.front()].status.size;
                out.freedBytes = group.freedBytes;
                out.files.reserve(group.members.size());
                out.volumes.reserve(group.members.size());
                for (uint32_t i : group.members) {
                    out.files.push_back(std::move(files_[i]));
                    out.volumes.push_back(volumeNames_[fileVolumes_[i]]);
                }
            }
        });
        result.filesSeen = static_cast<int64_t>(files_.size());
        result.bytesRead = bytesRead_;
        result.unreadableFolders = std::move(unreadable_);
        result.cancelled = cancelled();
        return result;
    }

    const AcrossOptions& options_;
    // What went to the Trash is no copy to find again.
    const std::string homeTrash_ = platform::homeTrashFolder();
    const ProgressCallback& progress_;
    const CancelCallback& isCancelled_;
    std::atomic<bool> cancelled_{false};
    std::vector<ScannedFile> files_;
    std::vector<uint32_t> fileVolumes_;
    // Per file: its set of identical files on other volumes (`none`: no such copy), whose digest
    // is in setDigests_.
    std::vector<uint32_t> setOf_;
    std::vector<std::string> setDigests_;
    std::vector<char> blocksLeft_;  // per file: as AcrossSets::blocksLeft
    std::vector<Folder> folders_;
    std::vector<bool> inTree_;  // per file: inside a folder whose shape has a twin on another volume
    std::unordered_map<uint64_t, uint32_t> deviceVolumes_;
    std::vector<std::string> volumeNames_;
    std::vector<std::string> unreadable_;
    // A set of identical files worth reporting, by index into files_, in path order.
    struct FileGroup {
        uint32_t set;
        std::vector<uint32_t> members;
        int64_t freedBytes;
    };
    std::vector<FileGroup> fileGroups_;
    std::vector<AcrossTreeGroup> treeGroups_;
    std::vector<AcrossNearGroup> nearGroups_;
    std::vector<char> identical_;  // per folder: identical to a folder on another volume
    // A name worn by more folders than this (".git", "src") would make too many pairs to compare.
    static constexpr size_t maxNamesakes = 8;
    int64_t bytesRead_ = 0;
};

}  // namespace

namespace AcrossVolumes {

AcrossResult find(const std::vector<std::string>& roots, const AcrossOptions& options,
                  const ProgressCallback& progress, const CancelCallback& isCancelled) {
    return Search(options, progress, isCancelled).run(roots);
}

int64_t freedByRemoving(const ScannedFile& file) {
    if (file.status.links > 1) return 0;
    if (file.clones && !file.clones->inlineData) return file.clones->privateSize;
    return file.status.size;
}

std::string volumeOf(const std::string& path, uint64_t device) {
    if (auto id = platform::volumeIdentifier(path, false)) return *id;
    return "device " + std::to_string(device);
}

}  // namespace AcrossVolumes

// Paths in the form of path_text.h, so that a name that is not UTF-8 comes back byte for byte.
void to_json(nlohmann::json& j, const AcrossFileGroup& g) {
    std::vector<std::string> paths;
    paths.reserve(g.files.size());
    for (const auto& f : g.files) paths.push_back(pathText(f.path));
    j = {{"digest", g.digest}, {"size", g.size}, {"freedBytes", g.freedBytes}, {"volumes", g.volumes}, {"files", paths}};
}

void to_json(nlohmann::json& j, const AcrossTreeGroup& g) {
    j = {{"digest", g.digest},       {"bytes", g.bytes},     {"fileCount", g.fileCount},
         {"freedBytes", g.freedBytes}, {"folders", pathTexts(g.folders)}, {"volumes", g.volumes}};
}

void to_json(nlohmann::json& j, const AcrossNearGroup& g) {
    j = {{"folders", pathTexts(g.folders)},         {"sameFiles", g.sameFiles}, {"sameBytes", g.sameBytes},
         {"onlyInFirst", pathTexts(g.onlyInFirst)}, {"onlyInSecond", pathTexts(g.onlyInSecond)},
         {"changed", pathTexts(g.changed)}};
}

void to_json(nlohmann::json& j, const AcrossResult& r) {
    j = {{"trees", r.trees},         {"files", r.files}, {"nearlyIdentical", r.nearlyIdentical},
         {"filesSeen", r.filesSeen}, {"bytesRead", r.bytesRead},
         {"unreadableFolders", pathTexts(r.unreadableFolders)}, {"cancelled", r.cancelled}};
}

}  // namespace dedup
