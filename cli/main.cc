// The dedup command: finds files of identical content and gives back the space of the extra copies.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "allocator.h"
#include "command_line.h"
#include "exit_codes.h"

namespace {

// What a command printed must reach whoever reads it: a report cut short by a full disk is a
// failure to say, not a success with half a list. Flushed here, while an error can still be told.
int afterOutput(int code) {
    errno = 0;
    std::cout.flush();
    bool flushed = std::fflush(stdout) == 0;
    if (flushed && !std::cout.fail() && !std::ferror(stdout)) return code;
    std::cerr << "dedup: the output could not be written"
              << (errno != 0 ? std::string(": ") + std::strerror(errno) : std::string()) << "\n";
    return code == dedup::cli::success ? dedup::cli::failure : code;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace dedup::cli;
    dedup::releaseFreedMemoryAtOnce();
    CLI::App app;
    Commands commands;
    declareCommandLine(app, commands);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // CLI11 would only say that a command is required: name the word it did not know.
        std::string known;
        bool isKnown = false;
        for (const auto* command : app.get_subcommands({})) {
            known += (known.empty() ? "" : ", ") + command->get_name();
            isKnown = isKnown || (argc > 1 && command->check_name(argv[1]));
        }
        if (argc > 1 && argv[1][0] != '-' && !isKnown) {
            std::cerr << "dedup: unknown command \"" << argv[1] << "\"; the commands are " << known
                      << ". \"dedup --help\" says what each does.\n";
            return usage;
        }
        int code = app.exit(error);
        return code == 0 ? afterOutput(success) : usage;
    }

    try {
        for (const auto& command : commands) {
            if (command.subcommand->parsed()) return afterOutput(command.run());
        }
    } catch (const CommandError& error) {
        std::cerr << "dedup: " << error.what() << "\n";
        return error.code;
    } catch (const std::exception& error) {
        std::cerr << "dedup: " << error.what() << "\n";
        return failure;
    }
    return failure;
}
