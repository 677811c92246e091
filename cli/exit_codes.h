// Exit codes of the dedup command, and the error that carries one up to main().
#pragma once

#include <stdexcept>
#include <string>

namespace dedup::cli {

enum ExitCode : int {
    success = 0,
    failure = 1,
    usage = 2,
    someSkipped = 3,
    interruptedByUser = 130,
};

// What each exit code tells a script; the man page's EXIT STATUS is written from this list, so a
// new code without a meaning here goes unexplained to no one.
struct ExitCodeMeaning {
    ExitCode code;
    const char* meaning;
};
inline constexpr ExitCodeMeaning kExitCodeMeanings[] = {
    {success, "Everything asked for was done."},
    {failure, "It could not be done; the message says why. Nothing was lost: a replacement under way was "
              "finished or put back first."},
    {usage, "The command line was wrong: an unknown command or option, a value out of range, a missing argument."},
    {someSkipped, "Done, but some files were left alone (open in another program, changed since the scan, "
                  "unreadable, or a leftover that was kept); the output names each one and why."},
    {interruptedByUser, "Stopped by Ctrl-C, SIGINT or SIGTERM; the replacements under way were finished first."},
};

// A failure the user can act on; main() prints "dedup: <message>" and exits with `code`.
struct CommandError : std::runtime_error {
    CommandError(const std::string& message, ExitCode code = failure) : std::runtime_error(message), code(code) {}
    ExitCode code;
};

}  // namespace dedup::cli
