#include "trash_mover.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <openssl/evp.h>

#include "byte_format.h"
#include "directory_reader.h"
#include "hasher.h"
#include "path_names.h"
#include "platform/file_io.h"
#include "platform/system.h"
#include "platform/trash.h"
#include "tree_digest.h"
#include "walk.h"

namespace dedup {

namespace {

// More than this many changes tell a person nothing more: the rest are counted.
constexpr size_t changesShown = 20;

std::string kindName(const FileStatus& s) {
    if (s.isDirectory()) return "a folder";
    if (s.isRegularFile()) return "a file";
    if (s.isSymbolicLink()) return "a symbolic link";
    return "a special file";
}

std::string join(const std::string& folder, const std::string& name) {
    return folder.empty() ? name : folder + "/" + name;
}

class Comparer {
public:
    Comparer(std::string copy, std::string kept) : copy_(std::move(copy)), kept_(std::move(kept)) {}

    CopyComparison run() {
        std::string digest = compare("", 0);
        result_.identical = result_.changes.empty() && extraChanges_ == 0;
        if (extraChanges_ > 0) result_.changes.push_back("and " + std::to_string(extraChanges_) + " more");
        if (result_.identical) result_.digest = digest;
        return std::move(result_);
    }

private:
    void change(std::string text) {
        if (result_.changes.size() < changesShown) {
            result_.changes.push_back(std::move(text));
        } else {
            ++extraChanges_;
        }
    }

    std::string shown(const std::string& rel, const std::string& root) const { return rel.empty() ? root : join(root, rel); }

    // Returns the digest of the kept side's entry (content, tree or link target); empty when the
    // two differ.
    std::string compare(const std::string& rel, uint64_t copyDevice) {
        std::string a = rel.empty() ? copy_ : copy_ + "/" + rel;
        std::string b = rel.empty() ? kept_ : kept_ + "/" + rel;
        FileStatus sa, sb;
        try {
            sa = FileStatus::read(a);
        } catch (const SystemError& e) {
            change(a + " cannot be read: " + std::strerror(e.code));
            return {};
        }
        try {
            sb = FileStatus::read(b);
        } catch (const SystemError& e) {
            change(b + " cannot be read: " + std::strerror(e.code));
            return {};
        }
        result_.seen.emplace_back(a, sa);
        result_.seen.emplace_back(b, sb);
        if (rel.empty()) copyDevice = sa.device;
        if ((sa.mode & 0170000) != (sb.mode & 0170000)) {
            change(shown(rel, ".") + ": " + kindName(sa) + " in " + copy_ + ", " + kindName(sb) + " in " + kept_);
            return {};
        }
        if (sa.isRegularFile()) return compareFiles(a, b, sa, sb);
        if (sa.isSymbolicLink()) {
            std::string ta = platform::readLink(a), tb = platform::readLink(b);
            if (ta != tb) change(a + " points to " + ta + ", " + b + " to " + tb);
            return ta == tb ? tb : std::string();
        }
        if (!sa.isDirectory()) return "-";
        if (sa.device != copyDevice) {
            change(a + " is another disk mounted inside the copy");
            return {};
        }
        return compareFolders(rel, a, b, copyDevice);
    }

    std::string compareFiles(const std::string& a, const std::string& b, const FileStatus& sa, const FileStatus& sb) {
        if (sa.size != sb.size) {
            change(a + " has " + formatBytes(sa.size) + ", " + b + " " + formatBytes(sb.size));
            return {};
        }
        result_.bytes += sa.size;
        try {
            auto fa = platform::openForReading(a);
            auto fb = platform::openForReading(b);
            std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
            EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
            std::vector<std::byte> ba(ContentHash::chunkSize), bb(ContentHash::chunkSize);
            int64_t offset = 0;
            for (;;) {
                size_t na = platform::readSome(fa, a, ba);
                size_t nb = 0;
                // Both files are read to the same length, as a short read of one says nothing.
                while (nb < na) {
                    size_t got = platform::readSome(fb, b, std::span(bb).subspan(nb, na - nb));
                    if (got == 0) break;
                    nb += got;
                }
                if (na != nb || std::memcmp(ba.data(), bb.data(), na) != 0) {
                    change(a + " and " + b + " differ from byte " + std::to_string(offset) + " on");
                    return {};
                }
                if (na == 0) {
                    std::byte extra;
                    if (platform::readSome(fb, b, std::span(&extra, 1)) != 0) {
                        change(b + " grew while it was read");
                        return {};
                    }
                    break;
                }
                EVP_DigestUpdate(context.get(), bb.data(), nb);
                offset += static_cast<int64_t>(na);
            }
            Digest digest{};
            unsigned int length = 0;
            EVP_DigestFinal_ex(context.get(), digest.data(), &length);
            return digestText(digest);
        } catch (const SystemError& e) {
            change(e.path + " cannot be read: " + std::strerror(e.code));
            return {};
        }
    }

    std::string compareFolders(const std::string& rel, const std::string& a, const std::string& b, uint64_t device) {
        std::map<std::string, FileStatus> ea, eb;
        try {
            for (auto& entry : DirectoryReader::read(a)) ea.emplace(entry.name, entry.status);
            for (auto& entry : DirectoryReader::read(b)) eb.emplace(entry.name, entry.status);
        } catch (const SystemError& e) {
            change(e.path + " cannot be read: " + std::strerror(e.code));
            return {};
        }
        bool same = true;
        for (const auto& [name, status] : ea) {
            if (!eb.contains(name)) {
                change("only in " + copy_ + ": " + join(rel, name));
                same = false;
            }
        }
        for (const auto& [name, status] : eb) {
            if (!ea.contains(name)) {
                change("only in " + kept_ + ": " + join(rel, name));
                same = false;
            }
        }
        std::vector<TreeItem> items;
        for (const auto& [name, status] : ea) {
            if (!eb.contains(name)) continue;
            std::string payload = compare(join(rel, name), device);
            if (payload.empty()) same = false;
            TreeItem::Kind kind = status.isDirectory()      ? TreeItem::Kind::folder
                                  : status.isRegularFile()  ? TreeItem::Kind::file
                                  : status.isSymbolicLink() ? TreeItem::Kind::link
                                                            : TreeItem::Kind::other;
            if (kind == TreeItem::Kind::other) payload.clear();
            items.push_back({kind, name, payload});
        }
        return same ? treeDigest(std::move(items)) : std::string();
    }

    std::string copy_, kept_;
    CopyComparison result_;
    size_t extraChanges_ = 0;
};

bool isInside(const std::string& path, const std::string& folder) {
    if (path == folder) return true;
    if (folder == "/") return true;
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/';
}

// The real place of a path whose last part is taken as it stands: the folders above it resolved.
std::string placeOf(const std::string& path) {
    auto parent = platform::realPath(parentOf(path));
    if (!parent) return path;
    return *parent == "/" ? "/" + nameOf(path) : *parent + "/" + nameOf(path);
}

}  // namespace

CopyComparison CopyComparison::of(const std::string& copy, const std::string& kept) {
    return Comparer(copy, kept).run();
}

std::string TrashRecovery::describe() const {
    switch (found) {
        case Found::inPlace:
            return "The move of " + started.target + " to the Trash was cut short before it went; it stays where it is.";
        case Found::inTrash:
            return "The move of " + started.target + " to the Trash was cut short after it went; it is in the Trash at " +
                   location + " and \"dedup journal restore\" puts it back.";
        case Found::nowhere: break;
    }
    return "The move of " + started.target + " to the Trash was cut short, and it is now neither there nor in its disk's "
           "Trash: it was moved, or the Trash emptied, since.";
}

namespace TrashMover {

std::string trashFolderFor(const std::string& path) { return platform::trashFolderFor(path); }

std::vector<TrashRecovery> recoverInterrupted(Journal& journal) {
    auto held = journal.lockRecovery();
    std::vector<TrashRecovery> found;
    for (auto& entry : journal.interrupted()) {
        if (!entry.isTrashMove()) continue;
        TrashRecovery recovery;
        recovery.started = entry;
        JournalEntry closing = entry;
        closing.detail.reset();
        closing.time = JournalEntry::make(JournalEntry::Event::recovered, entry.target).time;
        std::optional<FileStatus> now;
        try {
            now = FileStatus::read(entry.target);
        } catch (const SystemError&) {
        }
        const FileStatus* before = entry.before ? &entry.before->status : nullptr;
        // Something at the old place that is not the copy (a new file saved there since) says
        // nothing of where the copy went.
        bool inPlace = now && (!before || (now->device == before->device && now->inode == before->inode));
        if (!inPlace && before) recovery.location = platform::findInTrash(entry.target, before->device, before->inode);
        if (inPlace) {
            recovery.found = TrashRecovery::Found::inPlace;
            // GIO writes the Trash's record before it moves the item: a record without its item
            // would list in the Trash a copy that is not there.
            if (before) platform::forgetUnfinishedTrashInfo(entry.target, before->device);
            closing.event = JournalEntry::Event::recovered;
            closing.detail = "never reached the Trash; it stays where it is";
        } else if (!recovery.location.empty()) {
            recovery.found = TrashRecovery::Found::inTrash;
            platform::ensureTrashInfo(recovery.location, entry.target);
            closing.event = JournalEntry::Event::trashed;
            closing.detail = recovery.location;
            try {
                closing.after = Snapshot::take(recovery.location);
            } catch (const SystemError&) {
            }
            if (before && before->isRegularFile()) closing.freedBytes = before->size;
        } else {
            recovery.found = TrashRecovery::Found::nowhere;
            closing.event = JournalEntry::Event::recovered;
            closing.detail = "neither at its place nor in its disk's Trash";
        }
        journal.append(closing);
        found.push_back(std::move(recovery));
    }
    return found;
}

TrashOutcome moveCopy(const std::string& copy, const std::string& kept, Journal& journal) {
    TrashOutcome outcome;
    auto refuse = [&](std::string reason) {
        outcome.result = TrashOutcome::Result::refused;
        outcome.reason = std::move(reason);
        return outcome;
    };
    FileStatus copyStatus, keptStatus;
    try {
        copyStatus = FileStatus::read(copy);
    } catch (const SystemError& e) {
        return refuse(copy + " cannot be found: " + std::strerror(e.code));
    }
    try {
        keptStatus = FileStatus::read(kept);
    } catch (const SystemError& e) {
        return refuse(kept + " cannot be found: " + std::strerror(e.code));
    }
    if (copyStatus.isSymbolicLink() || keptStatus.isSymbolicLink()) {
        return refuse("a symbolic link is not a copy: name the file or folder itself");
    }
    if (!copyStatus.isRegularFile() && !copyStatus.isDirectory()) return refuse(copy + " is neither a file nor a folder");
    if (copyStatus.device == keptStatus.device && copyStatus.inode == keptStatus.inode) {
        return refuse(copy + " and " + kept + " are the same file, not two copies");
    }
    // Folders given through links, or one copy inside the other: moving the one would take the
    // other along.
    std::string copyPlace = placeOf(copy), keptPlace = placeOf(kept);
    if (isInside(keptPlace, copyPlace) || isInside(copyPlace, keptPlace)) {
        return refuse("one copy lies inside the other");
    }
    if (copyStatus.isDirectory() && Walk::isVolumeRoot(copy)) return refuse(copy + " is the top of a disk");

    CopyComparison comparison = CopyComparison::of(copy, kept);
    auto changed = [&](std::vector<std::string> changes) {
        outcome.result = TrashOutcome::Result::changed;
        outcome.changes = std::move(changes);
        return outcome;
    };
    if (!comparison.identical) return changed(std::move(comparison.changes));
    // The last look before the move: a program that saved over either copy, or an entry added or
    // removed while the comparison ran, shows in a status read again.
    std::vector<std::string> moved;
    for (const auto& [path, status] : comparison.seen) {
        try {
            if (!FileStatus::read(path).isSameVersion(status)) moved.push_back(path + " changed while it was checked");
        } catch (const SystemError&) {
            moved.push_back(path + " went away while it was checked");
        }
    }
    if (!moved.empty()) return changed(std::move(moved));

    JournalEntry started = JournalEntry::make(JournalEntry::Event::started, copy);
    started.detail = std::string(JournalEntry::trashMove);
    started.source = kept;
    started.digest = comparison.digest;
    try {
        started.before = Snapshot::take(copy);
    } catch (const SystemError&) {
    }
    journal.append(started);
    outcome.journalId = started.id;
    outcome.digest = comparison.digest;
    outcome.bytes = comparison.bytes;

    platform::TrashMove move = platform::moveToTrashOfItsDisk(copy);
    JournalEntry closing = started;
    closing.detail.reset();
    closing.time = JournalEntry::make(JournalEntry::Event::trashed, copy).time;
    if (!move.moved) {
        closing.event = JournalEntry::Event::failed;
        closing.detail = "the Trash refused it: " + move.reason;
        journal.append(closing);
        return refuse("it cannot go to the Trash (" + move.reason + "); it stays where it is");
    }
    closing.event = JournalEntry::Event::trashed;
    closing.freedBytes = comparison.bytes;
    if (!move.location.empty()) {
        closing.detail = move.location;
        try {
            closing.after = Snapshot::take(move.location);
        } catch (const SystemError&) {
        }
    }
    journal.append(closing);
    outcome.result = TrashOutcome::Result::moved;
    outcome.location = move.location;
    return outcome;
}

RestoreOutcome restore(Journal& journal, const std::string& idOrPath) {
    RestoreOutcome outcome;
    recoverInterrupted(journal);
    auto entries = journal.entries();
    const JournalEntry* found = nullptr;
    for (const auto& entry : entries) {
        if (entry.event == JournalEntry::Event::trashed && (entry.id == idOrPath || entry.target == idOrPath)) {
            found = &entry;
        }
    }
    if (!found) {
        outcome.reason = "the journal records no move to the Trash of " + idOrPath;
        return outcome;
    }
    outcome.target = found->target;
    bool alreadyBack = std::any_of(entries.begin(), entries.end(), [&](const JournalEntry& e) {
        return e.id == found->id && e.event == JournalEntry::Event::recovered;
    });
    if (alreadyBack) {
        outcome.reason = found->target + " was already put back";
        return outcome;
    }
    if (!found->detail || found->detail->empty()) {
        outcome.reason = "where " + found->target + " went in the Trash is not known";
        return outcome;
    }
    const std::string& location = *found->detail;
    try {
        FileStatus now = FileStatus::read(location);
        // The same name in the Trash may since hold another item trashed later.
        if (found->after && now.inode != found->after->status.inode) throw SystemError("lstat", location, ENOENT);
    } catch (const SystemError&) {
        outcome.reason = "the Trash no longer holds " + found->target;
        return outcome;
    }
    outcome.reason = platform::restoreFromTrash(location, found->target);
    if (!outcome.reason.empty()) return outcome;
    JournalEntry back = *found;
    back.event = JournalEntry::Event::recovered;
    back.time = JournalEntry::make(JournalEntry::Event::recovered, back.target).time;
    back.detail = "restored from the Trash";
    journal.append(back);
    outcome.restored = true;
    return outcome;
}

}  // namespace TrashMover

}  // namespace dedup
