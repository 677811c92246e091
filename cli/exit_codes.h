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

// A failure the user can act on; main() prints "dedup: <message>" and exits with `code`.
struct CommandError : std::runtime_error {
    CommandError(const std::string& message, ExitCode code = failure) : std::runtime_error(message), code(code) {}
    ExitCode code;
};

}  // namespace dedup::cli
