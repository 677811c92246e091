// auto (the automatic reclaimer in the foreground) and backup-disk (marking backup disks).
#include <atomic>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "auto_lock.h"
#include "auto_reclaimer.h"
#include "backup_disks.h"
#include "byte_format.h"
#include "command.h"
#include "exit_codes.h"
#include "hash_cache.h"
#include "machine_state.h"
#include "output.h"
#include "path_text.h"
#include "platform/process.h"
#include "platform/system.h"
#include "reclaim_commands.h"
#include "saved_choices.h"
#include "scan_command.h"

namespace dedup::cli {

namespace {

namespace fs = std::filesystem;

struct AutoArguments {
    ScanArguments scan;
    bool anytime = false;
    double quietPeriod = 120;
    bool backupDisks = false;
    bool coordinate = false;
};

// One line per event, whichever thread reports it: a time stamp and a sentence, or with --json one
// JSON object per line.
class Log {
public:
    explicit Log(bool json) : json_(json) {}

    void write(const std::string& event, const std::string& sentence, nlohmann::json fields = nlohmann::json::object()) {
        std::lock_guard lock(mutex_);
        std::string time = isoDate(std::time(nullptr));
        if (json_) {
            fields["event"] = event;
            fields["time"] = time;
            fields["message"] = sentence;
            std::cout << jsonLine(fields) << std::endl;
        } else {
            std::cout << time << "  " << sentence << std::endl;
        }
    }

private:
    bool json_;
    std::mutex mutex_;
};

// The marked disks; throws CommandError naming the file when it is there but cannot be read, so
// that nothing is overwritten or left unreclaimed without a word.
BackupDisks loadBackupDisks() {
    try {
        return BackupDisks::load(Locations::backupDisks());
    } catch (const SavedChoicesError& error) {
        throw CommandError("the backup disks are saved in " + error.file + ", which cannot be read: " + error.reason +
                           ". Nothing was changed; repair or remove that file, then try again.");
    }
}

std::unique_ptr<HashCache> openCache(bool wanted) {
    if (!wanted) return nullptr;
    try {
        return std::make_unique<HashCache>(Locations::hashes());
    } catch (const std::exception&) {
        return nullptr;  // the cache only saves reading; every pass still runs
    }
}

void logReclaim(Log& log, const std::string& where, const ReclaimSummary& summary) {
    size_t left = summary.failed.size();
    for (const auto& [reason, paths] : summary.skipped) left += paths.size();
    std::string sentence = fmt::format("{}: {} files became clones; {} reclaimed", where, summary.replaced,
                                       formatBytes(summary.freedBytes));
    if (left > 0) sentence += fmt::format(" ({} left alone; \"dedup journal\" has the details)", left);
    log.write("reclaimed", sentence,
              {{"where", pathText(where)}, {"replaced", summary.replaced}, {"freedBytes", summary.freedBytes},
               {"leftAlone", left}});
}

int runAuto(const AutoArguments& arguments) {
    if (arguments.scan.roots.empty() && !arguments.backupDisks) {
        throw CommandError("give the folders to keep reclaimed, or --backup-disks", usage);
    }
    // Kept as the user spelled them, links included: the log and the journal name files the way the
    // user knows them.
    auto roots = checkedRoots(arguments.scan.roots, false);
    // Saved choices that cannot be read stop the command before it watches anything.
    loadSelection(roots);
    if (arguments.backupDisks) loadBackupDisks();
    // Taken before the journal's recovery: another automatic reclaimer's replacements under way
    // must not be taken for interrupted ones.
    auto lock = AutoLock::acquire(Locations::data(), "dedup auto");
    if (auto* holder = std::get_if<AutoLock::Holder>(&lock)) {
        throw CommandError("automatic reclaiming already runs in " + describe(*holder));
    }
    auto journal = openJournal();
    Log log(arguments.scan.json);
    std::ostringstream recovered;
    if (recoverInterrupted(*journal, recovered) > 0) log.write("recovered", recovered.str().substr(0, recovered.str().size() - 1));

    // Blocked before any thread starts, so every thread inherits it and only the wait below sees them.
    platform::blockTerminationSignals();

    std::mutex stateMutex;
    std::optional<HeldBack> lastHeldBack;
    auto mayRun = [&]() -> bool {
        std::optional<HeldBack> reason;
        if (!arguments.anytime) reason = heldBack();
        std::lock_guard lock(stateMutex);
        if (reason != lastHeldBack) {
            if (reason) {
                log.write("heldBack", fmt::format("Waiting: {}.", phrase(*reason)), {{"reason", phrase(*reason)}});
            } else {
                log.write("resumed", "The machine is free again.");
            }
            lastHeldBack = reason;
        }
        return !reason;
    };
    auto makeReclaimer = [&](std::vector<std::string> watched, ScanOptions options, std::string where) {
        DuplicateFinder finder;
        finder.options = std::move(options);
        finder.threads = arguments.scan.threads;
        Reclaimer reclaimer;
        reclaimer.engine.journal = journal.get();
        reclaimer.engine.coordinate = arguments.coordinate;
        // A list of exclusions that becomes unreadable while the command runs leaves everything
        // out until it can be read again: a pass must never replace what the user left out.
        auto selection = [&log, watched] {
            try {
                return loadSelection(watched);
            } catch (const CommandError& error) {
                log.write("warning", std::string(error.what()) + " Nothing is reclaimed until then.");
                return Selection{{"/"}};
            }
        };
        auto automatic = std::make_unique<AutoReclaimer>(
            std::move(watched), std::move(finder), std::move(reclaimer), selection,
            arguments.quietPeriod, mayRun,
            [&log, where](const ReclaimSummary& summary) { logReclaim(log, where, summary); });
        automatic->cache = openCache(!arguments.scan.noCache);
        automatic->onWarning = [&log](const std::string& warning) { log.write("warning", warning); };
        return automatic;
    };

    // On a disk that cannot make clones every pass would only journal each copy as left alone
    // again; and as a pass reports only what it replaced, the log would stay silent about why.
    // Whether a disk can share blocks is tried, not read from its file system's name: XFS without
    // reflink cannot, NFS 4.2 and SMB servers may.
    std::erase_if(roots, [&](const std::string& root) {
        auto volume = VolumeInfo::of(root);
        if (!volume) return false;
        auto ability = cloneAbility(root);
        if (!ability.probed) {
            log.write("warning",
                      fmt::format("Nothing in {} or at {} can be written to try whether its disk can make clones; "
                                  "its file system ({}) is taken at its word.",
                                  root, volume->mountPoint, volume->fileSystem),
                      {{"root", pathText(root)}, {"fileSystem", volume->fileSystem}, {"probed", false}});
        }
        if (ability.canShare) return false;
        log.write("warning",
                  fmt::format("{} is on {} ({}), which cannot make clones: it is not watched, and duplicates there "
                              "are left alone.",
                              root, volume->mountPoint, volume->fileSystem),
                  {{"root", pathText(root)}, {"fileSystem", volume->fileSystem}});
        return true;
    });
    if (roots.empty() && !arguments.backupDisks) {
        throw CommandError("none of these folders is on a disk that can make clones: there is nothing to keep reclaimed");
    }

    std::unique_ptr<AutoReclaimer> folders;
    // Indexing a large tree takes a while; it runs beside the wait for a signal, so that a request
    // to stop is heard during it too.
    std::jthread startingFolders;
    std::atomic<bool> stopRequested{false};
    if (!roots.empty()) {
        folders = makeReclaimer(roots, scanOptions(arguments.scan), roots.size() == 1 ? roots.front() : "watched folders");
        startingFolders = std::jthread([&] {
            folders->start();
            if (stopRequested) return;
            log.write("started",
                      fmt::format("Watching {} folders with {} files; a folder is handled {} seconds after its last change.",
                                  groupedNumber(static_cast<int64_t>(folders->watchedFolders())),
                                  groupedNumber(static_cast<int64_t>(folders->indexedFiles())), arguments.quietPeriod),
                      {{"roots", pathTexts(roots)}, {"quietPeriod", arguments.quietPeriod}});
        });
    }
    std::unique_ptr<BackupWatcher> backups;
    if (arguments.backupDisks) {
        backups = std::make_unique<BackupWatcher>(
            [&log] {
                // Unreadable marks stop the work on every backup disk until they can be read again.
                try {
                    return loadBackupDisks();
                } catch (const CommandError& error) {
                    log.write("warning", error.what());
                    return BackupDisks{};
                }
            },
            nullptr, 30.0,
            [&](const std::string& volume) {
                log.write("backupDisk", "Backup disk connected: " + volume, {{"volume", pathText(volume)}});
                return makeReclaimer({volume}, BackupDisks::options(), volume);
            });
        backups->start();
        if (loadBackupDisks().volumes.empty()) {
            log.write("warning", "No disk is marked as a backup disk yet: \"dedup backup-disk add PATH\" marks one.");
        }
    }

    platform::waitForTermination();
    stopRequested = true;
    if (folders) folders->cancel();
    if (startingFolders.joinable()) startingFolders.join();
    log.write("stopping", "Stopping; the replacement under way finishes first.");
    backups.reset();
    folders.reset();
    return success;
}

// The mount point holding `path`: the longest mount point it lies under.
std::string mountPointOf(const std::string& path) {
    std::string best = "/";
    for (const auto& mount : platform::mounts()) {
        const auto& point = mount.mountPoint;
        bool under = path == point || (path.starts_with(point) && (point == "/" || path[point.size()] == '/'));
        if (under && point.size() > best.size()) best = point;
    }
    return best;
}

struct BackupArguments {
    std::string action;
    std::string path;
    bool json = false;
};

int runBackupDisk(const BackupArguments& arguments) {
    const std::string file = Locations::backupDisks();
    BackupDisks disks = loadBackupDisks();
    if (arguments.action == "list") {
        // Where each marked disk is mounted now, if it is.
        std::map<std::string, std::string> connected;
        for (const auto& mount : platform::mounts()) {
            if (auto id = BackupDisks::uuid(mount.mountPoint); id && disks.volumes.contains(*id)) {
                connected.emplace(*id, mount.mountPoint);
            }
        }
        if (arguments.json) {
            nlohmann::json out = nlohmann::json::array();
            for (const auto& id : disks.volumes) {
                auto where = connected.find(id);
                out.push_back({{"volume", id},
                               {"mountPoint", where == connected.end() ? nlohmann::json() : nlohmann::json(pathText(where->second))}});
            }
            std::cout << jsonText(out) << "\n";
            return success;
        }
        for (const auto& id : disks.volumes) {
            auto where = connected.find(id);
            std::cout << fmt::format("{}  {}\n", id, where == connected.end() ? "(not connected)" : where->second);
        }
        std::cout << disks.volumes.size() << (disks.volumes.size() == 1 ? " backup disk.\n" : " backup disks.\n");
        return success;
    }

    if (arguments.path.empty()) throw CommandError("give a file or folder on the disk", usage);
    std::string path = fs::absolute(fs::path(arguments.path)).lexically_normal().string();
    std::optional<std::string> id;
    if (fs::exists(path)) {
        id = BackupDisks::uuid(path);
        if (!id) throw CommandError("the disk holding " + arguments.path + " has no identifier, so it cannot be recognised when it comes back");
    } else if (arguments.action == "remove" && disks.volumes.contains(arguments.path)) {
        id = arguments.path;  // a disk not connected now is named by its identifier, as "list" shows it
    } else {
        throw CommandError("no such file or folder: " + arguments.path);
    }
    std::string where = fs::exists(path) ? mountPointOf(path) : *id;
    if (arguments.action == "add") {
        if (!cloneAbility(where).probed) {
            std::cerr << "dedup: note: nothing at " << where
                      << " can be written to try whether the disk can make clones; its file system is taken at "
                         "its word\n";
        }
        auto volumes = Profile::externalCloneVolumes();
        if (std::find(volumes.begin(), volumes.end(), where) == volumes.end()) {
            std::cerr << "dedup: note: " << where
                      << " is not a local, writable disk that can share blocks (or it is the system disk); "
                         "it is marked, but nothing will be reclaimed on it\n";
        }
        if (!disks.volumes.insert(*id).second) {
            std::cout << where << " is already a backup disk.\n";
            return success;
        }
        disks.save(file);
        std::cout << where << " is a backup disk now (" << *id << ").\n";
        return success;
    }
    if (disks.volumes.erase(*id) == 0) {
        std::cout << where << " is not a backup disk.\n";
        return success;
    }
    disks.save(file);
    std::cout << where << " is no longer a backup disk.\n";
    return success;
}

}  // namespace

void addAutoCommands(CLI::App& app, Commands& commands) {
    static AutoArguments automatic;
    auto* autoCommand = app.add_subcommand(
        "auto", "Keep folders reclaimed: new duplicates become clones once their folder is quiet (until Ctrl-C)");
    addScanOptions(*autoCommand, automatic.scan);
    autoCommand->get_option("ROOT")->required(false)->description("Folders to keep reclaimed");
    autoCommand->add_flag("--anytime", automatic.anytime,
                          "Also work while the user is active, on battery, in low-power mode or when hot");
    autoCommand->add_option("--quiet-period", automatic.quietPeriod, "Seconds a folder must stay unchanged")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    autoCommand->add_flag("--backup-disks", automatic.backupDisks, "Also keep the connected backup disks reclaimed");
    autoCommand->add_flag("--coordinate", automatic.coordinate, "Leave alone any copy another program has open");
    commands.push_back({autoCommand, [] { return runAuto(automatic); }});

    static BackupArguments backup;
    auto* backupCommand =
        app.add_subcommand("backup-disk", "Mark or unmark the disk holding PATH as a backup disk, or list them");
    backupCommand->add_option("ACTION", backup.action, "add, remove or list")
        ->required()
        ->check(CLI::IsMember({"add", "remove", "list"}));
    backupCommand->add_option("PATH", backup.path, "Any file or folder on the disk");
    backupCommand->add_flag("--json", backup.json, "Print the list as JSON for programs");
    commands.push_back({backupCommand, [] { return runBackupDisk(backup); }});
}

}  // namespace dedup::cli
