// Advisory whole-file locks (flock) that tell a live process from a dead one, and the syncs that
// make the journal durable. The kernel drops a process's flock when the process dies, however it
// dies, so a lock file that can be locked names a process that is gone.
#pragma once

#include <string>

#include "file_io.h"

namespace dedup::platform {

// Makes `path` (which must not exist) a lock file held exclusively by the returned descriptor for
// as long as it stays open. The name appears only once the lock is held, so nobody can find the
// file unlocked and take its owner for dead. Throws SystemError("open"/"flock"/"rename").
FileDescriptor createHeldLock(const std::string& path);

// Waits until this process holds `path` exclusively, creating the file when missing. Released
// when the descriptor closes. Throws SystemError("open"/"flock").
FileDescriptor waitForLock(const std::string& path);

enum class LockState { absent, free, held };
// Whether a live process holds the lock file. Never throws: a file that cannot be opened for any
// reason other than being gone reads as held, the cautious answer.
LockState probeLock(const std::string& path);

// Removes a lock file nobody holds, taking its lock first so a live owner's file is never removed.
void removeFreeLock(const std::string& path);

// fdatasync(2) of a file / fsync(2) of a folder, so that what was written or created in it
// survives a power cut. Throw SystemError("fdatasync"/"fsync").
void syncFile(const std::string& path);
void syncFolder(const std::string& path);

}  // namespace dedup::platform
