// The kernel calls that make one file share another's blocks, exchange two names atomically, and
// hold other processes off a file while it is replaced.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "../file_records.h"
#include "file_io.h"

namespace dedup::platform {

enum class ShareOutcome { shared, differs, notSupported };

// Asks the kernel to compare `length` bytes of both files from offset 0 and, where they are equal,
// make the target use the source's blocks: in place, changing nothing else about the target. Loops
// over calls of at most 1 GiB, reading both ranges ahead first because the kernel's comparison does
// not. "differs" when the kernel found a difference (nothing of that range was shared).
// Throws SystemError("FIDEDUPERANGE", targetPath, errno) for any other failure.
ShareOutcome shareInPlace(const FileDescriptor& source, const FileDescriptor& target, int64_t length,
                          const std::string& targetPath);

// What the kernel answered for one of several copies shared in one call: `error` is the errno of a
// refusal that is neither "differs" nor "not supported" (0 otherwise).
struct ShareAnswer {
    ShareOutcome outcome = ShareOutcome::shared;
    int error = 0;
};
// The most copies one call takes: the kernel reads the request from one page.
constexpr size_t maxShareTargets = 127;
// The same for several copies of one length at once: one call per 1 GiB step names every copy, so
// the kernel takes the source once and compares each copy against pages it has just read. Each
// copy gets its own answer, in order; a copy refused at one step is left out of the next. At most
// maxShareTargets copies. Throws SystemError("FIDEDUPERANGE", sourcePath, errno) only when the
// kernel refused the call as a whole for a reason other than "not supported".
std::vector<ShareAnswer> shareInPlace(const FileDescriptor& source, std::span<const FileDescriptor* const> targets,
                                      int64_t length, const std::string& sourcePath);

void removeFile(const std::string& path);                                  // SystemError("unlink")
void renamePath(const std::string& from, const std::string& to);           // SystemError("rename")
// Moves the item to the freedesktop.org Trash of its volume. Throws SystemError("trash", path, code).
void moveToTrash(const std::string& path);

// The status of what the descriptor names, to re-check identity right before a change.
FileStatus statusOf(const FileDescriptor& fd, const std::string& path);
// Extent facts read through an open descriptor, so a held write lease is not broken by re-opening.
std::optional<CloneInfo> cloneInfoOf(const FileDescriptor& fd, const std::string& path);
// Compares two open files from their start to their end. Throws SystemError("read").
bool sameContent(const FileDescriptor& a, const std::string& aPath, const FileDescriptor& b, const std::string& bPath);

// A write lease: the kernel tells us when another process opens the file, instead of letting it in
// unnoticed. False when another process has the file open or mapped right now.
bool takeWriteLease(const FileDescriptor& fd, const std::string& path);
// True while no other process has asked for the file since the lease was taken.
bool leaseHeld(const FileDescriptor& fd);
void releaseLease(const FileDescriptor& fd);

// Whether another descriptor (in another process, or another of this one's) has the file open or
// mapped, asked of the kernel for this one file: a write lease is granted only when nobody else
// has it open, and is given back at once. Absent where the file system grants no leases; the
// caller then falls back to the list of every process's open files.
std::optional<bool> openElsewhere(const FileDescriptor& fd);

}  // namespace dedup::platform
