// Sharing in place: the kernel compares each copy with the kept file under its locks and makes the
// copy use the kept file's blocks, changing nothing else about it. Copies of one group that follow
// one another in a batch go to the kernel in one call, so the kept file is opened, locked, read
// ahead and mapped once for all of them; each copy still gets its own checks, answer, verification
// and journal entry.
#include <algorithm>
#include <vector>

#include "clone_engine_internal.h"
#include "path_names.h"
#include "platform/clone.h"

namespace dedup {

size_t CloneEngine::shareBatch(const std::vector<Replacement>& batch, std::vector<JournalEntry>& announced,
                               const std::function<bool(const Replacement&)>& willStart, Closings& closings) {
    OpenList open;  // never read: nothing here asks who has a copy open
    std::shared_ptr<Kept> kept;
    std::vector<Swapped> together;
    together.reserve(sharedTogether);
    // A group's closing entries go to the journal in one write once its call has ended; copies
    // left alone at their first look wait for the same write.
    auto send = [&] {
        shareTogether(together, closings);
        together.clear();
        flush(closings);
    };
    size_t next = 0;
    for (; next < batch.size(); ++next) {
        const Replacement& r = batch[next];
        if (willStart && !willStart(r)) break;
        // Only copies of one kept file and of one length go together; a full call goes first.
        if (!together.empty() && (together.front().target.source != r.source ||
                                  together.front().original.size != r.expected.size ||
                                  together.size() >= sharedTogether)) {
            send();
        }
        JournalEntry& entry = announced[next];
        try {
            Swapped s = look(r, entry, open, kept);
            step(Step::checked, "");
            s.entry = entry;
            together.push_back(std::move(s));
        } catch (...) {
            recordFailed(r, entry, std::current_exception(), closings);
        }
    }
    // Started copies always run to their end, also when the batch stops early.
    send();
    return next;
}

void CloneEngine::shareTogether(std::vector<Swapped>& copies, Closings& closings) {
    if (copies.empty()) return;
    std::shared_ptr<Kept> kept = copies.front().kept;
    const int64_t length = copies.front().original.size;

    // Identity is checked again on the open descriptors right before the kernel is asked to act;
    // a copy that fails leaves the call, the others go on.
    std::vector<Swapped*> asked;
    std::optional<SkipReason> keptChanged;
    try {
        FileStatus now = platform::statusOf(kept->fd, kept->path);
        if (now.size != length) keptChanged = SkipReason::contentDiffers;
        const auto& expected = copies.front().target.keptExpected;
        if (expected && !now.isSameVersion(*expected)) keptChanged = SkipReason::changedSinceScan;
    } catch (...) {
        for (auto& s : copies) recordFailed(s.target, s.entry, std::current_exception(), closings);
        return;
    }
    for (auto& s : copies) {
        try {
            if (keptChanged) throw Skip(*keptChanged);
            if (!platform::statusOf(s.held, s.target.target).isSameVersion(s.original)) {
                throw Skip(SkipReason::changedSinceScan);
            }
            if (coordinate && !platform::leaseHeld(s.held)) throw Skip(SkipReason::coordinationTimedOut);
            asked.push_back(&s);
        } catch (...) {
            recordFailed(s.target, s.entry, std::current_exception(), closings);
        }
    }
    if (asked.empty()) return;

    std::vector<const platform::FileDescriptor*> targets;
    targets.reserve(asked.size());
    for (auto* s : asked) targets.push_back(&s->held);
    std::vector<platform::ShareAnswer> answers;
    try {
        answers = platform::shareInPlace(kept->fd, targets, length, kept->path);
    } catch (const SystemError& refused) {
        // The kernel refused the call as a whole: each copy says so under its own name.
        for (auto* s : asked) {
            recordFailed(s->target, s->entry,
                         std::make_exception_ptr(SystemError(refused.call, s->target.target, refused.code)), closings);
        }
        return;
    }

    // The kept file's blocks do not move when copies come to share them: its map is read once.
    std::optional<CloneInfo> keptClones;
    bool keptClonesRead = false;
    for (size_t i = 0; i < asked.size(); ++i) {
        Swapped& s = *asked[i];
        try {
            switch (answers[i].outcome) {
                case platform::ShareOutcome::notSupported:
                    // Clone and swap puts another file at the copy's path: a program that holds
                    // the copy open keeps writing to the one that is removed, and the birth time
                    // and inode change. It is therefore never chosen for the user, only done when
                    // asked for; here the copy is left alone, saying which of the two is the case.
                    throw Skip(canClone(s) ? SkipReason::cloneAndSwapNotAsked : SkipReason::volumeCannotClone);
                case platform::ShareOutcome::differs: throw Skip(SkipReason::contentDiffers);
                case platform::ShareOutcome::shared: break;
            }
            if (answers[i].error != 0) throw SystemError("FIDEDUPERANGE", s.target.target, answers[i].error);
            step(Step::cloned, "");
            if (!keptClonesRead) {
                keptClones = platform::cloneInfoOf(kept->fd, kept->path);
                keptClonesRead = true;
            }
            verifyShared(s, keptClones);
            step(Step::verified, "");
        } catch (...) {
            recordFailed(s.target, s.entry, std::current_exception(), closings);
            continue;
        }
        if (coordinate) platform::releaseLease(s.held);
        recordReplaced(s, closings);
    }
}

// The kernel reports the length asked for, not what it shared: the extent map says the truth.
// And sharing must have changed nothing else about the copy.
void CloneEngine::verifyShared(Swapped& s, const std::optional<CloneInfo>& keptClones) {
    const std::string& target = s.target.target;
    auto targetClones = platform::cloneInfoOf(s.held, target);
    if (!keptClones || !targetClones || keptClones->cloneID != targetClones->cloneID) {
        throw std::runtime_error(target + ": the disk did not share its blocks");
    }
    Snapshot after = engine::snapshotOf(s.held, target);
    std::vector<std::string> differs;
    if (after.status != s.before.status) differs.push_back("status");
    if (after.times.modified != s.before.times.modified) differs.push_back("modified");
    if (after.attributeNames != s.before.attributeNames) differs.push_back("xattr names");
    if (after.acl != s.before.acl) differs.push_back("acl");
    if (!differs.empty()) throw VerificationError(target, differs);
    s.after = std::move(after);
    s.freed = std::max<int64_t>(0, s.freed - targetClones->privateSize);
}

}  // namespace dedup
