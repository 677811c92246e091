#include "clone_engine.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "hasher.h"
#include "journal.h"
#include "metadata.h"
#include "path_names.h"
#include "platform/clone.h"
#include "platform/system.h"
#include "replaceability.h"
#include "temporary_name.h"

namespace dedup {

namespace {

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

}  // namespace

VerificationError::VerificationError(std::string path_, std::vector<std::string> differs_)
    : std::runtime_error(path_ + ": " + joined(differs_) + " changed"),
      path(std::move(path_)),
      differs(std::move(differs_)) {}

std::string_view rawValue(CloneEngine::Step step) {
    static constexpr std::string_view names[] = {"checked", "cloned", "metadataCopied", "compared", "swapped",
                                                 "verified"};
    return names[static_cast<size_t>(step)];
}

std::string_view rawValue(CloneEngine::Leftover leftover) {
    static constexpr std::string_view names[] = {"removed", "restored", "kept"};
    return names[static_cast<size_t>(leftover)];
}

// One replacement between its swap and its end.
struct CloneEngine::Swapped {
    JournalEntry entry;
    Replacement target;
    std::string temporary;  // empty when the blocks were shared in place: nothing waits for phase two
    FileStatus original;
    std::optional<FileTimes> folderTimes;
    int64_t freed = 0;
    platform::FileDescriptor held;  // the copy, open for the lease while it is replaced
    Snapshot before;
    Attributes attributes;
};

void CloneEngine::step(Step s, const std::string& temporary) const {
    if (fault) fault(s, temporary);
}

CloneEngine::Strategy CloneEngine::strategyFor(uint64_t device) const {
    if (strategy != Strategy::automatic) return strategy;
    std::lock_guard lock(volumes_->mutex);
    auto it = volumes_->chosen.find(device);
    return it == volumes_->chosen.end() ? Strategy::automatic : it->second;
}

void CloneEngine::remember(uint64_t device, Strategy chosen) const {
    std::lock_guard lock(volumes_->mutex);
    volumes_->chosen[device] = chosen;
}

namespace {

// What a verified replacement must show: the clone's identity and the replaced copy's metadata.
// Linux cannot set a birth time, so "created" is not asked of a clone.
void verify(const std::string& target, const FileStatus& clone, const FileStatus& original, const FileTimes& times,
            const Attributes& attributes, const std::optional<std::string>& acl) {
    FileStatus now = FileStatus::read(target);
    FileTimes nowTimes = FileTimes::read(target);
    Attributes nowAttributes = XAttr::all(target);
    auto nowAcl = ACL::text(target);
    std::vector<std::string> differs;
    if (now.inode != clone.inode) differs.push_back("inode");
    if ((now.mode & 07777) != (original.mode & 07777)) differs.push_back("mode");
    if (now.uid != original.uid || now.gid != original.gid) differs.push_back("owner");
    if ((now.flags & ~FileFlags::compressed) != (original.flags & ~FileFlags::compressed)) differs.push_back("flags");
    if (nowTimes.modified != times.modified) differs.push_back("modified");
    if (nowTimes.added != times.added) differs.push_back("added");
    if (nowAcl != acl) differs.push_back("acl");
    std::set<std::string> names;
    for (const auto& [name, bytes] : attributes) names.insert(name);
    for (const auto& [name, bytes] : nowAttributes) names.insert(name);
    for (const auto& name : names) {
        auto a = attributes.find(name);
        auto b = nowAttributes.find(name);
        if (a == attributes.end() || b == nowAttributes.end() || a->second != b->second) {
            differs.push_back("xattr " + name);
        }
    }
    if (!differs.empty()) throw VerificationError(target, differs);
}

void restoreTimes(const std::string& folder, const std::optional<FileTimes>& times) {
    if (!times) return;
    try {
        times->write(folder);
    } catch (const std::exception&) {
        // A folder date that could not be put back is not worth failing a replacement for.
    }
}

// Puts the folder's dates back however the replacement ends.
struct FolderDates {
    const std::string& folder;
    const std::optional<FileTimes>& times;
    ~FolderDates() { restoreTimes(folder, times); }
};

int64_t privateBytes(const std::optional<CloneInfo>& info, const FileStatus& status) {
    return info ? info->privateSize : status.size;
}

}  // namespace

CloneEngine::Swapped CloneEngine::swapIn(const Replacement& r, JournalEntry& entry, const OpenFiles& open) {
    FileStatus status = FileStatus::read(r.target);
    std::string folder = parentOf(r.target);
    checkReplaceable(r.target, status, folder, r.source, r.expected);

    Swapped swapped;
    swapped.target = r;
    swapped.original = status;
    // Every later read of the copy goes through this one descriptor: opening it again would break
    // our own lease.
    swapped.held = platform::openCopy(r.target);
    if (!platform::statusOf(swapped.held, r.target).isSameVersion(status)) throw Skip(SkipReason::changedSinceScan);
    if (coordinate && !platform::takeWriteLease(swapped.held, r.target)) throw Skip(SkipReason::inUse);

    auto targetClones = platform::cloneInfoOf(swapped.held, r.target);
    if (targetClones) {
        auto sourceClones = CloneInfo::read(r.source);
        if (sourceClones && sourceClones->cloneID == targetClones->cloneID) throw Skip(SkipReason::alreadyShared);
    }
    if (open.contains(status)) throw Skip(SkipReason::inUse);
    swapped.freed = privateBytes(targetClones, status);

    swapped.before = Snapshot::take(r.target);
    entry.before = swapped.before;

    Strategy chosen = strategyFor(status.device);
    if (chosen != Strategy::cloneAndSwap) {
        if (shareInPlace(swapped, entry, r)) {
            if (chosen == Strategy::automatic) remember(status.device, Strategy::inPlace);
            swapped.entry = entry;
            return swapped;
        }
        if (chosen == Strategy::inPlace) throw Skip(SkipReason::volumeCannotClone);
        // The volume clones but cannot share in place: remember, and fall back for this copy too.
    }
    swapByClone(swapped, entry, r);
    if (chosen == Strategy::automatic) remember(status.device, Strategy::cloneAndSwap);
    swapped.entry = entry;
    return swapped;
}

bool CloneEngine::shareInPlace(Swapped& s, JournalEntry& entry, const Replacement& r) {
    step(Step::checked, "");
    if (journal) journal->append(entry);
    platform::FileDescriptor source = platform::openCopy(r.source);
    FileStatus sourceStatus = platform::statusOf(source, r.source);
    // Identity is checked again on the open descriptors right before the kernel is asked to act.
    if (!platform::statusOf(s.held, r.target).isSameVersion(s.original)) throw Skip(SkipReason::changedSinceScan);
    if (sourceStatus.size != s.original.size) throw Skip(SkipReason::contentDiffers);
    if (coordinate && !platform::leaseHeld(s.held)) throw Skip(SkipReason::coordinationTimedOut);

    switch (platform::shareInPlace(source, s.held, s.original.size, r.target)) {
        case platform::ShareOutcome::notSupported: return false;
        case platform::ShareOutcome::differs: throw Skip(SkipReason::contentDiffers);
        case platform::ShareOutcome::shared: break;
    }
    step(Step::cloned, "");

    // The kernel reports the length asked for, not what it shared: the extent map says the truth.
    auto sourceClones = platform::cloneInfoOf(source, r.source);
    auto targetClones = platform::cloneInfoOf(s.held, r.target);
    if (!sourceClones || !targetClones || sourceClones->cloneID != targetClones->cloneID) {
        throw std::runtime_error(r.target + ": the disk did not share its blocks");
    }
    Snapshot after = Snapshot::take(r.target);
    std::vector<std::string> differs;
    if (after.status != s.before.status) differs.push_back("status");
    if (after.times.modified != s.before.times.modified) differs.push_back("modified");
    if (after.attributeNames != s.before.attributeNames) differs.push_back("xattr names");
    if (after.acl != s.before.acl) differs.push_back("acl");
    if (!differs.empty()) throw VerificationError(r.target, differs);
    step(Step::verified, "");
    s.freed = std::max<int64_t>(0, s.freed - targetClones->privateSize);
    return true;
}

void CloneEngine::swapByClone(Swapped& s, JournalEntry& entry, const Replacement& r) {
    const std::string folder = parentOf(r.target);
    s.attributes = XAttr::all(r.target);
    if (restoreFolderDates) s.folderTimes = FileTimes::read(folder);
    FolderDates dates{folder, s.folderTimes};
    step(Step::checked, "");

    s.temporary = folder + "/." + nameOf(r.target) + std::string(temporaryMarker) + makeUUID();
    entry.temporary = s.temporary;
    // Announced before anything exists on disk, so a crash from here on leaves a journalled leftover.
    if (journal) journal->append(entry);
    if (!platform::cloneFile(r.source, s.temporary)) throw Skip(SkipReason::volumeCannotClone);

    FileStatus cloneStatus;
    try {
        step(Step::cloned, s.temporary);
        copyMetadata(s.temporary, s.original, s.attributes);
        step(Step::metadataCopied, s.temporary);
        platform::FileDescriptor clone = platform::openCopy(s.temporary);
        if (!platform::sameContent(clone, s.temporary, s.held, r.target)) throw Skip(SkipReason::contentDiffers);
        if (!FileStatus::read(r.target).isSameVersion(s.original)) throw Skip(SkipReason::changedSinceScan);
        // Dates go on after the comparison, which reads the clone and would move its access time.
        s.before.times.write(s.temporary);
        cloneStatus = FileStatus::read(s.temporary);
        step(Step::compared, s.temporary);
        if (coordinate && !platform::leaseHeld(s.held)) throw Skip(SkipReason::coordinationTimedOut);
    } catch (...) {
        platform::tryRemoveFile(s.temporary);
        throw;
    }

    try {
        platform::exchange(s.temporary, r.target);
    } catch (...) {
        platform::tryRemoveFile(s.temporary);
        throw;
    }

    try {
        // Some attributes only stick once the file has its final name.
        applyAttributes(s.attributes, r.target);
        step(Step::swapped, s.temporary);
        verify(r.target, cloneStatus, s.original, s.before.times, s.attributes, s.before.acl);
        step(Step::verified, s.temporary);
    } catch (...) {
        // The temporary name holds the untouched copy again after this exchange.
        platform::tryExchange(s.temporary, r.target);
        platform::tryRemoveFile(s.temporary);
        throw;
    }
}

void CloneEngine::finish(Swapped& s, const OpenFiles& open) {
    if (s.temporary.empty()) return;
    const std::string folder = parentOf(s.target.target);
    FolderDates dates{folder, s.folderTimes};
    FileStatus replaced = FileStatus::read(s.temporary);
    if (replaced.size == s.original.size && replaced.modified == s.original.modified && !open.contains(replaced)) {
        if (!moveReplacedToTrash) {
            platform::removeFile(s.temporary);
            return;
        }
        // Through a private folder, so the Trash shows the copy under its own name.
        std::string privateFolder = folder + "/" + std::string(temporaryMarker) + "trash-" + makeUUID();
        platform::makePrivateFolder(privateFolder);
        std::string item = privateFolder + "/" + nameOf(s.target.target);
        try {
            platform::renamePath(s.temporary, item);
            platform::moveToTrash(item);
        } catch (...) {
            // A copy that could not reach the Trash goes back under its temporary name, where the
            // journal's recovery finds it.
            platform::tryRename(item, s.temporary);
            platform::tryRemoveFolder(privateFolder);
            throw;
        }
        platform::tryRemoveFolder(privateFolder);
        return;
    }
    // The replaced copy was written to or is open: it is the one that counts, so it goes back.
    FileStatus clone = FileStatus::read(s.target.target);
    if (open.contains(clone)) throw SystemError("both the clone and the original are open", s.target.target, EBUSY);
    if (!platform::tryExchange(s.temporary, s.target.target)) {
        throw SystemError("renamex_np", s.target.target, errno);
    }
    platform::tryRemoveFile(s.temporary);
    throw Skip(SkipReason::changedDuringReplace);
}

namespace {

// A copy or kept file deleted or moved away since the scan is no failure: it changed since the
// scan, and nothing of it is left to reclaim. Every step undoes its own work before it throws, so
// a path that is gone was taken away by someone else.
std::exception_ptr vanishedAsSkip(std::exception_ptr error, const CloneEngine::Replacement& r) {
    try {
        std::rethrow_exception(error);
    } catch (const SystemError& system) {
        bool gone = system.code == ENOENT || system.code == ENOTDIR;
        if (gone && (!platform::pathExists(r.target) || !platform::pathExists(r.source))) {
            return std::make_exception_ptr(Skip(SkipReason::changedSinceScan));
        }
    } catch (...) {
    }
    return error;
}

void close(Journal* journal, JournalEntry entry, std::exception_ptr error) {
    if (!journal) return;
    try {
        std::rethrow_exception(error);
    } catch (const Skip& skip) {
        entry.event = JournalEntry::Event::skipped;
        entry.detail = std::string(rawValue(skip.reason));
    } catch (const std::exception& other) {
        entry.event = JournalEntry::Event::failed;
        entry.detail = other.what();
    } catch (...) {
        entry.event = JournalEntry::Event::failed;
        entry.detail = "unknown error";
    }
    entry.time = std::time(nullptr);
    try {
        journal->append(entry);
    } catch (...) {
        // The outcome still reaches the caller; a journal that cannot be written shows at the next start.
    }
}

}  // namespace

void CloneEngine::replace(const std::vector<Replacement>& batch,
                          const std::function<bool(const Replacement&)>& willStart,
                          const std::function<void(const Replacement&, const Outcome&)>& done) {
    OpenFiles open;
    try {
        open = OpenFiles::now();
    } catch (...) {
        for (const auto& r : batch) done(r, {0, std::current_exception()});
        return;
    }
    std::vector<Swapped> swapped;
    for (const auto& r : batch) {
        if (willStart && !willStart(r)) break;
        JournalEntry entry = JournalEntry::make(JournalEntry::Event::started, r.target);
        entry.source = r.source;
        entry.digest = r.digest;
        try {
            swapped.push_back(swapIn(r, entry, open));
        } catch (...) {
            auto error = vanishedAsSkip(std::current_exception(), r);
            close(journal, entry, error);
            done(r, {0, error});
        }
    }
    OpenFiles again;
    try {
        again = OpenFiles::now();
    } catch (...) {
        for (auto& s : swapped) done(s.target, {0, std::current_exception()});
        return;
    }
    for (auto& s : swapped) {
        try {
            finish(s, again);
        } catch (...) {
            auto error = std::current_exception();
            close(journal, s.entry, error);
            done(s.target, {0, error});
            continue;
        }
        if (coordinate) platform::releaseLease(s.held);
        s.held.reset();
        JournalEntry entry = s.entry;
        entry.event = JournalEntry::Event::replaced;
        entry.time = std::time(nullptr);
        entry.freedBytes = s.freed;
        try {
            entry.after = Snapshot::take(s.target.target);
        } catch (const std::exception&) {
        }
        if (journal) {
            try {
                journal->append(entry);
            } catch (...) {
            }
        }
        done(s.target, {s.freed, nullptr});
    }
}

int64_t CloneEngine::replace(const std::string& target, const std::string& source, const FileStatus& expected,
                             const std::optional<std::string>& digest) {
    Outcome outcome;
    replace({Replacement{target, source, expected, digest}}, nullptr,
            [&](const Replacement&, const Outcome& o) { outcome = o; });
    if (outcome.error) std::rethrow_exception(outcome.error);
    return outcome.freed;
}

bool CloneEngine::isTemporary(const std::string& path) { return isTemporaryName(nameOf(path)); }

CloneEngine::Leftover CloneEngine::recoverLeftover(const std::string& path) {
    if (!isTemporary(path)) return Leftover::kept;
    std::string name = nameOf(path);
    std::string own = parentOf(path) + "/" + name.substr(1, name.rfind(temporaryMarker) - 1);
    if (!platform::pathExists(own)) {
        platform::renamePath(path, own);
        return Leftover::restored;
    }
    // The kernel fills a clone in one call, after creating it empty: an empty temporary beside a
    // copy with data is a clone that never got its blocks, and the copy was never touched. (Empty
    // copies are never replaced, so the temporary cannot be the user's own file swapped out.)
    if (FileStatus::read(path).size == 0 && FileStatus::read(own).size > 0) {
        platform::removeFile(path);
        return Leftover::removed;
    }
    if (sameContent(path, own)) {
        platform::removeFile(path);
        return Leftover::removed;
    }
    return Leftover::kept;
}

}  // namespace dedup
