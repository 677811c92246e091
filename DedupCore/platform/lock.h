// Advisory locks on a file, held by an open descriptor: the kernel lets go of one the moment its
// process ends, however it ends, so a lock can never be left behind by a crash.
#pragma once

#include <string>

#include "file_io.h"

namespace dedup::platform {

struct LockFile {
    FileDescriptor fd;
    bool writable = false;  // opened read-only when another user owns it: it locks, but says nothing
};

// Opens the lock file, creating it (mode 0644) when missing. Never follows a final symbolic link,
// never blocks on a FIFO, and refuses anything but a regular file: a link planted in its place must
// not make us truncate the file it points to. Throws SystemError("open", path, errno).
LockFile openLockFile(const std::string& path);

// flock(LOCK_EX | LOCK_NB). False when another open of the file holds it; throws SystemError("flock").
bool tryLockExclusive(const FileDescriptor& fd, const std::string& path);

// Puts `text` in place of the file's content: written first, then cut to length, so a reader never
// finds the file empty once someone wrote to it. Throws SystemError("pwrite"/"ftruncate").
void replaceContent(const FileDescriptor& fd, const std::string& path, const std::string& text);
// Empties the file; best effort.
void clearContent(const FileDescriptor& fd);

// Up to `limit` bytes from the start of the file; empty when it cannot be read.
std::string readContent(const FileDescriptor& fd, size_t limit);

long currentProcess();
// Whether a process of this id exists (one we may not signal counts as existing).
bool processExists(long pid);

}  // namespace dedup::platform
