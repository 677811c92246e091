// Putting right what an interrupted replacement left beside a copy. The journal knows the copy's
// identity before the replacement and, once it was made, the clone's; with them the recovery tells
// which file is which, and which of them a program wrote to after the exchange.
#include <cerrno>

#include "clone_engine.h"
#include "clone_engine_internal.h"
#include "hasher.h"
#include "journal.h"
#include "path_names.h"
#include "platform/anchored.h"
#include "platform/clone.h"
#include "platform/system.h"
#include "temporary_name.h"

namespace dedup {

namespace {

bool sameFile(const std::optional<FileStatus>& status, const std::optional<Snapshot>& snapshot) {
    return status && snapshot && status->device == snapshot->status.device && status->inode == snapshot->status.inode;
}

// Size and modification date as the snapshot had them. A rename moves only the change time, so
// these two tell a file that was written to from one that was merely exchanged.
bool unwritten(const FileStatus& status, const Snapshot& snapshot) {
    return status.size == snapshot.status.size && status.modified == snapshot.status.modified;
}

bool sameBytes(const platform::FileDescriptor& folder, const std::string& a, const std::string& b,
               const std::string& folderPath) {
    auto fa = platform::openFileIn(folder, a, folderPath + "/" + a);
    auto fb = platform::openFileIn(folder, b, folderPath + "/" + b);
    return platform::sameContent(fa, folderPath + "/" + a, fb, folderPath + "/" + b);
}

}  // namespace

std::string CloneEngine::Recovered::detail() const {
    std::string text(rawValue(outcome));
    if (keptBeside) text += ": both versions stay; the other is " + *keptBeside;
    return text;
}

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

CloneEngine::Recovered CloneEngine::recoverLeftover(const JournalEntry& entry) {
    if (!entry.temporary || !isTemporary(*entry.temporary)) return {};
    const std::string& path = *entry.temporary;
    const std::string folderPath = parentOf(path);
    const std::string temporaryName = nameOf(path);
    const std::string name = temporaryName.substr(1, temporaryName.rfind(temporaryMarker) - 1);
    auto folder = platform::openFolderWithoutLinks(folderPath);
    auto temporary = platform::statusIn(folder, temporaryName, path);
    if (!temporary) return {};
    auto atName = platform::statusIn(folder, name, folderPath + "/" + name);

    if (!atName) {
        platform::renameWithoutReplacing(folder, temporaryName, folder, name, folderPath + "/" + name);
        return {Leftover::restored, std::nullopt};
    }
    const bool temporaryIsCopy = sameFile(temporary, entry.before);
    const bool temporaryIsClone = sameFile(temporary, entry.after);
    const bool nameIsCopy = sameFile(atName, entry.before);
    const bool nameIsClone = sameFile(atName, entry.after);
    auto bothStay = [&] {
        return Recovered{Leftover::kept, keepBeside(folder, folderPath, temporaryName, name)};
    };

    // Not exchanged yet (or exchanged back): the copy is at its name and the temporary is a clone
    // that was never swapped in.
    if (nameIsCopy) {
        bool emptyClone = temporary->size == 0 && atName->size > 0;
        if (temporaryIsClone || emptyClone || sameBytes(folder, temporaryName, name, folderPath)) {
            platform::removeIn(folder, temporaryName, path);
            return {Leftover::removed, std::nullopt};
        }
        return bothStay();
    }
    if (temporaryIsCopy) {
        bool copyWritten = !unwritten(*temporary, *entry.before);
        // The clone carries the copy's size and dates; a write through the path since moves them.
        bool cloneWritten = !nameIsClone || !unwritten(*atName, *entry.after);
        if (!copyWritten && !cloneWritten && sameBytes(folder, temporaryName, name, folderPath)) {
            // The exchange had happened and nobody wrote since: the replacement is as good as done.
            platform::removeIn(folder, temporaryName, path);
            return {Leftover::removed, std::nullopt};
        }
        if (copyWritten && !cloneWritten) {
            // A program wrote to the copy through a descriptor it had open before the exchange: that
            // version is the newest and goes back to its name; the clone, proven ours, goes.
            if (!platform::exchangeIn(folder, temporaryName, name)) {
                throw SystemError("renameat2", folderPath + "/" + name, errno);
            }
            auto back = platform::statusIn(folder, temporaryName, path);
            if (sameFile(back, entry.after)) {
                platform::removeIn(folder, temporaryName, path);
                return {Leftover::restored, std::nullopt};
            }
            return bothStay();
        }
        if (!copyWritten && cloneWritten && nameIsClone) {
            // Written through its new name after the exchange: the clone holds the newest bytes and
            // the untouched copy is what a finished replacement would have removed.
            platform::removeIn(folder, temporaryName, path);
            return {Leftover::removed, std::nullopt};
        }
        return bothStay();
    }
    // The journal cannot tell which file is which (written before the clone's identity was known):
    // only identical bytes let one go.
    if (!temporaryIsCopy && temporary->size == 0 && atName->size > 0 && !nameIsClone) {
        platform::removeIn(folder, temporaryName, path);
        return {Leftover::removed, std::nullopt};
    }
    if (sameBytes(folder, temporaryName, name, folderPath)) {
        platform::removeIn(folder, temporaryName, path);
        return {Leftover::removed, std::nullopt};
    }
    return bothStay();
}

}  // namespace dedup
