// How a group of subcommands plugs into the dedup command: each module declares its subcommands
// and options on the app and says what to run when one of them was chosen.
#pragma once

#include <functional>
#include <vector>

#include <CLI/CLI.hpp>

namespace dedup::cli {

struct Command {
    CLI::App* subcommand;
    std::function<int()> run;  // returns the exit code; may throw CommandError
};
using Commands = std::vector<Command>;

void addScanCommands(CLI::App& app, Commands& commands);   // scan
void addSpaceCommands(CLI::App& app, Commands& commands);  // true-size, holders, show
void addReclaimCommands(CLI::App& app, Commands& commands);  // reclaim, journal, exclude, include, exclusions
void addAutoCommands(CLI::App& app, Commands& commands);     // auto, backup-disk
// across, trash, journal restore; after addReclaimCommands, whose journal it extends.
void addAcrossCommands(CLI::App& app, Commands& commands);

}  // namespace dedup::cli
