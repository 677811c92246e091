#include "clone_engine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "clone_engine_internal.h"
#include "hasher.h"
#include "journal.h"
#include "metadata.h"
#include "path_names.h"
#include "platform/anchored.h"
#include "platform/clone.h"
#include "platform/system.h"
#include "replaceability.h"
#include "temporary_name.h"

namespace dedup {

namespace {

std::string temporaryPathFor(const std::string& target) {
    return parentOf(target) + "/." + nameOf(target) + std::string(temporaryMarker) + makeUUID();
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

}  // namespace

namespace {

// What a failed call meant for the replacement, in the words of someone who owns the file.
std::string meaning(const SystemError& error) {
    const std::string& call = error.call;
    bool linkOnTheWay = error.code == ELOOP || error.code == ENOTDIR;
    if (call == "both the clone and the original are open") {
        return "both the clone and the replaced copy are open in other programs; neither was touched";
    }
    if (call == "openat2" && linkOnTheWay) return "a folder on the way to it is a symbolic link now; nothing was changed";
    if (call == "openat" && linkOnTheWay) return "it is a symbolic link now; nothing was changed";
    if (call == "openat" || call == "openat2" || call == "open") return "it could not be opened";
    if (call == "read" || call == "fstat" || call == "statx") return "it could not be read";
    if (call == "FIDEDUPERANGE") return "the disk refused to share its blocks with the kept copy";
    if (call == "FICLONE") return "the disk refused to make a clone of the kept copy";
    if (call == "linkat") return "the clone could not be given a name beside it";
    if (call == "renameat2") return "it could not be exchanged with its clone";
    if (call == "unlinkat" || call == "unlink") return "the replaced copy could not be removed";
    if (call == "trash" || call == "mkdirat") return "the replaced copy could not be moved to the Trash";
    if (call.find("xattr") != std::string::npos) return "its extended attributes could not be given to the clone";
    if (call == "fchown" || call == "fchmod") return "its owner or permissions could not be given to the clone";
    if (call.starts_with("FS_IOC_")) return "its attributes (chattr) could not be given to the clone";
    if (call == "futimens") return "its dates could not be given to the clone";
    if (call.starts_with("acl")) return "its access list could not be read";
    return "it could not be replaced";
}

}  // namespace

ReplaceError::ReplaceError(const SystemError& cause, const std::string& file) : SystemError(cause) {
    text = file + ": " + meaning(cause) + " (" + call + ": " + std::strerror(code) + ")";
}

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

void CloneEngine::step(Step s, const std::string& temporary) const {
    if (fault) fault(s, temporary);
}

// Whether another program has the file open: asked of the kernel for this one file where it can
// answer, else looked up in the list of every process's open files. A lease held for coordination
// is itself the answer.
bool CloneEngine::openElsewhere(Swapped& s, const platform::FileDescriptor& fd, const FileStatus& status,
                                OpenList& open) const {
    if (coordinate && &fd == &s.held) return !platform::leaseHeld(s.held);
    auto answer = platform::openElsewhere(fd);
    if (answer) return *answer;
    s.leases = false;
    return open.get().contains(status);
}

// Whether the volume could make a clone of the kept copy beside this one: a nameless trial clone
// that vanishes when closed, remembered per volume.
bool CloneEngine::canClone(Swapped& s) const {
    {
        std::lock_guard lock(volumes_->mutex);
        auto it = volumes_->clones.find(s.original.device);
        if (it != volumes_->clones.end()) return it->second;
    }
    bool answer = false;
    try {
        // Shared in place, the copy's folder was let go once the copy was open.
        if (!s.folder) s.folder = platform::openFolderWithoutLinks(parentOf(s.target.target));
        auto trial = platform::anonymousFileIn(s.folder, s.target.target);
        answer = trial && platform::cloneInto(trial, s.source(), s.target.target);
    } catch (const SystemError&) {
    }
    std::lock_guard lock(volumes_->mutex);
    volumes_->clones[s.original.device] = answer;
    return answer;
}

namespace {

// An undo that could not put the copy back: its journal entry stays open, so that the recovery at
// the next start finds the replaced copy under its temporary name.
struct LeftForRecovery : ReplaceError {
    LeftForRecovery(std::string call, std::string path, int code)
        : ReplaceError(SystemError(std::move(call), path, code), path) {
        text = this->path + ": the copy could not be put back at its name; the journal's recovery puts it right (" +
               this->call + ": " + std::strerror(this->code) + ")";
    }
};


bool isFile(const std::optional<FileStatus>& status, const FileStatus& identity) {
    return status && status->device == identity.device && status->inode == identity.inode;
}

// What a verified replacement must show: the path names the clone, which carries the replaced
// copy's metadata. Linux cannot set a birth time, so "created" is not asked of a clone.
void verify(const platform::FileDescriptor& folder, const std::string& name, const platform::FileDescriptor& clone,
            const std::string& target, const FileStatus& cloneStatus, const FileStatus& original,
            const FileTimes& times, const Attributes& attributes, const std::optional<std::string>& acl) {
    auto atName = platform::statusIn(folder, name, target);
    FileStatus now = platform::statusOf(clone, target);
    FileTimes nowTimes = platform::timesOf(clone, target);
    Attributes nowAttributes = XAttr::all(clone, target);
    auto nowAcl = ACL::text(clone, target);
    std::vector<std::string> differs;
    if (!isFile(atName, cloneStatus)) differs.push_back("inode");
    if ((now.mode & 07777) != (original.mode & 07777)) differs.push_back("mode");
    if (now.uid != original.uid || now.gid != original.gid) differs.push_back("owner");
    if ((now.flags & ~FileFlags::compressed) != (original.flags & ~FileFlags::compressed)) differs.push_back("flags");
    if (nowTimes.modified != times.modified) differs.push_back("modified");
    if (nowTimes.added != times.added) differs.push_back("added");
    if (nowAcl != acl) differs.push_back("acl");
    std::set<std::string> names;
    for (const auto& [n, bytes] : attributes) names.insert(n);
    for (const auto& [n, bytes] : nowAttributes) names.insert(n);
    for (const auto& n : names) {
        auto a = attributes.find(n);
        auto b = nowAttributes.find(n);
        if (a == attributes.end() || b == nowAttributes.end() || a->second != b->second) {
            differs.push_back("xattr " + n);
        }
    }
    if (!differs.empty()) throw VerificationError(target, differs);
}

// Puts the folder's dates back however the replacement ends, through the folder's descriptor.
struct FolderDates {
    const platform::FileDescriptor& folder;
    const std::string& path;
    const std::optional<FileTimes>& times;
    ~FolderDates() {
        if (!times || !folder) return;
        try {
            platform::setTimes(folder, *times, path);
        } catch (const std::exception&) {
            // A folder date that could not be put back is not worth failing a replacement for.
        }
    }
};

constexpr int noCopyOnWriteBit = 0x00800000;  // FS_NOCOW_FL

int64_t privateBytes(const std::optional<CloneInfo>& info, const FileStatus& status) {
    return info ? info->privateSize : status.size;
}

}  // namespace

Snapshot engine::snapshotOf(const platform::FileDescriptor& fd, const std::string& path) {
    Snapshot snapshot;
    snapshot.status = platform::statusOf(fd, path);
    snapshot.times = platform::timesOf(fd, path);
    snapshot.attributeNames = XAttr::names(fd, path);
    std::sort(snapshot.attributeNames.begin(), snapshot.attributeNames.end());
    snapshot.acl = ACL::text(fd, path);
    return snapshot;
}

std::string keepBeside(const platform::FileDescriptor& folder, const std::string& folderPath,
                       const std::string& temporaryName, const std::string& name) {
    // "photo.jpg" -> "photo (other version).jpg", "photo (other version 2).jpg", ...
    auto dot = name.find_last_of('.');
    std::string stem = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    std::string extension = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    for (int n = 1; n < 1000; ++n) {
        std::string candidate = stem + " (other version" + (n == 1 ? "" : " " + std::to_string(n)) + ")" + extension;
        if (platform::tryRenameWithoutReplacing(folder, temporaryName, folder, candidate)) {
            return folderPath + "/" + candidate;
        }
        if (errno != EEXIST) break;
    }
    throw SystemError("renameat2", folderPath + "/" + temporaryName, errno);
}

CloneEngine::Swapped CloneEngine::look(const Replacement& r, JournalEntry& entry, OpenList& open,
                                       std::shared_ptr<Kept>& kept) {
    FileStatus status = FileStatus::read(r.target);
    checkReplaceable(r.target, status, parentOf(r.target), r.source, r.expected);

    Swapped swapped;
    swapped.target = r;
    swapped.name = nameOf(r.target);
    // Both files are opened from the root down without following a link: a folder swapped for a
    // link since the scan fails here instead of leading the replacement elsewhere.
    swapped.folder = platform::openFolderWithoutLinks(parentOf(r.target));
    // Every later read of the copy goes through this one descriptor: opening it again would break
    // our own lease.
    swapped.held = platform::openFileIn(swapped.folder, swapped.name, r.target);
    swapped.original = platform::statusOf(swapped.held, r.target);
    if (!swapped.original.isSameVersion(r.expected)) throw Skip(SkipReason::changedSinceScan);
    // Shared in place, nothing more is done in the copy's folder: one descriptor per copy waiting
    // for its group's call is enough.
    if (strategy != Strategy::cloneAndSwap) swapped.folder.reset();
    if (coordinate && !platform::takeWriteLease(swapped.held, r.target)) throw Skip(SkipReason::inUse);

    // The kept file is opened once for all its copies that follow one another in the batch; its
    // status is read again for each, so that a kept file changed meanwhile is noticed.
    if (!kept || kept->path != r.source) {
        auto opened = std::make_shared<Kept>();
        opened->path = r.source;
        auto sourceFolder = platform::openFolderWithoutLinks(parentOf(r.source));
        opened->fd = platform::openFileIn(sourceFolder, nameOf(r.source), r.source);
        opened->status = platform::statusOf(opened->fd, r.source);
        if (opened->status.isRegularFile()) opened->attributeBits = platform::attributeBitsOf(opened->fd, r.source);
        kept = std::move(opened);
    } else {
        kept->status = platform::statusOf(kept->fd, r.source);
    }
    swapped.kept = kept;
    const FileStatus& sourceStatus = kept->status;
    if (!sourceStatus.isRegularFile()) throw Skip(SkipReason::notARegularFile);
    if (sourceStatus.device != swapped.original.device) throw Skip(SkipReason::differentVolume);
    if (r.keptExpected && !sourceStatus.isSameVersion(*r.keptExpected)) throw Skip(SkipReason::changedSinceScan);
    if (sourceStatus.size != swapped.original.size) throw Skip(SkipReason::contentDiffers);

    // What the scan read of both files' blocks stands unless it is missing: the kernel's
    // comparison, not this test, is what keeps a changed copy safe.
    auto targetClones = r.clones ? r.clones : platform::cloneInfoOf(swapped.held, r.target);
    if (targetClones) {
        std::optional<CloneInfo> sourceClones = r.keptClones;
        if (!sourceClones) {
            if (!kept->clonesRead) kept->clones = platform::cloneInfoOf(kept->fd, r.source);
            kept->clonesRead = true;
            sourceClones = kept->clones;
        }
        if (sourceClones && sourceClones->cloneID == targetClones->cloneID) throw Skip(SkipReason::alreadyShared);
    }
    // Only clone and swap puts another file at the copy's path; shared in place, a program that has
    // the copy open keeps the very same file and bytes.
    if (strategy == Strategy::cloneAndSwap && openElsewhere(swapped, swapped.held, status, open)) {
        throw Skip(SkipReason::inUse);
    }
    // Btrfs refuses to share blocks between a no-copy-on-write file and any other ("Invalid
    // argument"): say why instead of failing at the kernel.
    if ((platform::attributeBitsOf(swapped.held, r.target) | kept->attributeBits) & noCopyOnWriteBit) {
        throw Skip(SkipReason::noCopyOnWrite);
    }
    swapped.freed = privateBytes(targetClones, status);

    swapped.before = engine::snapshotOf(swapped.held, r.target);
    entry.before = swapped.before;
    return swapped;
}

CloneEngine::Swapped CloneEngine::swapIn(const Replacement& r, JournalEntry& entry, OpenList& open,
                                         std::shared_ptr<Kept>& kept) {
    Swapped swapped = look(r, entry, open, kept);
    swapByClone(swapped, entry, r);
    // A lease makes every other program that opens the file wait (up to the kernel's lease-break
    // time): it is held only while this copy is being changed, not while the rest of the batch is.
    // Finishing takes it again before the replaced copy is removed.
    if (coordinate) platform::releaseLease(swapped.held);
    swapped.entry = entry;
    return swapped;
}

void CloneEngine::removeClone(Swapped& s) {
    if (s.linked && isFile(platform::statusIn(s.folder, s.temporaryName, s.temporary), s.cloneStatus)) {
        platform::tryRemoveIn(s.folder, s.temporaryName);
    }
}

void CloneEngine::buildClone(Swapped& s, JournalEntry& entry, const Replacement& r) {
    const std::string folder = parentOf(r.target);
    s.attributes = XAttr::all(s.held, r.target);
    if (restoreFolderDates) s.folderTimes = platform::timesOf(s.folder, folder);
    FolderDates dates{s.folder, folder, s.folderTimes};
    step(Step::checked, "");

    // The batch announced this replacement with its temporary name before it began. A copy whose
    // volume was expected to share in place was announced without one: it gets one now.
    bool announced = entry.temporary.has_value();
    if (!announced) entry.temporary = temporaryPathFor(r.target);
    s.temporary = *entry.temporary;
    s.temporaryName = nameOf(s.temporary);
    // The clone is built without a name where the file system allows it: nobody can open it, and a
    // crash leaves nothing behind. Only once its bytes and metadata are right does it get its
    // temporary name, announced in the journal together with its identity first.
    s.clone = platform::anonymousFileIn(s.folder, s.temporary);
    s.named = !s.clone;
    if (s.named) {
        // Announced before anything exists on disk, so a crash from here on leaves a journalled leftover.
        if (journal && !announced) journal->append(entry);
        s.clone = platform::createFileIn(s.folder, s.temporaryName, s.temporary);
    }
    s.linked = s.named;
    s.cloneStatus = platform::statusOf(s.clone, s.temporary);

    try {
        if (!platform::cloneInto(s.clone, s.source(), s.temporary)) throw Skip(SkipReason::volumeCannotClone);
        step(Step::cloned, s.temporary);
        prepareClone(s.clone, s.temporary, s.attributes);
        step(Step::metadataCopied, s.temporary);
        if (!platform::sameContent(s.clone, s.temporary, s.held, r.target)) throw Skip(SkipReason::contentDiffers);
        if (!platform::statusOf(s.held, r.target).isSameVersion(s.original)) throw Skip(SkipReason::changedSinceScan);
        // Only now, its bytes proven equal, does the clone take the copy's owner, mode and flags.
        handOverClone(s.clone, s.temporary, s.original, s.attributes, platform::attributeBitsOf(s.held, r.target));
        // Dates go on after the comparison, which reads the clone and would move its access time.
        platform::setTimes(s.clone, s.before.times, s.temporary);
        s.cloneStatus = platform::statusOf(s.clone, s.temporary);
        // What the journal must hold before the clone gets a name; the caller writes it.
        if (!s.named) entry.after = engine::snapshotOf(s.clone, s.temporary);
    } catch (...) {
        removeClone(s);
        throw;
    }
}

void CloneEngine::placeClone(Swapped& s, const Replacement& r) {
    const std::string folder = parentOf(r.target);
    FolderDates dates{s.folder, folder, s.folderTimes};
    try {
        if (!s.linked) {
            platform::linkInto(s.clone, s.folder, s.temporaryName, s.temporary);
            s.linked = true;
            s.cloneStatus = platform::statusOf(s.clone, s.temporary);
        }
        // Opened by a program since the first look: it would keep writing to the replaced copy.
        if (!coordinate && platform::openElsewhere(s.held) == true) throw Skip(SkipReason::inUse);
        step(Step::compared, s.temporary);
        if (coordinate && !platform::leaseHeld(s.held)) throw Skip(SkipReason::coordinationTimedOut);
        // Other clones of the batch may have been made since this copy was compared: it must still
        // be the version compared.
        if (!platform::statusOf(s.held, r.target).isSameVersion(s.original)) throw Skip(SkipReason::changedSinceScan);
        // The copy's name must still name the copy that was compared: a program may have saved a
        // new file over it meanwhile, and that one is not ours to move.
        if (!isFile(platform::statusIn(s.folder, s.name, r.target), s.original)) throw Skip(SkipReason::changedSinceScan);
    } catch (...) {
        removeClone(s);
        throw;
    }

    if (!platform::exchangeIn(s.folder, s.temporaryName, s.name)) {
        int code = errno;
        removeClone(s);
        throw SystemError("renameat2", r.target, code);
    }

    try {
        // Whatever a program renamed over the copy's name in the last instant is what went to the
        // temporary name; it is undone below, never removed.
        if (!isFile(platform::statusIn(s.folder, s.temporaryName, s.temporary), s.original)) {
            throw Skip(SkipReason::changedDuringReplace);
        }
        // Some attributes only stick once the file has its final name.
        applyAttributes(s.attributes, s.clone, r.target);
        step(Step::swapped, s.temporary);
        verify(s.folder, s.name, s.clone, r.target, s.cloneStatus, s.original, s.before.times, s.attributes,
               s.before.acl);
        step(Step::verified, s.temporary);
    } catch (...) {
        undoSwap(s);
        throw;
    }
}

void CloneEngine::swapByClone(Swapped& s, JournalEntry& entry, const Replacement& r) {
    buildClone(s, entry, r);
    // The unnamed clone's identity is made durable before it gets a name, so that the recovery
    // after a power cut can tell the engine's own clone from anything else.
    if (!s.named && journal) journal->append(entry);
    placeClone(s, r);
}

// Puts the replaced copy back at its name after a failure past the exchange. Removes only what is
// proven to be this replacement's clone; whatever else turns up under the temporary name (a file a
// program saved over the copy's name) stays, beside the copy under a clear name.
void CloneEngine::undoSwap(Swapped& s) {
    const std::string folder = parentOf(s.target.target);
    auto atName = platform::statusIn(s.folder, s.name, s.target.target);
    auto atTemporary = platform::statusIn(s.folder, s.temporaryName, s.temporary);
    if (isFile(atName, s.cloneStatus)) {
        if (!platform::exchangeIn(s.folder, s.temporaryName, s.name)) {
            throw LeftForRecovery("renameat2", s.target.target, errno);
        }
        atTemporary = platform::statusIn(s.folder, s.temporaryName, s.temporary);
    }
    if (isFile(atTemporary, s.cloneStatus)) {
        platform::tryRemoveIn(s.folder, s.temporaryName);
    } else if (atTemporary) {
        keepBeside(s.folder, folder, s.temporaryName, s.name);
    }
}

void CloneEngine::finish(Swapped& s, OpenList& open) {
    if (s.temporary.empty()) return;
    const std::string folder = parentOf(s.target.target);
    FolderDates dates{s.folder, folder, s.folderTimes};
    auto replaced = platform::statusIn(s.folder, s.temporaryName, s.temporary);
    if (!replaced) throw SystemError("statx", s.temporary, ENOENT);
    bool untouched = isFile(replaced, s.original) && replaced->size == s.original.size &&
                     replaced->modified == s.original.modified;
    // The lease can be had again only while no other descriptor, in any process, has the replaced
    // copy open: the last check before it goes. It ends with this replacement.
    bool unopened = coordinate ? platform::takeWriteLease(s.held, s.temporary)
                               : !openElsewhere(s, s.held, *replaced, open);
    struct Release {
        const platform::FileDescriptor& fd;
        bool held;
        ~Release() {
            if (held) platform::releaseLease(fd);
        }
    } release{s.held, coordinate && unopened};
    if (untouched && unopened) {
        if (!moveReplacedToTrash) {
            platform::removeIn(s.folder, s.temporaryName, s.temporary);
            return;
        }
        // Through a private folder, so the Trash shows the copy under its own name.
        std::string privateName = std::string(temporaryMarker) + "trash-" + makeUUID();
        platform::makeFolderIn(s.folder, privateName, folder + "/" + privateName);
        auto privateFolder = platform::openSubfolder(s.folder, privateName, folder + "/" + privateName);
        std::string item = folder + "/" + privateName + "/" + s.name;
        try {
            platform::renameWithoutReplacing(s.folder, s.temporaryName, privateFolder, s.name, item);
            platform::moveToTrash(item);
        } catch (...) {
            // A copy that could not reach the Trash goes back under its temporary name, where the
            // journal's recovery finds it.
            platform::tryRenameWithoutReplacing(privateFolder, s.name, s.folder, s.temporaryName);
            platform::tryRemoveFolderIn(s.folder, privateName);
            throw;
        }
        platform::tryRemoveFolderIn(s.folder, privateName);
        return;
    }
    // The replaced copy was written to or is open: it is the one that counts, so it goes back.
    auto atName = platform::statusIn(s.folder, s.name, s.target.target);
    if (isFile(atName, s.cloneStatus) && openElsewhere(s, s.clone, *atName, open)) {
        throw SystemError("both the clone and the original are open", s.target.target, EBUSY);
    }
    undoSwap(s);
    throw Skip(SkipReason::changedDuringReplace);
}

// A copy or kept file deleted or moved away since the scan is no failure: it changed since the
// scan, and nothing of it is left to reclaim. Every step undoes its own work before it throws, so
// a path that is gone was taken away by someone else.
std::exception_ptr engine::vanishedAsSkip(std::exception_ptr error, const CloneEngine::Replacement& r) {
    try {
        std::rethrow_exception(error);
    } catch (const LeftForRecovery&) {
        // Its journal entry must stay open for the recovery, whatever became of the paths.
    } catch (const SystemError& system) {
        bool gone = system.code == ENOENT || system.code == ENOTDIR;
        if (gone && (!platform::pathExists(r.target) || !platform::pathExists(r.source))) {
            return std::make_exception_ptr(Skip(SkipReason::changedSinceScan));
        }
    } catch (...) {
    }
    return error;
}

std::exception_ptr engine::explained(std::exception_ptr error, const std::string& file) {
    try {
        std::rethrow_exception(error);
    } catch (const ReplaceError&) {
        return error;
    } catch (const SystemError& failure) {
        return std::make_exception_ptr(ReplaceError(failure, file));
    } catch (...) {
        return error;
    }
}

std::optional<JournalEntry> engine::closingOf(JournalEntry entry, std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const LeftForRecovery&) {
        return std::nullopt;
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
    return entry;
}

void CloneEngine::flush(Closings& closings) {
    if (journal && !closings.entries.empty()) {
        try {
            journal->append(closings.entries);
        } catch (...) {
            // The outcomes still reach the caller; a journal that cannot be written shows at the
            // next start, where the entries left open are closed as "nothing left over".
        }
    }
    for (const auto& [r, outcome] : closings.outcomes) closings.done(r, outcome);
    closings.entries.clear();
    closings.outcomes.clear();
}

void CloneEngine::recordReplaced(Swapped& s, Closings& closings) {
    s.held.reset();
    JournalEntry entry = std::move(s.entry);
    entry.event = JournalEntry::Event::replaced;
    entry.time = std::time(nullptr);
    entry.freedBytes = s.freed;
    if (s.after) {
        entry.after = std::move(s.after);
    } else {
        try {
            entry.after = Snapshot::take(s.target.target);
        } catch (const std::exception&) {
        }
    }
    closings.entries.push_back(std::move(entry));
    closings.outcomes.emplace_back(s.target, Outcome{s.freed, nullptr});
}

void CloneEngine::recordFailed(const Replacement& r, const JournalEntry& entry, std::exception_ptr error,
                               Closings& closings, bool vanishedIsSkip) {
    if (vanishedIsSkip) error = engine::vanishedAsSkip(error, r);
    error = engine::explained(error, r.target);
    if (auto closing = engine::closingOf(entry, error)) closings.entries.push_back(std::move(*closing));
    closings.outcomes.emplace_back(r, Outcome{0, error});
}

size_t CloneEngine::cloneBatch(const std::vector<Replacement>& batch, std::vector<JournalEntry>& announced,
                               const std::function<bool(const Replacement&)>& willStart, OpenList& open,
                               Closings& closings, std::vector<Swapped>& swapped) {
    // Every clone of the batch is built first, without a name; then one journal write, synced
    // once, makes all their identities durable; only then does each get its name and take the
    // copy's place. One wait for the disk per batch instead of one per copy.
    std::shared_ptr<Kept> kept;
    std::vector<std::pair<Swapped, size_t>> built;
    size_t next = 0;
    for (; next < batch.size(); ++next) {
        const Replacement& r = batch[next];
        if (willStart && !willStart(r)) break;
        JournalEntry& entry = announced[next];
        try {
            Swapped s = look(r, entry, open, kept);
            buildClone(s, entry, r);
            built.emplace_back(std::move(s), next);
        } catch (...) {
            recordFailed(r, entry, std::current_exception(), closings);
        }
    }
    std::vector<JournalEntry> identities;
    for (const auto& [s, index] : built) {
        if (!s.named) identities.push_back(announced[index]);
    }
    try {
        if (journal) journal->append(identities);
    } catch (...) {
        // No clone may get a name that the journal could not announce: the unnamed ones vanish.
        auto error = std::current_exception();
        for (auto& [s, index] : built) {
            if (!s.named) recordFailed(batch[index], announced[index], error, closings);
        }
        std::erase_if(built, [](const auto& b) { return !b.first.named; });
    }
    flush(closings);
    for (auto& [s, index] : built) {
        try {
            placeClone(s, batch[index]);
            s.entry = announced[index];
            swapped.push_back(std::move(s));
        } catch (...) {
            recordFailed(batch[index], announced[index], std::current_exception(), closings);
            flush(closings);
        }
    }
    return next;
}

void CloneEngine::replace(const std::vector<Replacement>& batch,
                          const std::function<bool(const Replacement&)>& willStart, const Done& done) {
    const bool swaps = strategy == Strategy::cloneAndSwap;
    // Every started entry of the batch is written and synced in one go before the batch changes
    // anything: one wait for the disk per batch rather than one per copy.
    std::vector<JournalEntry> announced;
    announced.reserve(batch.size());
    for (const auto& r : batch) {
        JournalEntry entry = JournalEntry::make(JournalEntry::Event::started, r.target);
        entry.source = r.source;
        entry.digest = r.digest;
        // Clone and swap's recovery tells the copy from the clone by the copy's identity. Shared in
        // place, nothing is ever left over to tell apart: the closing entry carries the snapshot
        // read on the open copy, and the announcement costs no extra reads of it.
        if (swaps) {
            entry.temporary = temporaryPathFor(r.target);
            try {
                entry.before = Snapshot::take(r.target);
            } catch (const std::exception&) {
                // The replacement's own checks say what is wrong with the copy.
            }
        }
        announced.push_back(std::move(entry));
    }
    if (journal) {
        try {
            journal->append(announced);
        } catch (...) {
            // Nothing may change that the journal could not announce.
            for (const auto& r : batch) done(r, {0, std::current_exception()});
            return;
        }
    }
    // Only clone and swap needs the list of every process's open files, and only as a fallback
    // where the kernel cannot answer for one file: it is read on the first such file, if any.
    OpenList open;
    Closings closings{done, {}, {}};
    std::vector<Swapped> swapped;
    size_t next = 0;
    if (!swaps) {
        next = shareBatch(batch, announced, willStart, closings);
    } else if (coordinate) {
        // A write lease makes every other program that opens the copy wait: each copy is taken
        // through to its exchange on its own, holding its lease only meanwhile.
        std::shared_ptr<Kept> kept;
        for (; next < batch.size(); ++next) {
            const Replacement& r = batch[next];
            if (willStart && !willStart(r)) break;
            JournalEntry& entry = announced[next];
            try {
                swapped.push_back(swapIn(r, entry, open, kept));
            } catch (...) {
                recordFailed(r, entry, std::current_exception(), closings);
                flush(closings);
            }
        }
    } else {
        next = cloneBatch(batch, announced, willStart, open, closings, swapped);
    }
    // Announced but never begun: closed now, so that no recovery takes them for interrupted.
    if (journal && next < batch.size()) {
        std::vector<JournalEntry> notBegun(announced.begin() + static_cast<std::ptrdiff_t>(next), announced.end());
        for (auto& entry : notBegun) {
            entry.event = JournalEntry::Event::skipped;
            entry.detail = "cancelled";
            entry.time = std::time(nullptr);
        }
        try {
            journal->append(notBegun);
        } catch (...) {
            // Left open, they are closed as "nothing left over" by the next recovery.
        }
    }
    if (swapped.empty()) return;
    // Read afresh for the removals, and only if some file could not be asked of the kernel. Read
    // before any removal, so that a list that cannot be read leaves every entry open for recovery.
    OpenList again;
    bool listNeeded = std::any_of(swapped.begin(), swapped.end(), [](const Swapped& s) { return !s.leases; });
    try {
        if (listNeeded) again.get();
    } catch (...) {
        for (auto& s : swapped) done(s.target, {0, std::current_exception()});
        return;
    }
    for (auto& s : swapped) {
        try {
            finish(s, again);
        } catch (...) {
            recordFailed(s.target, s.entry, std::current_exception(), closings, false);
            flush(closings);
            continue;
        }
        recordReplaced(s, closings);
        flush(closings);
    }
}

int64_t CloneEngine::replace(const std::string& target, const std::string& source, const FileStatus& expected,
                             const std::optional<std::string>& digest) {
    Outcome outcome;
    replace({Replacement{target, source, expected, digest, std::nullopt}}, nullptr,
            [&](const Replacement&, const Outcome& o) { outcome = o; });
    if (outcome.error) std::rethrow_exception(outcome.error);
    return outcome.freed;
}

bool CloneEngine::isTemporary(const std::string& path) { return isTemporaryName(nameOf(path)); }

}  // namespace dedup
