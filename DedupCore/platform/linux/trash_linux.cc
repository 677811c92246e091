#include "../trash.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
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

}  // namespace

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
    for (const auto& trash : trashFoldersFor(path, before->st_dev)) {
        std::vector<DirectoryEntry> entries;
        try {
            entries = DirectoryReader::read(trash + "/files");
        } catch (const std::exception&) {
            continue;
        }
        for (const auto& entry : entries) {
            if (entry.status.inode == before->st_ino && entry.status.device == before->st_dev) {
                result.location = trash + "/files/" + entry.name;
                return result;
            }
        }
    }
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
