#include "../trash.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gio/gio.h>

#include "../../directory_reader.h"
#include "../../path_names.h"

namespace dedup::platform {

namespace {

std::optional<struct stat> statOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
    return st;
}

// The top of the mount that holds `path`: the highest folder above it on the same device, as the
// freedesktop.org Trash places a disk's Trash.
std::string topFolderOf(const std::string& path, dev_t device) {
    std::string folder = parentOf(path);
    while (folder != "/") {
        std::string up = parentOf(folder);
        auto st = statOf(up);
        if (!st || st->st_dev != device) break;
        folder = up;
    }
    return folder;
}

// The Trash folders GIO may have chosen for an item on `device`, most likely first.
std::vector<std::string> trashFoldersFor(const std::string& path, dev_t device) {
    std::vector<std::string> folders;
    std::string uid = std::to_string(::geteuid());
    std::string top = topFolderOf(path, device);
    std::string base = top == "/" ? "" : top;
    folders.push_back(base + "/.Trash-" + uid);
    folders.push_back(base + "/.Trash/" + uid);
    folders.push_back(std::string(g_get_user_data_dir()) + "/Trash");
    return folders;
}

// A Trash folder's entries; none when it does not exist (yet) or cannot be read.
std::vector<DirectoryEntry> entriesOf(const std::string& folder) {
    try {
        return DirectoryReader::read(folder);
    } catch (const std::exception&) {
        return {};
    }
}

std::string escapedPath(const std::string& path) {
    std::unique_ptr<char, decltype(&g_free)> text(g_uri_escape_string(path.c_str(), "/", FALSE), g_free);
    return text ? text.get() : path;
}

// The folder a disk's Trash folder (".../.Trash-$uid" or ".../.Trash/$uid") belongs to, against which
// its records name paths; "" for the home Trash, whose records name absolute paths.
std::string topOfTrash(const std::string& trash) {
    if (nameOf(trash).starts_with(".Trash-")) return parentOf(trash);
    if (nameOf(parentOf(trash)) == ".Trash") return parentOf(parentOf(trash));
    return {};
}

// The original path a ".trashinfo" record names, made absolute; empty when it names none.
std::string pathInTrashInfo(const std::string& infoFile, const std::string& top) {
    std::ifstream in(infoFile);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.starts_with("Path=")) continue;
        std::unique_ptr<char, decltype(&g_free)> text(g_uri_unescape_string(line.c_str() + 5, nullptr), g_free);
        if (!text) return {};
        std::string path = text.get();
        if (path.starts_with('/') || top.empty()) return path;
        return (top == "/" ? "" : top) + "/" + path;
    }
    return {};
}

bool isStickyFolder(const std::string& path) {
    auto st = statOf(path);
    return st && S_ISDIR(st->st_mode) && (st->st_mode & S_ISVTX) != 0;
}

}  // namespace

std::string trashFolderFor(const std::string& path) {
    auto st = statOf(path);
    if (!st) return {};
    auto home = statOf(g_get_home_dir());
    if (home && home->st_dev == st->st_dev) return std::string(g_get_user_data_dir()) + "/Trash";
    std::string top = topFolderOf(path, st->st_dev);
    std::string base = top == "/" ? "" : top;
    std::string uid = std::to_string(::geteuid());
    if (isStickyFolder(base + "/.Trash")) return base + "/.Trash/" + uid;
    return base + "/.Trash-" + uid;
}

std::string findInTrash(const std::string& original, uint64_t device, uint64_t inode) {
    for (const auto& trash : trashFoldersFor(original, static_cast<dev_t>(device))) {
        for (const auto& entry : entriesOf(trash + "/files")) {
            if (entry.status.inode == inode && entry.status.device == device) return trash + "/files/" + entry.name;
        }
    }
    return {};
}

bool ensureTrashInfo(const std::string& location, const std::string& original) {
    std::string info = parentOf(parentOf(location)) + "/info/" + nameOf(location) + ".trashinfo";
    if (statOf(info)) return true;
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    // A disk's Trash names paths from the top of the disk, so the record still holds when the
    // disk is mounted elsewhere; the home Trash names them whole.
    std::string named = original;
    const std::string top = topOfTrash(parentOf(parentOf(location)));
    if (!top.empty() && top != "/" && original.starts_with(top + "/")) named = original.substr(top.size() + 1);
    std::string text = "[Trash Info]\nPath=" + escapedPath(named) + "\nDeletionDate=" + date + "\n";
    int fd = ::open(info.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return errno == EEXIST;
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
    ::close(fd);
    if (!written) ::unlink(info.c_str());
    return written;
}

int forgetUnfinishedTrashInfo(const std::string& original, uint64_t device) {
    int removed = 0;
    for (const auto& trash : trashFoldersFor(original, static_cast<dev_t>(device))) {
        for (const auto& entry : entriesOf(trash + "/info")) {
            const std::string suffix = ".trashinfo";
            if (!entry.status.isRegularFile() || !entry.name.ends_with(suffix)) continue;
            std::string item = trash + "/files/" + entry.name.substr(0, entry.name.size() - suffix.size());
            if (statOf(item)) continue;
            std::string record = trash + "/info/" + entry.name;
            if (pathInTrashInfo(record, topOfTrash(trash)) == original && ::unlink(record.c_str()) == 0) ++removed;
        }
    }
    return removed;
}

std::string homeTrashFolder() {
    const char* data = std::getenv("XDG_DATA_HOME");
    if (data && *data == '/') return std::string(data) + "/Trash";
    const char* home = std::getenv("HOME");
    return std::string(home && *home ? home : "/") + "/.local/share/Trash";
}

TrashMove moveToTrashOfItsDisk(const std::string& path) {
    TrashMove result;
    auto before = statOf(path);
    if (!before) {
        result.reason = std::string("it cannot be found: ") + std::strerror(errno);
        return result;
    }
    std::unique_ptr<GFile, decltype(&g_object_unref)> file(g_file_new_for_path(path.c_str()), g_object_unref);
    GError* error = nullptr;
    if (!g_file_trash(file.get(), nullptr, &error)) {
        result.reason = error && error->message ? error->message : "the Trash refused it";
        if (error) g_error_free(error);
        return result;
    }
    result.moved = true;
    // GIO does not say where the item went; the rename kept its inode, which names it among the
    // items of the Trash folders it may have used.
    result.location = findInTrash(path, before->st_dev, before->st_ino);
    return result;
}

std::string restoreFromTrash(const std::string& location, const std::string& original) {
    // RENAME_NOREPLACE: whatever stands at the original path now is never overwritten.
    if (::renameat2(AT_FDCWD, location.c_str(), AT_FDCWD, original.c_str(), RENAME_NOREPLACE) != 0) {
        int code = errno;
        if (code == EEXIST) return "something else now stands at " + original;
        if (code == ENOENT && !statOf(location)) return "the Trash no longer holds it";
        if (code == ENOENT) return "its folder " + parentOf(original) + " no longer exists";
        return std::string("it cannot be moved back: ") + std::strerror(code);
    }
    std::string trash = parentOf(parentOf(location));
    ::unlink((trash + "/info/" + nameOf(location) + ".trashinfo").c_str());
    return {};
}

}  // namespace dedup::platform
