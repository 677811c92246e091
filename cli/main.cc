// The dedup command: finds files of identical content and gives back the space of the extra copies.
#include <iostream>

#include <CLI/CLI.hpp>

#include "exit_codes.h"
#include "scan_command.h"

int main(int argc, char** argv) {
    using namespace dedup::cli;
    CLI::App app{"Finds files of identical content and gives back the space the extra copies take."};
    app.name("dedup");
    app.require_subcommand(1);

    ScanArguments scan;
    auto* scanCommand = app.add_subcommand("scan", "Find identical files and show what reclaiming them would free");
    addScanOptions(*scanCommand, scan);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        int code = app.exit(error);
        return code == 0 ? success : usage;
    }

    try {
        if (*scanCommand) return runScan(scan, std::cout);
    } catch (const CommandError& error) {
        std::cerr << "dedup: " << error.what() << "\n";
        return error.code;
    } catch (const std::exception& error) {
        std::cerr << "dedup: " << error.what() << "\n";
        return failure;
    }
    return failure;
}
