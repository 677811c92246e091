#include "../clone_probe.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "../../journal.h"
#include "../../temporary_name.h"
#include "../file_io.h"

namespace dedup::platform {

namespace {

// An unnamed file in the folder, or failing that a named one already unlinked; closed on failure.
FileDescriptor scratchFile(const std::string& folder) {
    int fd;
    do {
        fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) return FileDescriptor(fd);
    // Network file systems have no unnamed files.
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return {};
    std::string path = folder + "/.probe" + std::string(temporaryMarker) + makeUUID();
    do {
        fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, 0600);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return {};
    ::unlink(path.c_str());
    return FileDescriptor(fd);
}

}  // namespace

std::optional<bool> cloneWorksIn(const std::string& folder) {
    FileDescriptor source = scratchFile(folder);
    if (!source) return std::nullopt;
    FileDescriptor target = scratchFile(folder);
    if (!target) return std::nullopt;
    // One block with data: some file systems answer an empty clone without asking the disk.
    const std::vector<char> block(4096, 'd');
    size_t written = 0;
    while (written < block.size()) {
        ssize_t n = ::write(source.get(), block.data() + written, block.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::nullopt;
        written += static_cast<size_t>(n);
    }
    int result;
    do {
        result = ::ioctl(target.get(), FICLONE, source.get());
    } while (result != 0 && errno == EINTR);
    if (result == 0) return true;
    if (errno == EOPNOTSUPP || errno == ENOTTY || errno == EXDEV || errno == EINVAL || errno == ENOSYS) return false;
    return std::nullopt;  // ENOSPC, EIO, EPERM...: no answer about the file system itself
}

}  // namespace dedup::platform
