// The dedup command: finds files of identical content and gives back the space of the extra copies.
#include <malloc.h>

#include <iostream>
#include <string>

#include "command_line.h"
#include "exit_codes.h"

int main(int argc, char** argv) {
    using namespace dedup::cli;
    // The reading threads of a scan allocate little and briefly, but glibc gives each an arena of
    // its own that keeps what it freed: on a tree of 100,000 files that is a tenth of the peak
    // memory. One arena serves them all; they wait on the disk far longer than on its lock.
    mallopt(M_ARENA_MAX, 1);
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
        return code == 0 ? success : usage;
    }

    try {
        for (const auto& command : commands) {
            if (command.subcommand->parsed()) return command.run();
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
