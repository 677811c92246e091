#include "../system.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <vector>

namespace dedup::platform {

std::optional<std::string> realPath(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (!resolved) return std::nullopt;
    std::string result(resolved);
    std::free(resolved);
    return result;
}

std::string readLink(const std::string& path) {
    std::vector<char> buffer(PATH_MAX);
    ssize_t n = ::readlink(path.c_str(), buffer.data(), buffer.size());
    if (n < 0) return "";
    return std::string(buffer.data(), static_cast<size_t>(n));
}

bool canAccess(const std::string& path, int mode) {
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS | AT_SYMLINK_NOFOLLOW) == 0;
}

uint32_t effectiveUser() { return ::geteuid(); }

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/";
}

bool pathExists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

bool isMountRoot(const std::string& path) {
    struct statx sx {};
    if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_TYPE, &sx) != 0) return false;
    return (sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) && (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT);
}

}  // namespace dedup::platform
