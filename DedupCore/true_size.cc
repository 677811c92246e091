#include "true_size.h"

#include <algorithm>
#include <memory>

#include <nlohmann/json.hpp>

#include "directory_reader.h"
#include "file_records.h"
#include "path_text.h"
#include "platform/space.h"

namespace dedup {

void to_json(nlohmann::json& j, const FolderSize& f) {
    j = {{"path", pathText(f.path)},
         {"logical", f.logical},
         {"allocated", f.allocated},
         {"freedIfDeleted", f.freedIfDeleted},
         {"uncertain", f.uncertain},
         {"children", f.children}};
}

void from_json(const nlohmann::json& j, FolderSize& f) {
    f.path = pathFromText(j.at("path").get<std::string>());
    j.at("logical").get_to(f.logical);
    j.at("allocated").get_to(f.allocated);
    j.at("freedIfDeleted").get_to(f.freedIfDeleted);
    j.at("uncertain").get_to(f.uncertain);
    j.at("children").get_to(f.children);
}

namespace TrueSize {

std::string toString(Sharing sharing) { return sharing == Sharing::resolved ? "resolved" : "unknown"; }

void Tally::merge(const Tally& other) {
    logical += other.logical;
    allocated += other.allocated;
    privateBytes += other.privateBytes;
    uncertain += other.uncertain;
    for (const auto& [id, theirs] : other.families) {
        auto [it, fresh] = families.try_emplace(id, Family{theirs.references, 0, 0});
        it->second.found += theirs.found;
        it->second.sharedBytes = std::max(it->second.sharedBytes, theirs.sharedBytes);
    }
    for (const auto& [inode, theirs] : other.linked) {
        auto [it, fresh] = linked.try_emplace(inode, Link{theirs.references, theirs.bytes, 0, theirs.families});
        it->second.found += theirs.found;
    }
}

int64_t Tally::freed() const {
    int64_t total = privateBytes;
    std::map<uint64_t, uint32_t> linkedUsers;
    for (const auto& [inode, link] : linked) {
        if (link.found < link.references) continue;
        total += link.bytes;
        for (uint64_t id : link.families) ++linkedUsers[id];
    }
    for (const auto& [id, family] : families) {
        auto users = linkedUsers.find(id);
        uint32_t found = family.found + (users == linkedUsers.end() ? 0 : users->second);
        if (found >= family.references) total += family.sharedBytes;
    }
    return total;
}

namespace {

// The blocks of one file: its own, those shared with files the file system named, and those shared
// with something unknown.
struct FileBlocks {
    int64_t own = 0;
    int64_t unknown = 0;
    std::vector<platform::ExtentOwners::Extent> shared;
};

std::string childPath(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

class Measurer {
public:
    explicit Measurer(const Options& options) : options_(options) {}

    std::pair<FolderSize, Tally> run(const std::string& path) {
        auto entries = DirectoryReader::read(path);
        uint64_t device = FileStatus::read(path).device;
        if (options_.resolveSharing) owners_ = platform::ExtentOwners::open(path);
        if (options_.progress) options_.progress(path, 0);
        return measure(path, device, std::move(entries));
    }

private:
    std::pair<FolderSize, Tally> measure(const std::string& path, uint64_t device,
                                         std::vector<DirectoryEntry> entries) {
        Tally tally;
        tally.sharing = owners_ ? Sharing::resolved : Sharing::unknown;
        FolderSize size;
        size.path = path;
        for (const auto& entry : entries) {
            const FileStatus& status = entry.status;
            std::string child = childPath(path, entry.name);
            if (status.isDirectory()) {
                // The listing's status of a folder is already that of whatever is mounted on it, so
                // another device means a mount or a Btrfs subvolume: not part of this tree.
                if (status.device != device) continue;
                if (options_.progress) options_.progress(child, files_);
                std::vector<DirectoryEntry> listing;
                try {
                    listing = DirectoryReader::read(child);
                } catch (const SystemError& error) {
                    if (!options_.unreadable) throw;
                    options_.unreadable(error);
                    continue;
                }
                auto [childSize, childTally] = measure(child, device, std::move(listing));
                size.children.push_back(std::move(childSize));
                tally.merge(childTally);
            } else if (status.isRegularFile()) {
                addFile(tally, child, entry);
            }
        }
        std::stable_sort(size.children.begin(), size.children.end(),
                         [](const FolderSize& a, const FolderSize& b) { return a.freedIfDeleted > b.freedIfDeleted; });
        size.logical = tally.logical;
        size.allocated = tally.allocated;
        size.uncertain = tally.uncertain;
        size.freedIfDeleted = tally.freed();
        return {std::move(size), std::move(tally)};
    }

    FileBlocks blocksOf(const std::string& path, int64_t allocated) {
        FileBlocks blocks;
        platform::FileDescriptor file;
        std::optional<std::vector<platform::FileExtent>> extents;
        try {
            file = platform::openForReading(path);
            extents = platform::readExtents(file, path);
        } catch (const SystemError&) {
            // A file we may not open could share anything: none of it is known to be freed.
            blocks.unknown = allocated;
            return blocks;
        }
        int64_t shared = 0;
        bool inlineData = false;
        if (extents) {
            for (const auto& extent : *extents) {
                if (extent.shared) shared += static_cast<int64_t>(extent.length);
                inlineData = inlineData || extent.inlineData;
            }
        }
        // Extent lengths are whole blocks, as is the allocation; XFS may also hold blocks past the
        // end that no extent shows. Sharing never makes a file hold less than nothing.
        shared = std::min(shared, allocated);
        blocks.own = allocated - shared;
        blocks.unknown = shared;
        if (!owners_ || (shared == 0 && !inlineData)) return blocks;
        auto resolved = owners_->blocksOf(file);
        if (!resolved) return blocks;
        if (resolved->inlineMaybeShared) {
            blocks.own = 0;
            blocks.unknown = allocated;
            return blocks;
        }
        int64_t sharedFileBytes = 0;
        for (const auto& extent : resolved->extents) {
            // An extent only this file uses is its own, even where the extent map says "shared"
            // (a range cloned within the file).
            if (extent.holders < 2) continue;
            sharedFileBytes += extent.fileBytes;
            blocks.shared.push_back(extent);
        }
        blocks.own = std::max<int64_t>(0, allocated - sharedFileBytes);
        blocks.unknown = 0;
        return blocks;
    }

    void addFile(Tally& tally, const std::string& path, const DirectoryEntry& entry) {
        ++files_;
        const FileStatus& status = entry.status;
        tally.logical += status.size;
        tally.allocated += entry.allocated;
        FileBlocks blocks = blocksOf(path, entry.allocated);
        bool linked = status.links >= 2;
        for (const auto& extent : blocks.shared) {
            auto [it, fresh] = tally.families.try_emplace(extent.address, Family{extent.holders, 0, 0});
            // A linked inode counts as found once all its names are; freed() decides that.
            if (!linked) it->second.found += 1;
            it->second.sharedBytes = std::max(it->second.sharedBytes, extent.diskBytes);
        }
        if (!linked) {
            tally.privateBytes += blocks.own;
            tally.uncertain += blocks.unknown;
            return;
        }
        // Its own bytes are freed once, and only when all its names lie in the tree. Bytes shared
        // with unknown users are left out of `uncertain`: per name they would count twice.
        auto [it, fresh] = tally.linked.try_emplace(status.inode, Link{status.links, blocks.own, 0, {}});
        if (fresh) {
            for (const auto& extent : blocks.shared) it->second.families.push_back(extent.address);
        }
        it->second.found += 1;
    }

    const Options& options_;
    std::unique_ptr<platform::ExtentOwners> owners_;
    int64_t files_ = 0;
};

}  // namespace

std::pair<FolderSize, Tally> measureWithTally(const std::string& path, const Options& options) {
    Measurer measurer(options);
    return measurer.run(path);
}

FolderSize measure(const std::string& path, const Options& options) { return measureWithTally(path, options).first; }

}  // namespace TrueSize

}  // namespace dedup
