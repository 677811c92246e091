// The whole dedup command line, declared in one place: main() parses with it, and the build
// writes the man page and the shell completions from it, so neither can fall behind a new option.
#pragma once

#include <CLI/CLI.hpp>

#include "command.h"

namespace dedup::cli {

// Names the app, adds --version and every subcommand; `commands` receives what each one runs.
// Call once per process: the subcommands keep their parsed values in statics.
void declareCommandLine(CLI::App& app, Commands& commands);

}  // namespace dedup::cli
