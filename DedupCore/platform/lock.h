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

// Makes `path` (which must not exist) a lock file held exclusively by the returned descriptor for
// as long as it stays open. The name appears only once the lock is held, so nobody can find the
// file unlocked and take its owner for dead. Throws SystemError("open"/"flock"/"rename").
FileDescriptor createHeldLock(const std::string& path);

// Waits until this process holds `path` exclusively, creating the file when missing; released when
// the descriptor closes. Throws SystemError("open"/"flock").
FileDescriptor waitForLock(const std::string& path);

enum class LockState { absent, free, held };
// Whether a live process holds the lock file; creates nothing. Never throws: a file that cannot be
// opened for any reason but being gone reads as held, the cautious answer.
LockState probeLock(const std::string& path);

// Removes a lock file nobody holds, taking its lock first so a live owner's file is never removed.
void removeFreeLock(const std::string& path);

long currentProcess();
// Whether a process of this id exists (one we may not signal counts as existing).
bool processExists(long pid);

}  // namespace dedup::platform
