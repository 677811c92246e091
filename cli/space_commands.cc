// true-size, holders and show: where the space of a disk really is once files share blocks.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "byte_format.h"
#include "command.h"
#include "exit_codes.h"
#include "file_records.h"
#include "output.h"
#include "path_text.h"
#include "platform/system.h"
#include "progress_line.h"
#include "progress_throttle.h"
#include "report_export.h"
#include "scan_command.h"
#include "space_holders.h"
#include "true_size.h"

namespace dedup::cli {

namespace {

// "permission denied", to sit inside a sentence.
std::string reason(int code) {
    std::string text = std::strerror(code);
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

struct TrueSizeArguments {
    int depth = 1;
    bool json = false;
    std::string folder;
};

std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

void printTree(std::ostream& out, const FolderSize& folder, int level, int depth, bool withUncertain) {
    std::string uncertain = withUncertain && folder.uncertain > 0 ? formatBytes(folder.uncertain) : "";
    out << fmt::format("{:>10}  {:>10}  {:>10}  {}{}{}\n", formatBytes(folder.freedIfDeleted),
                       formatBytes(folder.logical), formatBytes(folder.allocated),
                       withUncertain ? fmt::format("{:>10}  ", uncertain) : "", std::string(2 * level, ' '),
                       level == 0 ? folder.path : nameOf(folder.path));
    if (level >= depth) return;
    for (const auto& child : folder.children) printTree(out, child, level + 1, depth, withUncertain);
}

FolderSize trimmed(const FolderSize& folder, int depth) {
    FolderSize top{folder.path, folder.logical, folder.allocated, folder.freedIfDeleted, folder.uncertain, {}};
    if (depth > 0) {
        for (const auto& child : folder.children) top.children.push_back(trimmed(child, depth - 1));
    }
    return top;
}

std::string sharingSentence(TrueSize::Sharing sharing, int64_t uncertain) {
    if (sharing == TrueSize::Sharing::resolved) {
        return "Shared blocks: Btrfs named every file using them; freed only where all of those lie inside.";
    }
    if (uncertain == 0) return "Shared blocks: none.";
    return fmt::format("Shared blocks: {} uncertain, not freed: who else uses them cannot be known here "
                       "(that needs root on Btrfs).",
                       formatBytes(uncertain));
}

int runTrueSize(const TrueSizeArguments& arguments, std::ostream& out) {
    std::string folder = checkedRoots({arguments.folder}).front();
    ProgressLine progress;
    ProgressThrottle throttle{std::chrono::milliseconds(100)};
    TrueSize::Options options;
    options.progress = [&](const std::string& path, int64_t files) {
        if (throttle.accept()) progress.show(fmt::format("Measuring: {} files  {}", groupedNumber(files), path));
    };
    // One unreadable subfolder must not hide the rest: it is named, and what is shown is then
    // what deleting frees at least.
    std::vector<std::pair<std::string, int>> unreadable;
    options.unreadable = [&](const SystemError& error) { unreadable.emplace_back(error.path, error.code); };
    std::pair<FolderSize, TrueSize::Tally> measured;
    try {
        measured = TrueSize::measureWithTally(folder, options);
    } catch (const SystemError& error) {
        progress.clear();
        bool listing = error.call == "open" || error.call == "getdents64";
        throw CommandError(fmt::format("cannot read {}{}: {}", listing ? "the folder " : "", error.path,
                                       reason(error.code)));
    }
    progress.clear();
    const auto& [size, tally] = measured;
    if (arguments.json) {
        nlohmann::json j = trimmed(size, arguments.depth);
        j["sharing"] = TrueSize::toString(tally.sharing);
        nlohmann::json left = nlohmann::json::array();
        for (const auto& [path, code] : unreadable) left.push_back({{"path", pathText(path)}, {"error", reason(code)}});
        j["unreadableFolders"] = left;
        out << jsonText(j) << "\n";
        return unreadable.empty() ? success : someSkipped;
    }
    bool withUncertain = size.uncertain > 0;
    out << fmt::format("{:>10}  {:>10}  {:>10}  {}{}\n", "frees", "logical", "allocated",
                       withUncertain ? fmt::format("{:>10}  ", "uncertain") : "", "folder");
    printTree(out, size, 0, arguments.depth, withUncertain);
    out << "\n" << sharingSentence(tally.sharing, size.uncertain) << "\n";
    if (!unreadable.empty()) {
        out << fmt::format("\n{} could not be read and {} not counted:\n",
                           unreadable.size() == 1 ? std::string("1 folder") : groupedNumber(std::ssize(unreadable)) + " folders",
                           unreadable.size() == 1 ? "is" : "are");
        for (const auto& [path, code] : unreadable) out << "  " << path << " (" << reason(code) << ")\n";
        out << fmt::format("Deleting it frees at least {}; the file manager says at least {}.\n",
                           formatBytes(size.freedIfDeleted), formatBytes(size.logical));
        return someSkipped;
    }
    out << fmt::format("Deleting it frees {}; the file manager says {}.\n", formatBytes(size.freedIfDeleted),
                       formatBytes(size.logical));
    return success;
}

struct HoldersArguments {
    bool json = false;
    std::string path = ".";
};

int runHolders(const HoldersArguments& arguments, std::ostream& out) {
    std::string path = std::filesystem::absolute(arguments.path).lexically_normal().string();
    if (!platform::pathExists(path)) throw CommandError("no such file or folder: " + arguments.path);
    SpaceHolders holders = SpaceHolders::check(path);
    if (arguments.json) {
        out << jsonText(holders) << "\n";
        return success;
    }
    if (holders.snapshots.empty() && holders.trashBytes == 0) {
        out << "Nothing holds space on this disk: no snapshots, and the Trash is empty.\n";
        return success;
    }
    out << "Still holding space on this disk:\n";
    if (size_t n = holders.snapshots.size()) {
        out << fmt::format("  {} Btrfs snapshot{}, holding the old blocks of files changed or deleted since:\n", n,
                           n == 1 ? "" : "s");
        for (const auto& snapshot : holders.snapshots) out << "    " << snapshot << "\n";
    }
    if (holders.trashBytes > 0) out << "  " << formatBytes(holders.trashBytes) << " waits in the Trash.\n";
    return success;
}

struct ShowArguments {
    bool json = false;
    std::string file;
};

int runShow(const ShowArguments& arguments, std::ostream& out) {
    std::ifstream in(arguments.file, std::ios::binary);
    if (!in) throw CommandError("cannot read " + arguments.file + ": " + reason(errno));
    std::stringstream text;
    text << in.rdbuf();
    ScanResult result;
    try {
        result = Report::load(text.str());
    } catch (const nlohmann::json::exception& error) {
        throw CommandError(arguments.file + " is not a saved scan (" + error.what() + ")");
    }
    if (arguments.json) {
        out << jsonText(result) << "\n";
    } else {
        printScanText(out, result);
    }
    return success;
}

}  // namespace

void addSpaceCommands(CLI::App& app, Commands& commands) {
    static TrueSizeArguments trueSize;
    auto* measure = app.add_subcommand("true-size", "Show what deleting a folder and each of its subfolders frees");
    measure->add_option("--depth", trueSize.depth, "Levels of subfolders shown")->type_name("LEVELS")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    measure->add_flag("--json", trueSize.json, "Print the result as JSON for programs");
    measure->add_option("FOLDER", trueSize.folder, "The folder to measure")->required();
    commands.push_back({measure, [] { return runTrueSize(trueSize, std::cout); }});

    static HoldersArguments holders;
    auto* hold = app.add_subcommand("holders", "Show what else holds space on a disk: snapshots and the Trash");
    hold->add_flag("--json", holders.json, "Print the result as JSON for programs");
    hold->add_option("PATH", holders.path, "Any file or folder on the disk (default: the current folder)");
    commands.push_back({hold, [] { return runHolders(holders, std::cout); }});

    static ShowArguments show;
    auto* shown = app.add_subcommand("show", "Print a scan saved with dedup scan --save, without scanning");
    shown->add_flag("--json", show.json, "Print the result as JSON for programs");
    shown->add_option("FILE", show.file, "The saved scan")->required();
    commands.push_back({shown, [] { return runShow(show, std::cout); }});
}

}  // namespace dedup::cli
