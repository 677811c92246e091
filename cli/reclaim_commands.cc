// reclaim, journal and the saved selection (exclude, include, exclusions).
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "byte_format.h"
#include "command.h"
#include "exit_codes.h"
#include "hash_cache.h"
#include "journal.h"
#include "output.h"
#include "path_spellings.h"
#include "path_text.h"
#include "saved_choices.h"
#include "platform/process.h"
#include "progress_line.h"
#include "reclaim_commands.h"
#include "trash_mover.h"
#include "reclaimer.h"
#include "replaceability.h"
#include "scan_command.h"
#include "path_names.h"
#include "platform/system.h"
#include "temporary_name.h"
#include "walk.h"

namespace dedup::cli {

namespace fs = std::filesystem;

std::unique_ptr<Journal> openJournal() {
    try {
        return std::make_unique<Journal>(Locations::journal());
    } catch (const std::exception& error) {
        // Without a journal nothing may be changed: an interrupted run could not be put right.
        throw CommandError(std::string("the journal cannot be opened: ") + error.what());
    }
}

Selection savedSelection() {
    try {
        return Selection::loadSaved(Locations::selection());
    } catch (const SavedChoicesError& error) {
        throw CommandError("the files left out of reclaiming are saved in " + error.file + ", which cannot be read: " +
                           error.reason + ". Nothing was changed; repair or remove that file, then try again.");
    }
}

namespace {
std::string plural(int64_t n, const char* one, const char* many) {
    return groupedNumber(n) + " " + (n == 1 ? one : many);
}
}  // namespace
Selection loadSelection(const std::vector<std::string>& roots) {
    Selection selection = savedSelection();
    selection.excluded = spellingsBelow(selection.excluded, spelledRoots(roots));
    return selection;
}

size_t recoverInterrupted(Journal& journal, std::ostream& out) {
    // A move to the Trash cut short is found first, while the journal still says where it began.
    auto moves = TrashMover::recoverInterrupted(journal);
    for (const auto& move : moves) out << move.describe() << "\n";
    auto interrupted = journal.interrupted();
    std::erase_if(interrupted, [](const JournalEntry& entry) { return entry.isTrashMove(); });
    if (!interrupted.empty()) {
        out << interrupted.size() << " files are left from an interrupted reclaim; the Journal puts them right.\n";
    }
    // The recovery is told everything the journal knows of the replacement, not only the leftover's
    // path: the identities in it say which file a program wrote to last.
    std::map<std::string, const JournalEntry*> byTemporary;
    for (const auto& entry : interrupted) {
        if (entry.temporary) byTemporary[*entry.temporary] = &entry;
    }
    auto result = journal.recover([&](const std::string& path) {
        auto it = byTemporary.find(path);
        if (it == byTemporary.end()) return std::string(rawValue(CloneEngine::recoverLeftover(path)));
        auto recovered = CloneEngine::recoverLeftover(*it->second);
        if (recovered.keptBeside) {
            out << it->second->target << " and " << *recovered.keptBeside
                << " both stay: the reclaim was interrupted and either may hold the newer version.\n";
        }
        return recovered.detail();
    });
    for (const auto& [entry, error] : result.stuck) {
        out << "Could not put right " << entry.temporary.value_or(entry.target) << " (" << error
            << "); it is left as it is and tried again next time.\n";
    }
    if (result.underway > 0) {
        out << plural(static_cast<int64_t>(result.underway), "file is", "files are")
            << " being replaced by another dedup right now; they are left to it.\n";
    }
    return interrupted.size() + moves.size();
}

std::vector<std::string> leftoversToPutRight(const std::vector<std::string>& found) {
    if (found.empty() || !platform::pathExists(Locations::journal())) return found;
    std::set<std::string> busy;
    try {
        for (const auto& entry : Journal(Locations::journal()).underway()) {
            if (entry.temporary) busy.insert(*entry.temporary);
        }
    } catch (const std::exception&) {
        return found;  // without the journal nothing tells them apart; recovery checks again
    }
    std::vector<std::string> left;
    for (const auto& path : found) {
        if (!busy.contains(path)) left.push_back(path);
    }
    return left;
}

std::string putRightCommand(const std::vector<std::string>& roots) {
    std::string command = "dedup journal recover";
    for (const auto& root : roots) command += " " + shellQuoted(root);
    return command;
}

namespace {

// Puts right the engine's temporary files under the roots that no open journal entry names: left by
// a run whose journal was lost (a power cut before its entries reached the disk, another data
// folder) or whose entry was closed without its leftover going. Only what provably holds nothing
// of the user's is removed: a temporary identical to the copy beside it, or a clone the kernel
// never filled. One whose copy is gone takes the copy's name back. Anything else might be the only
// place some data lives: it is kept and named. Returns how many were found.
size_t putRightLeftovers(Journal& journal, const std::vector<std::string>& roots, std::ostream& out,
                         bool& someKept) {
    auto held = journal.lockRecovery();
    Walk walk;
    for (const auto& root : roots) walk.visit(root);
    // Read after the walk: a live run announces a temporary before making it, so every one the walk
    // saw of a run still going is named here.
    std::set<std::string> busy;
    for (const auto& entry : journal.underway()) {
        if (entry.temporary) busy.insert(*entry.temporary);
    }
    size_t removed = 0, restored = 0, handled = 0;
    std::vector<std::string> kept, stuck;
    for (const auto& path : walk.leftovers) {
        if (busy.contains(path)) continue;
        ++handled;
        CloneEngine::Leftover outcome;
        try {
            outcome = CloneEngine::recoverLeftover(path);
        } catch (const SystemError& error) {
            // Gone since the walk: whoever removed it had the right to.
            if (error.code != ENOENT) stuck.push_back(path + " (" + error.what() + ")");
            continue;
        }
        if (outcome == CloneEngine::Leftover::removed) ++removed;
        if (outcome == CloneEngine::Leftover::restored) ++restored;
        if (outcome == CloneEngine::Leftover::kept) kept.push_back(path);
        std::string name = nameOf(path);
        JournalEntry record = JournalEntry::make(
            JournalEntry::Event::recovered, parentOf(path) + "/" + name.substr(1, name.rfind(temporaryMarker) - 1));
        record.temporary = path;
        record.detail = std::string(rawValue(outcome));
        try {
            journal.append(record);
        } catch (const std::exception&) {
            // What was done is done; the summary below still says it.
        }
    }
    if (removed + restored > 0) {
        out << "Put right " << plural(static_cast<int64_t>(removed + restored), "file", "files")
            << " the journal did not know: " << removed << " removed (the same as the copy beside it), " << restored
            << " back under its own name.\n";
    }
    if (!kept.empty()) {
        out << plural(static_cast<int64_t>(kept.size()), "file differs", "files differ")
            << " from the copy beside it and may hold data found nowhere else, so it is kept. Look at each and "
               "remove it yourself once it is not needed:\n";
        for (const auto& path : kept) out << "  " << path << "\n";
    }
    if (!stuck.empty()) {
        out << plural(static_cast<int64_t>(stuck.size()), "file", "files") << " could not be put right:\n";
        for (const auto& line : stuck) out << "  " << line << "\n";
    }
    someKept = !kept.empty() || !stuck.empty();
    return handled;
}

struct ReclaimArguments {
    ScanArguments scan;
    bool dryRun = false;
    std::string strategy = "auto";
    bool trash = false;
    bool noFolderDates = false;
    bool coordinate = false;
};

void printSummary(std::ostream& out, const ReclaimSummary& summary) {
    out << formatBytes(summary.freedBytes) << " reclaimed; " << summary.replaced << " files are clones now.\n";
    size_t notReplaced = summary.failed.size();
    for (const auto& [reason, paths] : summary.skipped) notReplaced += paths.size();
    if (notReplaced == 0) return;
    out << plural(static_cast<int64_t>(notReplaced), "file", "files")
        << " could not be replaced; \"dedup journal\" has the details:\n";
    for (const auto& [reason, paths] : summary.skipped) {
        auto known = skipReasonNamed(reason);
        out << fmt::format("  {:>6}  {}\n", groupedNumber(static_cast<int64_t>(paths.size())),
                           known ? std::string(phrase(*known)) : reason);
    }
    if (summary.failed.empty()) return;
    out << fmt::format("  {:>6}  {}\n", groupedNumber(static_cast<int64_t>(summary.failed.size())), "failed");
    // The same cause (a full disk, a read-only one) fails every copy after it: one line per cause.
    std::map<std::string, std::vector<std::string>> byCause;
    for (const auto& [path, error] : summary.failed) {
        auto at = error.rfind("): ");
        byCause[at == std::string::npos ? error : error.substr(at + 3)].push_back(error);
    }
    for (const auto& [cause, errors] : byCause) {
        if (errors.size() == 1) {
            out << "          " << errors.front() << "\n";
            continue;
        }
        out << fmt::format("          {} copies: {}, for example {}\n", groupedNumber(std::ssize(errors)), cause,
                           errors.front());
        if (cause == std::strerror(ENOSPC)) {
            out << "          The disk is full: free some space on it, then reclaim again.\n";
        }
    }
}

// Folders and files the scan could not read: their copies were neither compared nor replaced.
void printUnreadable(std::ostream& out, const ScanResult& scan) {
    const auto& folders = scan.unreadableFolders;
    if (!folders.empty()) {
        out << (folders.size() == 1 ? std::string("1 folder") : groupedNumber(std::ssize(folders)) + " folders")
            << " could not be read; nothing in " << (folders.size() == 1 ? "it" : "them") << " was looked at:\n";
        for (const auto& folder : folders) out << "  " << folder << "\n";
    }
    const auto& files = scan.unreadableFiles;
    if (!files.empty()) {
        out << (files.size() == 1 ? std::string("1 file") : groupedNumber(std::ssize(files)) + " files")
            << " could not be read to compare " << (files.size() == 1 ? "it" : "them") << ":\n";
        for (const auto& file : files) out << "  " << file << "\n";
    }
}

int runReclaim(const ReclaimArguments& arguments) {
    auto roots = checkedRoots(arguments.scan.roots);
    // Read before anything is scanned or changed: without it, nothing may be replaced.
    Selection selection = loadSelection(arguments.scan.roots);
    auto journal = openJournal();
    platform::installInterruptHandlers();
    std::ostream& notes = arguments.scan.json ? std::cerr : std::cout;
    if (arguments.dryRun) {
        // Putting leftovers right changes files too: a dry run only says what it would do.
        if (size_t count = journal->interrupted().size(); count > 0) {
            notes << plural(static_cast<int64_t>(count), "interrupted replacement", "interrupted replacements")
                  << " would be put right first.\n";
        }
    } else {
        recoverInterrupted(*journal, notes);
    }

    DuplicateFinder finder;
    finder.options = scanOptions(arguments.scan);
    finder.threads = arguments.scan.threads;
    std::unique_ptr<HashCache> cache;
    if (!arguments.scan.noCache) {
        try {
            cache = std::make_unique<HashCache>(Locations::hashes());
        } catch (const std::exception&) {
        }
    }
    finder.cache = cache.get();
    ProgressLine progress;
    auto interrupted = [] { return platform::interrupted(); };
    ScanResult scan = finder.scan(roots, [&](const ScanProgress& p) { progress.scan(p); }, interrupted);
    progress.clear();
    cache.reset();
    if (scan.cancelled) {
        notes << "Cancelled during the scan; nothing was changed.\n";
        return interruptedByUser;
    }

    if (auto leftovers = leftoversToPutRight(scan.leftovers); !leftovers.empty()) {
        notes << plural(static_cast<int64_t>(leftovers.size()), "file is", "files are")
              << " left from an interrupted reclaim; put them right with: " << putRightCommand(roots) << "\n";
    }

    if (arguments.dryRun) {
        std::vector<Target> targets;
        nlohmann::json planned = nlohmann::json::array();
        nlohmann::json leftAlone = nlohmann::json::array();
        // A copy the reclaim would have to leave alone frees nothing: it is named with the reason.
        for (auto& target : Report::targets(scan.groups, selection)) {
            auto reason = neverReplaceable(target.file.path, target.file.status);
            if (!reason) {
                targets.push_back(std::move(target));
                continue;
            }
            if (arguments.scan.json) {
                leftAlone.push_back({{"path", pathText(target.file.path)}, {"reason", rawValue(*reason)}});
            } else {
                std::cout << fmt::format("  {:>10}  {}  (left alone: {})\n", "0 bytes", target.file.path, phrase(*reason));
            }
        }
        int64_t total = 0;
        for (const auto& target : targets) {
            total += target.frees;
            if (arguments.scan.json) {
                planned.push_back({{"path", pathText(target.file.path)}, {"frees", target.frees}});
            } else {
                std::cout << fmt::format("  {:>10}  {}\n", formatBytes(target.frees), target.file.path);
            }
        }
        if (arguments.scan.json) {
            std::cout << jsonText({{"targets", planned}, {"leftAlone", leftAlone}, {"reclaimableBytes", total}}) << "\n";
        } else {
            std::cout << formatBytes(total) << " would be reclaimed by making "
                      << plural(static_cast<int64_t>(targets.size()), "file a clone.", "files clones.")
                      << " Nothing was changed.\n";
        }
        return success;
    }

    Reclaimer reclaimer;
    reclaimer.engine.journal = journal.get();
    reclaimer.engine.moveReplacedToTrash = arguments.trash;
    reclaimer.engine.restoreFolderDates = !arguments.noFolderDates;
    reclaimer.engine.coordinate = arguments.coordinate;
    reclaimer.engine.strategy = arguments.strategy == "in-place" ? CloneEngine::Strategy::inPlace
                                : arguments.strategy == "clone"  ? CloneEngine::Strategy::cloneAndSwap
                                                                 : CloneEngine::Strategy::automatic;
    // With --trash, a copy exchanged for a clone goes to the Trash, where it keeps its blocks; the
    // journal of this run tells those copies (they had a temporary name) from the ones shared in place.
    const size_t journalledBefore = arguments.trash ? journal->entries().size() : 0;
    ProgressLine line;
    ReclaimSummary summary = reclaimer.reclaim(
        scan.groups, selection,
        [&](const ReclaimProgress& p) {
            line.show(fmt::format("Reclaiming {} of {}, {} so far  {}", groupedNumber(p.done + 1),
                                  groupedNumber(p.total), formatBytes(p.freedBytes), p.current));
        },
        interrupted);
    line.clear();

    int64_t inTrash = 0;
    if (arguments.trash) {
        auto entries = journal->entries();
        for (size_t i = journalledBefore; i < entries.size(); ++i) {
            const auto& entry = entries[i];
            if (entry.event == JournalEntry::Event::replaced && entry.temporary) inTrash += entry.freedBytes.value_or(0);
        }
    }
    if (arguments.scan.json) {
        nlohmann::json out = summary;
        out["unreadableFolders"] = pathTexts(scan.unreadableFolders);
        out["unreadableFiles"] = pathTexts(scan.unreadableFiles);
        if (arguments.trash) out["freedWhenTrashIsEmptied"] = inTrash;
        std::cout << jsonText(out) << "\n";
    } else {
        if (summary.cancelled) std::cout << "Cancelled: the replacements under way were finished first.\n";
        printSummary(std::cout, summary);
        if (inTrash > 0) {
            std::cout << "Of that, " << formatBytes(inTrash)
                      << " comes back only when the Trash is emptied: the old copies wait there.\n";
        }
        printUnreadable(std::cout, scan);
    }
    if (summary.cancelled) return interruptedByUser;
    return summary.skipped.empty() && summary.failed.empty() ? success : someSkipped;
}

std::string labelledLine(const JournalEntry& entry) {
    std::string line = fmt::format("{}  {:<24}  {}", isoDate(entry.time), entry.label(), entry.target);
    if (entry.event == JournalEntry::Event::replaced && entry.freedBytes) {
        line += "  (" + formatBytes(*entry.freedBytes) + ")";
    }
    // A trashed copy's entry says where it went, which is where restore takes it from.
    if (entry.event == JournalEntry::Event::trashed && entry.detail) line += "  -> " + *entry.detail;
    return line;
}

int runJournalList(bool json) {
    auto journal = openJournal();
    auto entries = journal->entries();
    if (json) {
        std::cout << jsonText(entries) << "\n";
        return success;
    }
    for (const auto& entry : entries) std::cout << labelledLine(entry) << "\n";
    std::cout << plural(static_cast<int64_t>(entries.size()), "entry.", "entries.") << "\n";
    return success;
}

int runJournalVerify(bool json) {
    auto journal = openJournal();
    auto findings = journal->verify();
    std::map<Journal::Finding, int64_t> counts;
    nlohmann::json out = nlohmann::json::array();
    for (const auto& [entry, finding] : findings) {
        ++counts[finding];
        if (json) {
            out.push_back({{"id", entry.id}, {"target", pathText(entry.target)}, {"finding", std::string(label(finding))}});
        } else {
            std::cout << fmt::format("{:<17}  {}\n", label(finding), entry.target);
        }
    }
    if (json) {
        std::cout << jsonText(out) << "\n";
    } else {
        std::string tally;
        for (const auto& [finding, count] : counts) {
            tally += (tally.empty() ? "" : ", ") + groupedNumber(count) + " " + std::string(label(finding));
        }
        std::cout << plural(static_cast<int64_t>(findings.size()), "clone checked", "clones checked")
                  << (tally.empty() ? "." : ": " + tally + ".") << "\n";
    }
    return success;
}

int runJournalRecover(const std::vector<std::string>& givenRoots) {
    auto roots = checkedRoots(givenRoots);
    auto journal = openJournal();
    size_t found = recoverInterrupted(*journal, std::cout);
    bool someKept = false;
    if (!roots.empty()) found += putRightLeftovers(*journal, roots, std::cout, someKept);
    if (found == 0) std::cout << "Nothing was left from an interrupted reclaim.\n";
    return someKept ? someSkipped : success;
}

std::string absolutePath(const std::string& path) {
    std::string result = fs::absolute(fs::path(path)).lexically_normal().string();
    while (result.size() > 1 && result.back() == '/') result.pop_back();
    return result;
}

// A path is saved where it really is, links resolved, so that it names the same files however they
// are reached later; taking one back removes it under either spelling.
int editSelection(const std::vector<std::string>& paths, bool exclude) {
    Selection selection = savedSelection();
    for (const auto& given : paths) {
        std::string path = absolutePath(given);
        std::string real = realLocation(path);
        if (exclude) {
            selection.excluded.insert(real);
            continue;
        }
        std::erase_if(selection.excluded,
                      [&](const std::string& saved) { return saved == path || realLocation(saved) == real; });
    }
    fs::create_directories(fs::path(Locations::selection()).parent_path());
    selection.save(Locations::selection());
    return success;
}

int listSelection(bool json) {
    Selection selection = savedSelection();
    if (json) {
        std::cout << jsonText(selection) << "\n";
    } else if (selection.excluded.empty()) {
        std::cout << "Nothing is left out of reclaiming.\n";
    } else {
        std::cout << "Left out of reclaiming:\n";
        for (const auto& path : selection.excluded) std::cout << "  " << path << "\n";
    }
    return success;
}

}  // namespace

void printReclaimSummary(std::ostream& out, const ReclaimSummary& summary) { printSummary(out, summary); }

void addReclaimCommands(CLI::App& app, Commands& commands) {
    static ReclaimArguments reclaim;
    auto* reclaimCommand =
        app.add_subcommand("reclaim", "Make the extra copies share the blocks of the copy that is kept");
    addScanOptions(*reclaimCommand, reclaim.scan);
    reclaimCommand->add_flag("--dry-run", reclaim.dryRun, "Show what would be replaced and freed; change nothing");
    reclaimCommand->add_option("--strategy", reclaim.strategy, "How copies are replaced: auto, in-place or clone")
        ->check(CLI::IsMember({"auto", "in-place", "clone"}))
        ->capture_default_str();
    reclaimCommand->add_flag("--trash", reclaim.trash, "Move replaced copies to the Trash instead of removing them");
    reclaimCommand->add_flag("--no-folder-dates", reclaim.noFolderDates, "Let folders' modification dates change");
    reclaimCommand->add_flag("--coordinate", reclaim.coordinate, "Leave alone any copy another program has open");
    commands.push_back({reclaimCommand, [] { return runReclaim(reclaim); }});

    static bool journalJson = false;
    auto* journalCommand = app.add_subcommand("journal", "List every replacement; verify or recover them");
    journalCommand->add_flag("--json", journalJson, "Print as JSON");
    auto* verify = journalCommand->add_subcommand("verify", "Check that every clone made is still as it was");
    auto* recover = journalCommand->add_subcommand(
        "recover", "Put right what an interrupted reclaim left; with folders, also its files the journal does not know");
    static std::vector<std::string> recoverRoots;
    recover->add_option("ROOT", recoverRoots, "Folders to look in for files an interrupted reclaim left");
    verify->add_flag("--json", journalJson, "Print as JSON");
    commands.push_back({journalCommand, [verify, recover] {
                            if (verify->parsed()) return runJournalVerify(journalJson);
                            if (recover->parsed()) return runJournalRecover(recoverRoots);
                            return runJournalList(journalJson);
                        }});

    static std::vector<std::string> excludePaths, includePaths;
    static bool exclusionsJson = false;
    auto* exclude = app.add_subcommand("exclude", "Leave files or folders out of every reclaim");
    exclude->add_option("PATH", excludePaths, "Files or folders")->required();
    commands.push_back({exclude, [] { return editSelection(excludePaths, true); }});
    auto* include = app.add_subcommand("include", "Take back files or folders left out");
    include->add_option("PATH", includePaths, "Files or folders")->required();
    commands.push_back({include, [] { return editSelection(includePaths, false); }});
    auto* exclusions = app.add_subcommand("exclusions", "Show what is left out of reclaiming");
    exclusions->add_flag("--json", exclusionsJson, "Print as JSON");
    commands.push_back({exclusions, [] { return listSelection(exclusionsJson); }});
}

}  // namespace dedup::cli
