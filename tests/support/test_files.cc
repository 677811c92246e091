#include "test_files.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

extern char** environ;

namespace dedup::test {
namespace {

[[noreturn]] void fail(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

}  // namespace

void writeFile(const std::string& path, std::string_view bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) fail("write " + path);
}

std::string randomBytes(int64_t size, uint64_t seed) {
    // splitmix64: its output is fixed by its definition, unlike the std:: distributions, whose
    // results differ between library versions.
    std::string out;
    out.reserve(static_cast<size_t>(size));
    while (static_cast<int64_t>(out.size()) < size) {
        uint64_t z = (seed += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        z ^= z >> 31;
        for (int i = 0; i < 8 && static_cast<int64_t>(out.size()) < size; ++i) {
            out.push_back(static_cast<char>(z >> (8 * i)));
        }
    }
    return out;
}

void writeRandomFile(const std::string& path, int64_t size, uint64_t seed) { writeFile(path, randomBytes(size, seed)); }

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail("open " + path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

int64_t allocatedOf(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) fail("lstat " + path);
    return static_cast<int64_t>(st.st_blocks) * 512;
}

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/var/tmp") + "/dedup-test-XXXXXX";
    if (::mkdtemp(path_.data()) == nullptr) fail("mkdtemp " + path_);
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

void reflinkCopy(const std::string& from, const std::string& to) {
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    int source = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    int target = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int result = source < 0 || target < 0 ? -1 : ::ioctl(target, FICLONE, source);
    int error = errno;
    ::close(source);
    ::close(target);
    if (result != 0) throw std::system_error(error, std::generic_category(), "FICLONE " + from + " -> " + to);
}

CommandResult runCommand(const std::vector<std::string>& argv) {
    // The output goes to anonymous files rather than pipes: nothing must be drained while waiting,
    // and being close-on-exec they never leak into the commands other threads start.
    int out = ::memfd_create("stdout", MFD_CLOEXEC), err = ::memfd_create("stderr", MFD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, 1);
    posix_spawn_file_actions_adddup2(&actions, err, 2);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    int spawnError = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    CommandResult result;
    if (spawnError == 0) {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        result.stdoutText = readFile("/proc/self/fd/" + std::to_string(out));
        result.stderrText = readFile("/proc/self/fd/" + std::to_string(err));
    }
    ::close(out);
    ::close(err);
    if (spawnError != 0) throw std::system_error(spawnError, std::generic_category(), "cannot start " + argv[0]);
    return result;
}

CommandResult runCommandChecked(const std::vector<std::string>& argv) {
    CommandResult result = runCommand(argv);
    if (result.exitCode != 0) {
        std::string line;
        for (const std::string& arg : argv) line += arg + " ";
        throw std::runtime_error(line + "failed with status " + std::to_string(result.exitCode) + ": " +
                                 result.stderrText + result.stdoutText);
    }
    return result;
}

std::string findProgram(std::string_view name) {
    const char* path = std::getenv("PATH");
    std::string folders = std::string(path != nullptr ? path : "") + ":/usr/sbin:/sbin";
    for (size_t start = 0, end; start < folders.size(); start = end + 1) {
        end = std::min(folders.find(':', start), folders.size());
        std::string candidate = folders.substr(start, end - start) + "/" + std::string(name);
        // An empty entry would mean the working folder.
        if (end > start && ::access(candidate.c_str(), X_OK) == 0 && std::filesystem::is_regular_file(candidate)) {
            return candidate;
        }
    }
    return {};
}

}  // namespace dedup::test
