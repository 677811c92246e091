// The dedup command line as plain data, and the man page and the bash, zsh and fish completions
// written from it at build time (by the dedup-reference tool), so they list exactly the commands
// and options the parser accepts.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

namespace dedup::cli {

struct OptionEntry {
    std::vector<std::string> names;    // "--json", "-h"; long names first
    std::string value;                 // the value's name ("INT", "TEXT"); empty for a flag
    std::vector<std::string> choices;  // the only values accepted, where there is such a list
    std::string range;                 // "From 1 to 256", where the parser checks one
    std::string fallback;              // the default, where the parser shows one
    std::string description;
};

struct ArgumentEntry {
    std::string name;  // "ROOT"
    std::vector<std::string> choices;
    std::string description;
    bool required = false;
    bool many = false;
};

struct CommandEntry {
    std::vector<std::string> path;  // {"journal", "verify"}; empty for dedup itself
    std::string description;
    std::vector<OptionEntry> options;
    std::vector<ArgumentEntry> arguments;
    std::vector<CommandEntry> subcommands;
};

CommandEntry describeCommandLine(const CLI::App& app);

// Puts `text` where `marker` stands in `page`; a marker missing from the page is an error.
void fillIn(std::string& page, const std::string& marker, const std::string& text);

// `page` is the hand-written man page with @COMMANDS@, @OPTIONS@ and @EXIT_STATUS@ where the
// generated sections go.
std::string manPage(const CommandEntry& root, std::string page);
std::string bashCompletion(const CommandEntry& root);
std::string zshCompletion(const CommandEntry& root);
std::string fishCompletion(const CommandEntry& root);

}  // namespace dedup::cli
