#include "test_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace dedup::test {
namespace {

std::system_error errnoError(int err, const std::string& what) {
  return std::system_error(err, std::generic_category(), what);
}

// Closes on every path out, so a throwing helper never leaks a descriptor
// into the children of later runCommand calls.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

int openRetrying(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

void writeAll(int fd, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      throw errnoError(errno, "write " + path);
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
}

// splitmix64: tiny, fast, and its output is fixed by its definition, unlike
// std:: distributions whose results differ between library versions.
class SeededBytes {
 public:
  explicit SeededBytes(uint64_t seed) : state_(seed) {}
  // Appends n bytes. Only the last call of a sequence may ask for a count that
  // is not a multiple of 8, or the stream would skip bytes.
  void append(std::string& out, size_t n) {
    out.reserve(out.size() + n);
    while (n > 0) {
      uint64_t word = next();
      for (int i = 0; i < 8 && n > 0; ++i, --n) {
        out.push_back(static_cast<char>(word >> (8 * i)));
      }
    }
  }

 private:
  uint64_t next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  uint64_t state_;
};

// Clears what stops root (immutable, append-only) and what stops the owner
// (missing write or search permission on a folder) from deleting `path`.
void makeRemovable(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return;
  bool isDir = S_ISDIR(st.st_mode);
  if (!isDir && !S_ISREG(st.st_mode)) return;  // flags live on files and folders only
  if (isDir) ::chmod(path.c_str(), (st.st_mode & 07777) | S_IRWXU);
  Fd fd(openRetrying(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | (isDir ? O_DIRECTORY : 0)));
  if (fd.get() >= 0) {
    int flags = 0;
    if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) == 0 &&
        (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) != 0) {
      flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
      ::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags);
    }
  }
  if (!isDir) return;
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> children;
  while (dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") children.emplace_back(path + "/" + std::string(name));
  }
  ::closedir(dir);
  for (const std::string& child : children) makeRemovable(child);
}

}  // namespace

void writeFile(const std::string& path, std::string_view bytes) {
  Fd fd(openRetrying(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (fd.get() < 0) throw errnoError(errno, "open " + path);
  writeAll(fd.get(), bytes, path);
  // A failed close can be the first report of a failed write (NFS, quotas).
  if (::close(fd.release()) != 0 && errno != EINTR) throw errnoError(errno, "close " + path);
}

std::string randomBytes(int64_t size, uint64_t seed) {
  if (size < 0) throw std::invalid_argument("randomBytes: negative size");
  std::string out;
  SeededBytes(seed).append(out, static_cast<size_t>(size));
  return out;
}

void writeRandomFile(const std::string& path, int64_t size, uint64_t seed) {
  if (size < 0) throw std::invalid_argument("writeRandomFile: negative size");
  constexpr int64_t kPiece = 1 << 20;  // a multiple of 8, so pieces join seamlessly
  Fd fd(openRetrying(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (fd.get() < 0) throw errnoError(errno, "open " + path);
  SeededBytes source(seed);
  std::string piece;
  for (int64_t done = 0; done < size; done += kPiece) {
    piece.clear();
    source.append(piece, static_cast<size_t>(std::min(kPiece, size - done)));
    writeAll(fd.get(), piece, path);
  }
}

std::string readFile(const std::string& path) {
  Fd fd(openRetrying(path.c_str(), O_RDONLY));
  if (fd.get() < 0) throw errnoError(errno, "open " + path);
  std::string out;
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw errnoError(errno, "read " + path);
    }
    if (n == 0) return out;
    out.append(buffer, static_cast<size_t>(n));
  }
}

bool removeTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
  if (!ec) return true;
  makeRemovable(path);
  ec.clear();
  std::filesystem::remove_all(path, ec);
  return !ec;
}

TempDir::TempDir(std::string_view prefix) {
  const char* env = std::getenv("TMPDIR");
  std::string base = (env != nullptr && *env != '\0') ? env : "/var/tmp";
  std::string pattern = base + "/" + std::string(prefix) + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw errnoError(errno, "mkdtemp " + pattern);
  path_ = std::move(pattern);
}

TempDir::~TempDir() {
  if (!path_.empty()) removeTree(path_);
}

TempDir::TempDir(TempDir&& other) noexcept : path_(std::exchange(other.path_, {})) {}

TempDir& TempDir::operator=(TempDir&& other) noexcept {
  if (this != &other) {
    if (!path_.empty()) removeTree(path_);
    path_ = std::exchange(other.path_, {});
  }
  return *this;
}

std::string TempDir::path(std::string_view relative) const {
  while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
  return path_ + "/" + std::string(relative);
}

std::error_code tryReflinkCopy(const std::string& from, const std::string& to) {
  Fd source(openRetrying(from.c_str(), O_RDONLY));
  if (source.get() < 0) return {errno, std::generic_category()};
  bool created = true;
  Fd target(openRetrying(to.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
  if (target.get() < 0 && errno == EEXIST) {
    created = false;
    target = Fd(openRetrying(to.c_str(), O_WRONLY | O_TRUNC));
  }
  if (target.get() < 0) return {errno, std::generic_category()};
  if (::ioctl(target.get(), FICLONE, source.get()) == 0) return {};
  std::error_code failure(errno, std::generic_category());
  target.reset();
  if (created) ::unlink(to.c_str());
  return failure;
}

void reflinkCopy(const std::string& from, const std::string& to) {
  if (std::error_code ec = tryReflinkCopy(from, to)) {
    throw std::system_error(ec, "FICLONE " + from + " -> " + to);
  }
}

std::string findProgram(std::string_view name) {
  const char* env = std::getenv("PATH");
  std::string folders = std::string(env != nullptr ? env : "") + ":/usr/sbin:/sbin";
  size_t start = 0;
  while (start <= folders.size()) {
    size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    std::string folder = folders.substr(start, end - start);
    start = end + 1;
    if (folder.empty()) continue;  // an empty entry would mean the working folder
    std::string candidate = folder + "/" + std::string(name);
    struct stat st;
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return {};
}

std::string describeCommand(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& arg : argv) {
    if (!line.empty()) line += ' ';
    bool plain = !arg.empty() && arg.find_first_of(" \t'\"\\$") == std::string::npos;
    line += plain ? arg : "'" + arg + "'";
  }
  return line;
}

CommandResult runCommand(const std::vector<std::string>& argv) {
  if (argv.empty()) throw std::invalid_argument("runCommand: empty argv");
  int outPipe[2], errPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0) throw errnoError(errno, "pipe2");
  Fd outRead(outPipe[0]), outWrite(outPipe[1]);
  if (::pipe2(errPipe, O_CLOEXEC) != 0) throw errnoError(errno, "pipe2");
  Fd errRead(errPipe[0]), errWrite(errPipe[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  // dup2 clears close-on-exec on the copy, so only these two reach the child.
  posix_spawn_file_actions_adddup2(&actions, outWrite.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, errWrite.get(), 2);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid = 0;
  int spawnError = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawnError != 0) throw errnoError(spawnError, "cannot start " + describeCommand(argv));
  outWrite.reset();
  errWrite.reset();

  // Both pipes are drained together: a child that fills one while we block on
  // the other would otherwise never finish.
  CommandResult result;
  pollfd fds[2] = {{outRead.get(), POLLIN, 0}, {errRead.get(), POLLIN, 0}};
  std::string* sinks[2] = {&result.stdoutText, &result.stderrText};
  int open = 2;
  char buffer[1 << 14];
  while (open > 0) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;  // poll ignores negative descriptors
        --open;
      }
    }
  }

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) throw errnoError(errno, "waitpid " + describeCommand(argv));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

CommandResult runCommandChecked(const std::vector<std::string>& argv) {
  CommandResult result = runCommand(argv);
  if (result.exitCode != 0) {
    std::string message =
        describeCommand(argv) + " failed with status " + std::to_string(result.exitCode);
    std::string detail = result.stderrText.empty() ? result.stdoutText : result.stderrText;
    while (!detail.empty() && (detail.back() == '\n' || detail.back() == ' ')) detail.pop_back();
    if (!detail.empty()) message += ": " + detail;
    throw std::runtime_error(message);
  }
  return result;
}

}  // namespace dedup::test
