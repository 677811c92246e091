// What the command tests share: running the dedup binary under test, to its end or beside the test
// (dedup auto), and the state of a tree.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "hasher.h"
#include "support/test_files.h"

namespace dedup::test {

inline CommandResult dedupCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEDUP_BINARY);
    return runCommand(arguments);
}

// Every regular file under the root with its content's digest: a temporary left behind shows too.
inline std::map<std::string, std::string> contentsUnder(const std::string& root) {
    std::map<std::string, std::string> digests;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            digests[entry.path().string()] = digestText(ContentHash::sha256(entry.path(), ContentHash::fullLimit));
        }
    }
    return digests;
}

// The command running beside a test, its output going to a file; stopped with SIGTERM and reaped
// when the object dies, so it never outlives the test.
class BackgroundCommand {
public:
    BackgroundCommand(std::vector<std::string> arguments, std::string log) : log_(std::move(log)) {
        int out = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (out < 0) return;
        arguments.insert(arguments.begin(), DEDUP_BINARY);
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
            ::execv(DEDUP_BINARY, argv.data());
            ::_exit(127);
        }
        ::close(out);
    }
    ~BackgroundCommand() { stop(); }
    BackgroundCommand(const BackgroundCommand&) = delete;
    BackgroundCommand& operator=(const BackgroundCommand&) = delete;

    void stop() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
    std::string output() const { return readFile(log_); }
    // Waits up to a minute for `text` in the output.
    bool waitFor(const std::string& text) const {
        for (int i = 0; i < 1200; ++i) {
            if (output().find(text) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }

private:
    std::string log_;
    pid_t pid_ = -1;
};

}  // namespace dedup::test
