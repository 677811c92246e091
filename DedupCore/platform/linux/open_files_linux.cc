// Files other processes hold: their descriptors, their mapped files, their working and root folders.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "../../replaceability.h"

namespace dedup {

namespace {

void insertStat(OpenFiles& open, const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0) open.files.insert({st.st_dev, st.st_ino});
}

void forEachEntry(const std::string& folder, auto&& action) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    while (dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        action(folder + "/" + entry->d_name);
    }
    ::closedir(dir);
}

// Without the right to map_files, the maps list names each mapped file; its path is looked up,
// because on Btrfs the device the list shows is not the one stat reports.
void insertMapped(OpenFiles& open, const std::string& pidFolder) {
    std::ifstream maps(pidFolder + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
        auto slash = line.find(" /");
        if (slash == std::string::npos) continue;
        std::string path = line.substr(slash + 1);
        if (path.ends_with(" (deleted)")) continue;
        insertStat(open, path);
    }
}

}  // namespace

OpenFiles OpenFiles::now() {
    OpenFiles open;
    const std::string self = std::to_string(::getpid());
    DIR* proc = ::opendir("/proc");
    if (!proc) return open;
    while (dirent* entry = ::readdir(proc)) {
        const char* name = entry->d_name;
        if (name[0] < '0' || name[0] > '9' || self == name) continue;
        std::string pid = std::string("/proc/") + name;
        // The descriptor links lead to the open files themselves; stat follows them there.
        forEachEntry(pid + "/fd", [&](const std::string& fd) { insertStat(open, fd); });
        bool anyMapFile = false;
        forEachEntry(pid + "/map_files", [&](const std::string& region) {
            anyMapFile = true;
            insertStat(open, region);
        });
        if (!anyMapFile) insertMapped(open, pid);
        insertStat(open, pid + "/cwd");
        insertStat(open, pid + "/root");
    }
    ::closedir(proc);
    return open;
}

}  // namespace dedup
