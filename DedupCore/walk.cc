#include "walk.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <sys/stat.h>

#include "path_names.h"
#include "platform/system.h"
#include "temporary_name.h"

namespace dedup {

namespace {

std::string childPath(const std::string& folder, const std::string& name) {
    if (folder == "/") return "/" + name;
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    path.append(folder).append("/").append(name);
    return path;
}

// The extension as file managers show it: what follows the last dot, unless that dot starts the
// name (".bashrc" has none).
std::string lowerExtension(std::string_view name) {
    auto dot = name.find_last_of('.');
    if (dot == std::string_view::npos || dot == 0) return "";
    std::string ext(name.substr(dot + 1));
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

// Folders listed ahead of the walk at once, and at most how many listings wait for it. From a cold
// cache a listing waits on the disk for nearly every entry's status, and the more requests the
// disk has before it the sooner it answers them all: more readers than cores.
constexpr size_t foldersReadAtOnce = 6;
constexpr size_t foldersReadAhead = 32;

}  // namespace

bool InodeSet::add(const InodeKey& key) {
    if (key == InodeKey{}) {
        bool isNew = !hasZero_;
        hasZero_ = true;
        size_ += isNew ? 1 : 0;
        return isNew;
    }
    // At most half full, so that a search meets a free slot within a few steps.
    if (2 * (size_ + 1) > slots_.size()) grow();
    const size_t mask = slots_.size() - 1;
    for (size_t at = InodeKeyHash{}(key) & mask;; at = (at + 1) & mask) {
        if (slots_[at] == key) return false;
        if (slots_[at] == InodeKey{}) {
            slots_[at] = key;
            ++size_;
            return true;
        }
    }
}

void InodeSet::grow() {
    std::vector<InodeKey> old = std::move(slots_);
    slots_.assign(std::max<size_t>(1024, 2 * old.size()), InodeKey{});
    const size_t mask = slots_.size() - 1;
    for (const InodeKey& key : old) {
        if (key == InodeKey{}) continue;
        size_t at = InodeKeyHash{}(key) & mask;
        while (!(slots_[at] == InodeKey{})) at = (at + 1) & mask;
        slots_[at] = key;
    }
}

Walk::Walk(ScanOptions options_) : options(std::move(options_)) {}

bool Walk::isVolumeSystemFolder(const std::string& name) {
    static constexpr std::array<std::string_view, 8> names = {
        "proc", "sys", "dev", "run", "lost+found", ".snapshots", "timeshift", ".Trash"};
    return std::find(names.begin(), names.end(), name) != names.end() || startsWith(name, ".Trash-");
}

bool Walk::isVolumeRoot(const std::string& path) { return platform::isMountRoot(path); }

bool Walk::isExcluded(const std::string& path) const {
    for (const auto& e : options.excludedPaths) {
        if (e.empty()) continue;
        if (path == e) return true;
        if (e.back() == '/') {
            if (startsWith(path, e)) return true;
        } else if (path.size() > e.size() && path[e.size()] == '/' && startsWith(path, e)) {
            return true;
        }
    }
    return false;
}

bool Walk::descends(const std::string& path, const std::string& name, bool atVolumeRoot) const {
    if (unfiltered) return !startsWith(name, temporaryMarker);
    if (name.ends_with(".app") || startsWith(name, temporaryMarker)) return false;
    if (atVolumeRoot && isVolumeSystemFolder(name)) return false;
    // The per-user cache plays the part of the Library: rebuilt at will, full of copies nobody
    // means to keep, and not worth a clone.
    if (!options.includeLibrary && name == ".cache" && parentOf(path) == options.homeFolder) return false;
    // There are no packages on Linux and cloud drives are FUSE mounts, which the device test keeps
    // out, so the package and cloud rules decide nothing here.
    return true;
}

bool Walk::includes(const DirectoryEntry& entry) const {
    if (entry.status.size < std::max<int64_t>(1, options.minimumSize)) return false;
    constexpr uint32_t locked = FileFlags::systemImmutable | FileFlags::systemAppend | FileFlags::dataless;
    if (entry.status.flags & locked) return false;
    if (entry.name == ".DS_Store") return false;
    if (!options.allowedExtensions) return true;
    return options.allowedExtensions->contains(lowerExtension(entry.name));
}

void Walk::visit(const std::string& root) {
    FileStatus status;
    try {
        status = FileStatus::read(root);
    } catch (const SystemError&) {
        unreadable.push_back(root);
        return;
    }
    if (status.isRegularFile()) {
        std::optional<CloneInfo> clones;
        try {
            clones = CloneInfo::read(root);
        } catch (const SystemError&) {
        }
        if (inodes.add({status.device, status.inode})) {
            files.push_back({root, status, clones});
        }
        return;
    }
    // Listing a folder waits on the disk for every entry's status; helpers list the next folders
    // meanwhile, so a cold disk has several requests to work on and a warm one two cores.
    FolderPrefetch prefetch(foldersReadAtOnce, foldersReadAhead);
    prefetch_ = &prefetch;
    struct Forget {
        FolderPrefetch*& prefetch;
        ~Forget() { prefetch = nullptr; }
    } forget{prefetch_};
    // Each folder with the identity it had when listed: a folder on the way swapped for a link
    // since then must not lead the walk out of the tree.
    std::vector<std::pair<std::string, FolderIdentity>> stack{{root, FolderIdentity{status.device, status.inode}}};
    while (!stack.empty()) {
        auto [folder, identity] = std::move(stack.back());
        stack.pop_back();
        if (isCancelled && isCancelled()) return;
        visitFolder(
            folder, status.device,
            [&](std::string path, FolderIdentity listed) {
                prefetch.request(path, listed);
                stack.emplace_back(std::move(path), listed);
            },
            identity);
    }
}

void Walk::visitFolder(const std::string& folder, uint64_t device,
                       const std::function<void(std::string, FolderIdentity)>& subfolder,
                       std::optional<FolderIdentity> expected) {
    folders.insert(folder);
    if (progress) {
        progress(ScanProgress{ScanProgress::Phase::walking, static_cast<int64_t>(files.size()), 0, folder});
    }
    std::vector<DirectoryEntry> entries;
    try {
        entries = prefetch_ ? prefetch_->take(folder, expected) : DirectoryReader::read(folder, expected);
    } catch (const SystemError&) {
        unreadable.push_back(folder);
        return;
    }
    // Asked once, and only when the folder holds a folder: the answer matters for nothing else.
    std::optional<bool> atVolumeRoot;
    for (auto& entry : entries) {
        std::string path = childPath(folder, entry.name);
        if (isExcluded(path)) continue;
        const auto& st = entry.status;
        if (st.isDirectory()) {
            if (!atVolumeRoot) atVolumeRoot = isVolumeRoot(folder);
            if (!descends(path, entry.name, *atVolumeRoot)) continue;
            // The listing's status is the folder's own (the kernel crosses into a mounted file
            // system), so a mount point or a Btrfs subvolume shows another device here.
            if (st.device == device) subfolder(std::move(path), FolderIdentity{st.device, st.inode});
        } else if (st.isSymbolicLink()) {
            if (unfiltered) links.emplace_back(path, platform::readLink(path));
        } else if (st.isRegularFile()) {
            if (isTemporaryName(entry.name)) {
                leftovers.push_back(std::move(path));
                continue;
            }
            if (unfiltered ? entry.name == ".DS_Store" : !includes(entry)) continue;
            if (!inodes.add({st.device, st.inode})) continue;
            files.push_back({std::move(path), st, std::move(entry.clones)});
        }
    }
}

}  // namespace dedup
