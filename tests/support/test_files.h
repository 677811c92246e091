// Helpers shared by the tests: making, reading and cloning files, temporary
// folders and running outside commands. Nothing here knows about the engine,
// so a fault in the engine can never hide behind a fault in its own fixture.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace dedup::test {

// Writes `bytes` to `path`, creating or truncating it. Throws std::system_error
// naming the path on failure.
void writeFile(const std::string& path, std::string_view bytes);

// The same `size` bytes for the same `seed` on every machine and every run, so
// a failing test can be replayed exactly. Different seeds give different bytes
// from the first 8 on.
std::string randomBytes(int64_t size, uint64_t seed);

// Writes randomBytes(size, seed) to `path` in pieces, so files far larger than
// memory can be made.
void writeRandomFile(const std::string& path, int64_t size, uint64_t seed);

// The whole content of `path`. Throws std::system_error naming the path.
std::string readFile(const std::string& path);

// Removes `path` and everything below it, first clearing the immutable and
// append-only flags and restoring owner permissions that tests may have set,
// because those would otherwise make the removal fail and leave debris.
// Missing paths are not an error. Returns false (and leaves what it could not
// remove) instead of throwing, since it runs from destructors.
bool removeTree(const std::string& path);

// A freshly made, empty folder that is removed with everything in it when the
// object dies. It lives under $TMPDIR when that is set, else under /var/tmp:
// /tmp is often a tmpfs, whose behaviour (no FIEMAP, no birth time) differs
// from the disks users keep their files on.
// Owns the folder. Any thread may use it; moving transfers ownership.
class TempDir {
 public:
  explicit TempDir(std::string_view prefix = "dedup-test");
  ~TempDir();
  TempDir(TempDir&& other) noexcept;
  TempDir& operator=(TempDir&& other) noexcept;
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // `relative` joined under the folder; leading slashes are ignored.
  std::string path(std::string_view relative) const;

 private:
  std::string path_;
};

// Makes `to` share all blocks of `from` with ioctl(FICLONE). `to` is created
// (mode 0644) or truncated. Throws std::system_error whose code is the errno
// of the failing call: EOPNOTSUPP where the file system cannot share blocks,
// EXDEV across file systems. A `to` created by this call is removed again
// on failure.
void reflinkCopy(const std::string& from, const std::string& to);

// As reflinkCopy, but reports the failure as a value for tests that expect it.
std::error_code tryReflinkCopy(const std::string& from, const std::string& to);

// What a finished command left behind. exitCode is the status it exited with,
// or 128 + the signal number when a signal ended it, as shells report it.
struct CommandResult {
  int exitCode = 0;
  std::string stdoutText;
  std::string stderrText;
};

// Runs argv[0] (looked up in PATH) with stdin from /dev/null and both outputs
// captured, and waits for it. Safe to call from several threads at once: the
// pipes are close-on-exec so one child never holds another's pipe open.
// Throws std::system_error when the program cannot be started at all.
CommandResult runCommand(const std::vector<std::string>& argv);

// As runCommand, but a non-zero exit throws std::runtime_error carrying the
// command line, the exit status and what the command wrote on stderr.
CommandResult runCommandChecked(const std::vector<std::string>& argv);

// Full path of the program `name` from PATH, else from /usr/sbin or /sbin,
// which the PATH of a non-login shell or a CI job may lack. Empty when it is
// not installed.
std::string findProgram(std::string_view name);

// The command line as one readable string, for error messages.
std::string describeCommand(const std::vector<std::string>& argv);

}  // namespace dedup::test
