// Helpers shared by the tests: making, reading and cloning files, temporary folders and running
// outside commands. Nothing here knows about the engine, so a fault in the engine can never hide
// behind a fault in its own fixture. Failures throw std::system_error naming the path.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace dedup::test {

// The writers make the folders above the file as needed.
void writeFile(const std::string& path, std::string_view bytes);
// The same bytes for the same seed on every machine and run, so a failure can be replayed exactly;
// different seeds differ from the first 8 bytes on.
std::string randomBytes(int64_t size, uint64_t seed);
void writeRandomFile(const std::string& path, int64_t size, uint64_t seed);
std::string readFile(const std::string& path);
// The bytes the file's blocks take on disk.
int64_t allocatedOf(const std::string& path);

// A fresh folder, removed with everything in it when the object dies. It lives under $TMPDIR, else
// /var/tmp: /tmp is often a tmpfs, whose files have no extent map and no birth time.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string path(std::string_view relative) const { return path_ + "/" + std::string(relative); }

private:
    std::string path_;
};

// Makes `to` share all blocks of `from` with FICLONE; the error carries the errno, EOPNOTSUPP where
// the file system cannot share blocks.
void reflinkCopy(const std::string& from, const std::string& to);

struct CommandResult {
    int exitCode = 0;  // 128 + the signal number when a signal ended the command, as shells say
    std::string stdoutText;
    std::string stderrText;
};
// Runs argv[0], looked up in PATH, with stdin from /dev/null, and waits for it. Safe from several
// threads at once.
CommandResult runCommand(const std::vector<std::string>& argv);
// As runCommand, but a non-zero exit throws std::runtime_error with the command and its output.
CommandResult runCommandChecked(const std::vector<std::string>& argv);
// `name` from PATH, else from /usr/sbin or /sbin, which a CI job's PATH may lack; empty when missing.
std::string findProgram(std::string_view name);

}  // namespace dedup::test
