#include "mount_table.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace dedup::test {
namespace {

// mountinfo escapes space, tab, newline and backslash as a backslash and
// three octal digits; nothing else is escaped.
std::string decodeMountField(std::string_view field) {
  std::string out;
  out.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const char* d = field.data() + i + 1;
      if (d[0] >= '0' && d[0] <= '7' && d[1] >= '0' && d[1] <= '7' && d[2] >= '0' && d[2] <= '7') {
        out.push_back(static_cast<char>((d[0] - '0') * 64 + (d[1] - '0') * 8 + (d[2] - '0')));
        i += 3;
        continue;
      }
    }
    out.push_back(field[i]);
  }
  return out;
}

bool isBelowOrAt(std::string_view path, std::string_view folder) {
  while (folder.size() > 1 && folder.back() == '/') folder.remove_suffix(1);
  if (path.substr(0, folder.size()) != folder) return false;
  return path.size() == folder.size() || path[folder.size()] == '/' || folder == "/";
}

}  // namespace

std::vector<MountEntry> readMountTable() {
  std::vector<MountEntry> entries;
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  while (std::getline(in, line)) {
    // "id parent major:minor root mount-point options [optional...] - type source super-options"
    std::istringstream fields(line);
    std::string id, parent, devno, root, mountPoint, options, word;
    if (!(fields >> id >> parent >> devno >> root >> mountPoint >> options)) continue;
    while (fields >> word && word != "-") {
    }
    MountEntry entry;
    std::string fsType, source;
    fields >> fsType >> source;
    entry.mountPoint = decodeMountField(mountPoint);
    entry.fsType = decodeMountField(fsType);
    entry.source = decodeMountField(source);
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<MountEntry> findMount(std::string_view path) {
  std::optional<MountEntry> found;
  for (MountEntry& entry : readMountTable()) {
    if (entry.mountPoint == path) found = std::move(entry);
  }
  return found;
}

std::vector<std::string> mountsUnder(std::string_view folder) {
  std::vector<std::string> points;
  for (MountEntry& entry : readMountTable()) {
    if (isBelowOrAt(entry.mountPoint, folder)) points.push_back(std::move(entry.mountPoint));
  }
  return points;
}

std::vector<LoopDevice> loopDevicesBackedBy(std::string_view folder) {
  std::vector<LoopDevice> found;
  DIR* dir = ::opendir("/sys/block");
  if (dir == nullptr) return found;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name.rfind("loop", 0) != 0) continue;
    // The attribute only reads while a file is attached.
    std::ifstream in("/sys/block/" + name + "/loop/backing_file");
    std::string backing;
    if (!std::getline(in, backing) || backing.empty()) continue;
    std::string_view live = backing;
    constexpr std::string_view kDeleted = " (deleted)";
    if (live.size() > kDeleted.size() && live.substr(live.size() - kDeleted.size()) == kDeleted) {
      live.remove_suffix(kDeleted.size());
    }
    if (isBelowOrAt(live, folder)) found.push_back({"/dev/" + name, backing});
  }
  ::closedir(dir);
  return found;
}

int detachLoopDevice(const std::string& device) {
  int fd = ::open(device.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int result = ::ioctl(fd, LOOP_CLR_FD, 0) == 0 ? 0 : errno;
  ::close(fd);
  return result;
}

}  // namespace dedup::test
