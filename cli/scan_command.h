// `dedup scan`: the options every command that scans shares, their checks, and the scan itself.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "hash_cache.h"
#include "scan_options.h"

namespace dedup::cli {

struct ScanArguments {
    int64_t minimumSize = ScanOptions::recommendedMinimumSize;
    std::vector<std::string> extensions;
    std::vector<std::string> excluded;
    bool includeLibrary = false;
    int threads = 0;
    bool noCache = false;
    bool fullCheck = false;
    bool json = false;
    std::vector<std::string> roots;
};

// Declares the scan options on a subcommand (reclaim takes the same ones).
void addScanOptions(CLI::App& command, ScanArguments& arguments);

// Turns the arguments into absolute, checked roots and options. Throws CommandError naming the
// first root that is missing, not a folder or not readable.
// With `resolveLinks` false a root given through a symbolic link keeps the user's spelling, for
// callers that walk and watch it themselves.
std::vector<std::string> checkedRoots(const std::vector<std::string>& roots, bool resolveLinks = true);
// The roots as the user gave them, made absolute: with checkedRoots' answer, the two names of a
// root given through a link.
std::vector<std::string> spelledRoots(const std::vector<std::string>& roots);
// Paths left out with --exclude hold by the rule of path_spellings.h, whichever way the roots and
// the paths were spelled.
ScanOptions scanOptions(const ScanArguments& arguments);

// The digest cache, or none when asked for none or when it cannot be opened (said on standard
// error: the cache only saves time).
std::unique_ptr<HashCache> openDigestCache(bool noCache);

// Runs the scan and prints it; returns the exit code.
int runScan(const ScanArguments& arguments, std::ostream& out);

}  // namespace dedup::cli
