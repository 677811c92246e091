#include "scan_command.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <functional>
#include <filesystem>
#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

#include "duplicate_finder.h"
#include "command.h"
#include "exit_codes.h"
#include "hash_cache.h"
#include "output.h"
#include "path_spellings.h"
#include "reclaim_commands.h"
#include "platform/file_io.h"
#include "platform/process.h"
#include "platform/system.h"
#include "progress_line.h"
#include "reclaim_commands.h"
#include "reclaim_plan.h"
#include "report_export.h"

namespace dedup::cli {

namespace fs = std::filesystem;

void addScanOptions(CLI::App& command, ScanArguments& arguments) {
    command.add_option("--min-size", arguments.minimumSize, "Smallest file size looked at, in bytes")
        ->type_name("BYTES")
        ->check(CLI::Range(int64_t{0}, std::numeric_limits<int64_t>::max()))
        ->capture_default_str();
    command.add_option("--ext", arguments.extensions, "Only files with these extensions (jpg,png)")
        ->type_name("LIST")
        ->delimiter(',');
    command.add_option("--exclude", arguments.excluded, "Leave out this file or folder and all below it")
        ->type_name("PATH");
    command.add_flag("--include-library", arguments.includeLibrary, "Also look inside the home folder's .cache");
    command.add_option("--threads", arguments.threads,
                       "Files read at once (default: one per core on solid-state and virtual disks, one on spinning disks)")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
    command.add_flag("--no-cache", arguments.noCache, "Neither use nor fill the digest cache");
    command.add_flag("--json", arguments.json, "Print the result as JSON for programs");
    command.add_option("ROOT", arguments.roots, "Folders to look in")->required();
}

namespace {

std::string absolute(const std::string& path) {
    return fs::absolute(fs::path(path)).lexically_normal().string();
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

std::unique_ptr<HashCache> openDigestCache(bool noCache) {
    if (noCache) return nullptr;
    try {
        return std::make_unique<HashCache>(Locations::hashes());
    } catch (const std::exception& error) {
        // The cache only saves time: without it every file is read, and the search still runs.
        std::cerr << "dedup: the digest cache cannot be opened (" << error.what() << "); every file will be read\n";
        return nullptr;
    }
}

std::vector<std::string> checkedRoots(const std::vector<std::string>& roots, bool resolveLinks) {
    std::vector<std::string> result;
    for (const auto& given : roots) {
        std::string path = withoutTrailingSlash(absolute(given));
        std::error_code ec;
        auto status = fs::status(path, ec);
        if (ec || !fs::exists(status)) {
            throw CommandError("no such folder: " + given);
        }
        if (!fs::is_directory(status)) throw CommandError(given + " is not a folder");
        // A root given through a symbolic link is walked where the link points: the walk itself
        // never follows links, so it must start from the real folder.
        if (resolveLinks && fs::is_symlink(fs::symlink_status(path, ec))) {
            if (auto real = platform::realPath(path)) path = *real;
        }
        if (!platform::canAccess(path, 4 /* R_OK */) || !platform::canAccess(path, 1 /* X_OK */)) {
            throw CommandError("cannot read the folder " + given + ": permission denied");
        }
        if (std::find(result.begin(), result.end(), path) == result.end()) result.push_back(path);
    }
    return result;
}

std::vector<std::string> spelledRoots(const std::vector<std::string>& roots) {
    std::vector<std::string> result;
    for (const auto& root : roots) result.push_back(withoutTrailingSlash(absolute(root)));
    return result;
}

ScanOptions scanOptions(const ScanArguments& arguments) {
    ScanOptions options;
    options.minimumSize = arguments.minimumSize;
    if (!arguments.extensions.empty()) {
        std::set<std::string> extensions;
        for (std::string ext : arguments.extensions) {
            while (!ext.empty() && ext.front() == '.') ext.erase(ext.begin());
            std::transform(ext.begin(), ext.end(), ext.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            if (ext.empty()) throw CommandError("--ext needs extensions such as jpg,png", usage);
            extensions.insert(ext);
        }
        options.allowedExtensions = std::move(extensions);
    }
    std::set<std::string> excluded;
    for (const auto& path : arguments.excluded) excluded.insert(withoutTrailingSlash(absolute(path)));
    for (const auto& path : spellingsBelow(excluded, spelledRoots(arguments.roots))) options.excludedPaths.push_back(path);
    options.includeLibrary = arguments.includeLibrary;
    return options;
}

namespace {

// Files `dedup scan` also writes its findings to: a CSV table, and the scan for `dedup show`.
struct ReportFiles {
    std::string csv;
    std::string save;
};

void writeReport(const std::string& path, const std::function<std::string()>& text) {
    if (path.empty()) return;
    try {
        platform::writeFileAtomically(path, text());
    } catch (const SystemError& error) {
        throw CommandError("cannot write " + path + ": " + std::strerror(error.code));
    } catch (const nlohmann::json::exception& error) {
        throw CommandError("cannot save the scan to " + path + ": " + error.what());
    }
}

void writeReports(const ScanResult& result, const ReportFiles& files, const Selection& selection) {
    // The CSV shows what a reclaim would do, so it honours the copies the user has left out.
    writeReport(files.csv, [&] { return Report::csv(result.groups, selection); });
    writeReport(files.save, [&] { return Report::json(result) + "\n"; });
}

int scanAndReport(const ScanArguments& arguments, std::ostream& out, const ReportFiles& reports) {
    auto roots = checkedRoots(arguments.roots);
    // Read first: a list that cannot be read stops the scan before any work is done.
    Selection selection = reports.csv.empty() ? Selection{} : loadSelection(arguments.roots);
    DuplicateFinder finder;
    finder.options = scanOptions(arguments);
    finder.threads = arguments.threads;
    std::unique_ptr<HashCache> cache = openDigestCache(arguments.noCache);
    finder.cache = cache.get();

    platform::installInterruptHandlers();
    ProgressLine progress;
    ScanResult result =
        finder.scan(roots, [&](const ScanProgress& p) { progress.scan(p); }, [] { return platform::interrupted(); });
    progress.clear();

    result.leftovers = leftoversToPutRight(result.leftovers);
    std::string putRight = result.leftovers.empty() ? std::string() : putRightCommand(roots);
    if (arguments.json) {
        writeScanJson(out, result, putRight);
    } else {
        printScanText(out, result, putRight);
    }
    out.flush();
    writeReports(result, reports, selection);
    return result.cancelled ? interruptedByUser : success;
}

}  // namespace

int runScan(const ScanArguments& arguments, std::ostream& out) { return scanAndReport(arguments, out, {}); }

void addScanCommands(CLI::App& app, Commands& commands) {
    static ScanArguments arguments;
    auto* scan = app.add_subcommand("scan", "Find identical files and show what reclaiming them would free");
    // The name of the desktop's "Find Identical Files" action, for scripts written against it.
    scan->alias("find");
    addScanOptions(*scan, arguments);
    static ReportFiles reports;
    scan->add_option("--csv", reports.csv, "Also write every file found, with what replacing it frees, as CSV")
        ->type_name("FILE");
    scan->add_option("--save", reports.save, "Also save the scan, to be shown again with dedup show")
        ->type_name("FILE");
    commands.push_back({scan, [] { return scanAndReport(arguments, std::cout, reports); }});
}

}  // namespace dedup::cli
