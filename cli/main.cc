// The dedup command: finds files of identical content and gives back the space of the extra copies.
#include <iostream>
#include <string>

#include "allocator.h"
#include "command_line.h"
#include "exit_codes.h"

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
