// Reaching a user's files through folder descriptors instead of paths. A folder is opened from the
// root of the file-system tree down without following any symbolic link, and every later call names
// a file inside that descriptor. A folder swapped for a link after the scan therefore cannot lead a
// change out of the tree the scan saw: opening it fails, and a descriptor already open keeps naming
// the folder it was opened on.
//
// Every failure is a SystemError naming the Linux call and the path.
#pragma once

#include <optional>
#include <string>

#include "../file_records.h"
#include "file_io.h"

namespace dedup::platform {

// The folder at the absolute `path`, opened from "/" down without following a symbolic link that
// another user made: openat2 with RESOLVE_NO_SYMLINKS, else (a link on the way, or no openat2) one
// O_NOFOLLOW|O_DIRECTORY step per component, following only links owned by root or by this
// process's user. Any other link on the way fails with ELOOP (or ENOTDIR).
// Throws SystemError("openat2", path, errno).
FileDescriptor openFolderWithoutLinks(const std::string& path);

// `name` inside `folder`, read-only, never following a link, without blocking on a FIFO and leaving
// the access time alone where allowed. `path` names it in errors. Throws SystemError("openat").
FileDescriptor openFileIn(const FileDescriptor& folder, const std::string& name, const std::string& path);

// The status of `name` in `folder`, not following a link; absent when nothing has that name.
// Throws SystemError("statx") for any other failure.
std::optional<FileStatus> statusIn(const FileDescriptor& folder, const std::string& name, const std::string& path);

// Dates of the open file or folder, and setting its modification and access dates.
FileTimes timesOf(const FileDescriptor& fd, const std::string& path);        // SystemError("statx")
void setTimes(const FileDescriptor& fd, const FileTimes& times, const std::string& path);  // "futimens"

// A new file in `folder` with no name at all (O_TMPFILE, mode 0600): nobody else can open it, and
// it vanishes with this process. An empty descriptor where the file system cannot make one.
// Throws SystemError("openat") for other failures.
FileDescriptor anonymousFileIn(const FileDescriptor& folder, const std::string& path);
// A new, private (0600) file named `name` in `folder`; fails if the name exists.
// Throws SystemError("openat").
FileDescriptor createFileIn(const FileDescriptor& folder, const std::string& name, const std::string& path);
// Makes the empty `destination` share every block of `source` (FICLONE). False where the file
// system cannot or the two lie on different file systems. Throws SystemError("FICLONE").
bool cloneInto(const FileDescriptor& destination, const FileDescriptor& source, const std::string& path);
// Gives a nameless file the name `name` in `folder`; fails if the name exists.
// Throws SystemError("linkat").
void linkInto(const FileDescriptor& file, const FileDescriptor& folder, const std::string& name,
              const std::string& path);

// renameat2(RENAME_EXCHANGE) of two names in one folder: both must exist. False with errno set.
bool exchangeIn(const FileDescriptor& folder, const std::string& a, const std::string& b);
// renameat2(RENAME_NOREPLACE): never puts anything over an existing name.
// Throws SystemError("renameat2", path of `to`, errno).
void renameWithoutReplacing(const FileDescriptor& fromFolder, const std::string& from, const FileDescriptor& toFolder,
                            const std::string& to, const std::string& path);
bool tryRenameWithoutReplacing(const FileDescriptor& fromFolder, const std::string& from,
                               const FileDescriptor& toFolder, const std::string& to);
// unlinkat; a missing name is an error too. Throws SystemError("unlinkat").
void removeIn(const FileDescriptor& folder, const std::string& name, const std::string& path);
bool tryRemoveIn(const FileDescriptor& folder, const std::string& name);
// A folder only its owner may enter. Throws SystemError("mkdirat").
void makeFolderIn(const FileDescriptor& folder, const std::string& name, const std::string& path);
bool tryRemoveFolderIn(const FileDescriptor& folder, const std::string& name);
FileDescriptor openSubfolder(const FileDescriptor& folder, const std::string& name, const std::string& path);

// The Linux attribute bits of an open file (FS_IOC_GETFLAGS); 0 where the file system has none.
// Throws SystemError("FS_IOC_GETFLAGS").
int attributeBitsOf(const FileDescriptor& fd, const std::string& path);

}  // namespace dedup::platform
