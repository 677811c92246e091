// across (identical files and folders on different disks), trash (move one copy to its disk's
// Trash after checking both again) and journal restore (take it back out).
#include <filesystem>
#include <iostream>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "across_volumes.h"
#include "byte_format.h"
#include "command.h"
#include "exit_codes.h"
#include "hash_cache.h"
#include "output.h"
#include "path_text.h"
#include "platform/process.h"
#include "progress_line.h"
#include "reclaim_commands.h"
#include "scan_command.h"
#include "trash_mover.h"

namespace dedup::cli {

namespace {

namespace fs = std::filesystem;

struct AcrossArguments {
    bool folders = false;
    int64_t minimumSize = ScanOptions::recommendedMinimumSize;
    int threads = 0;
    bool noCache = false;
    bool json = false;
    std::vector<std::string> roots;
};

std::string counted(int64_t n, const char* one, const char* many) { return groupedNumber(n) + " " + (n == 1 ? one : many); }

void printAcross(std::ostream& out, const AcrossResult& result) {
    int64_t total = 0;
    if (!result.trees.empty()) out << "Identical folders on different disks:\n";
    for (const auto& tree : result.trees) {
        out << fmt::format("  {} in {}; removing one copy frees {}\n", formatBytes(tree.bytes),
                           counted(tree.fileCount, "file", "files"), formatBytes(tree.freedBytes));
        for (const auto& folder : tree.folders) out << "    " << folder << "\n";
        total += tree.freedBytes;
    }
    if (!result.files.empty()) out << "Identical files on different disks:\n";
    for (const auto& group : result.files) {
        out << fmt::format("  {} each; removing one copy frees {}\n", formatBytes(group.size),
                           formatBytes(group.freedBytes));
        for (const auto& file : group.files) out << "    " << file.path << "\n";
        total += group.freedBytes;
    }
    if (!result.nearlyIdentical.empty()) out << "Nearly identical folders on different disks:\n";
    for (const auto& near : result.nearlyIdentical) {
        out << fmt::format("  {} alike ({})\n", counted(near.sameFiles, "file", "files"), formatBytes(near.sameBytes));
        out << "    " << near.folders[0] << "\n    " << near.folders[1] << "\n";
        for (const auto& rel : near.onlyInFirst) out << "      only in the first: " << rel << "\n";
        for (const auto& rel : near.onlyInSecond) out << "      only in the second: " << rel << "\n";
        for (const auto& rel : near.changed) out << "      changed: " << rel << "\n";
    }
    for (const auto& folder : result.unreadableFolders) out << "Could not be read: " << folder << "\n";
    if (result.trees.empty() && result.files.empty()) {
        out << "No identical files on different disks.\n";
        return;
    }
    out << counted(static_cast<int64_t>(result.trees.size()), "identical folder", "identical folders") << " and "
        << counted(static_cast<int64_t>(result.files.size()), "identical file", "identical files")
        << " on different disks; removing one copy of each frees " << formatBytes(total) << ".\n";
}

int runAcross(const AcrossArguments& arguments) {
    auto roots = checkedRoots(arguments.roots);
    std::unique_ptr<HashCache> cache = openDigestCache(arguments.noCache);
    AcrossOptions options;
    options.minimumSize = arguments.minimumSize;
    options.folders = arguments.folders;
    options.cache = cache.get();
    options.threads = arguments.threads;
    platform::installInterruptHandlers();
    ProgressLine progress;
    auto found = std::make_unique<AcrossResult>(AcrossVolumes::find(
        roots, options, [&](const ScanProgress& p) { progress.scan(p); }, [] { return platform::interrupted(); }));
    const AcrossResult& result = *found;
    progress.clear();
    if (cache) cache->flush();
    if (arguments.json) {
        writeAcrossJson(std::cout, result);
    } else {
        if (result.cancelled) std::cout << "Cancelled: what was found so far follows.\n";
        printAcross(std::cout, result);
    }
    const int code = result.cancelled ? interruptedByUser : success;
    // The result holds every file found, and the command ends once it is printed: the system takes
    // its memory back at once, sooner than it is freed name by name (a fiftieth of a large search).
    static_cast<void>(found.release());
    return code;
}

// Absolute, but the last part as the user wrote it: a link given here is refused, never followed.
std::string absolutePath(const std::string& path) {
    std::string result = fs::absolute(fs::path(path)).lexically_normal().string();
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

int runTrash(const std::string& path, const std::string& keep, bool json) {
    auto journal = openJournal();
    // A move cut short earlier is closed first, so the journal never holds two open moves of one path.
    for (const auto& cut : TrashMover::recoverInterrupted(*journal)) std::cerr << cut.describe() << "\n";
    TrashOutcome outcome = TrashMover::moveCopy(absolutePath(path), absolutePath(keep), *journal);
    if (json) {
        nlohmann::json out = {{"result", outcome.result == TrashOutcome::Result::moved     ? "moved"
                                         : outcome.result == TrashOutcome::Result::changed ? "changed"
                                                                                           : "refused"},
                              {"changes", outcome.changes},
                              {"reason", outcome.reason},
                              {"location", outcome.location},
                              {"digest", outcome.digest},
                              {"bytes", outcome.bytes},
                              {"journalId", outcome.journalId}};
        std::cout << jsonText(out) << "\n";
        return outcome.result == TrashOutcome::Result::moved ? success : failure;
    }
    switch (outcome.result) {
        case TrashOutcome::Result::moved:
            std::cout << "Moved " << absolutePath(path) << " to the Trash"
                      << (outcome.location.empty() ? "" : " (" + outcome.location + ")") << "; "
                      << absolutePath(keep) << " is kept. " << formatBytes(outcome.bytes)
                      << " will be free once the Trash is emptied; dedup journal restore takes it back.\n";
            return success;
        case TrashOutcome::Result::changed:
            std::cerr << "dedup: nothing was moved: the copies are no longer identical:\n";
            for (const auto& change : outcome.changes) std::cerr << "  " << change << "\n";
            return failure;
        case TrashOutcome::Result::refused:
            throw CommandError("nothing was moved: " + outcome.reason);
    }
    return failure;
}

int runRestore(const std::string& what) {
    auto journal = openJournal();
    // An entry id is taken as it is; anything else is the path the copy had.
    bool isId = what.size() == 36 && what.find('/') == std::string::npos;
    RestoreOutcome outcome = TrashMover::restore(*journal, isId ? what : absolutePath(what));
    if (!outcome.restored) throw CommandError("nothing was put back: " + outcome.reason);
    std::cout << "Put back " << outcome.target << " from the Trash.\n";
    return success;
}

}  // namespace

void addAcrossCommands(CLI::App& app, Commands& commands) {
    static AcrossArguments across;
    auto* acrossCommand = app.add_subcommand("across", "Find identical files and folders on different disks");
    acrossCommand->add_flag("--folders", across.folders, "Also find whole identical folder trees");
    acrossCommand->add_option("--min-size", across.minimumSize, "Smallest file or folder size reported, in bytes")
        ->type_name("BYTES")
        ->check(CLI::Range(int64_t{0}, std::numeric_limits<int64_t>::max()))
        ->capture_default_str();
    acrossCommand->add_option("--threads", across.threads, "Files read at once on each disk")
        ->type_name("N")
        ->check(CLI::Range(1, 256));
    acrossCommand->add_flag("--no-cache", across.noCache, "Neither use nor fill the digest cache");
    acrossCommand->add_flag("--json", across.json, "Print the result as JSON for programs");
    acrossCommand->add_option("ROOT", across.roots, "Folders to look in, on two or more disks")->required();
    commands.push_back({acrossCommand, [] { return runAcross(across); }});

    static std::string trashPath, keepPath;
    static bool trashJson = false;
    auto* trash = app.add_subcommand("trash", "Move one of two identical copies to the Trash of its disk");
    trash->add_option("PATH", trashPath, "The copy that goes")->required();
    trash->add_option("--keep", keepPath, "The copy that stays; both are checked again first")
        ->type_name("PATH")->required();
    trash->add_flag("--json", trashJson, "Print the outcome as JSON");
    commands.push_back({trash, [] { return runTrash(trashPath, keepPath, trashJson); }});

    // Taking a copy back out of the Trash is a journal command. It goes before the journal's own
    // entry, which would otherwise answer for it by listing the journal.
    static std::string restoreWhat;
    auto journals = app.get_subcommands([](CLI::App* sub) { return sub->get_name() == "journal"; });
    if (!journals.empty()) {
        auto* restore = journals.front()->add_subcommand("restore", "Put back a copy moved to the Trash (entry id or its path)");
        restore->add_option("WHAT", restoreWhat, "The journal entry's id, or the path the copy had")->required();
        commands.insert(commands.begin(), Command{restore, [] { return runRestore(restoreWhat); }});
    }
}

}  // namespace dedup::cli
