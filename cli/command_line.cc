#include "command_line.h"

#include <string>

#include "dedup_version.h"

namespace dedup::cli {

void declareCommandLine(CLI::App& app, Commands& commands) {
    app.name("dedup");
    app.description("Finds files of identical content and gives back the space the extra copies take.");
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("dedup ") + dedup::kVersion, "Print the version and exit");

    addScanCommands(app, commands);
    addReclaimCommands(app, commands);
    addSpaceCommands(app, commands);
    addAutoCommands(app, commands);
    addAcrossCommands(app, commands);
}

}  // namespace dedup::cli
