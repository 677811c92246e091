#include "automation_actions.h"

#include <cctype>
#include <cstring>
#include <filesystem>
#include <memory>

#include <unistd.h>

#include "byte_format.h"
#include "duplicate_finder.h"
#include "hash_cache.h"
#include "journal.h"
#include "path_spellings.h"
#include "path_text.h"
#include "platform/system.h"
#include "reclaim_plan.h"
#include "reclaimer.h"
#include "saved_choices.h"
#include "scan_options.h"
#include "true_size.h"

namespace dedup::app {

namespace fs = std::filesystem;

std::string_view actionWord(AutomationAction action) {
    switch (action) {
        case AutomationAction::find: return "find";
        case AutomationAction::reclaim: return "reclaim";
        case AutomationAction::trueSize: return "true-size";
    }
    return "find";
}

std::optional<AutomationAction> actionNamed(std::string_view word) {
    for (auto action : {AutomationAction::find, AutomationAction::reclaim, AutomationAction::trueSize}) {
        if (word == actionWord(action)) return action;
    }
    return std::nullopt;
}

std::string_view actionTitle(AutomationAction action) {
    switch (action) {
        case AutomationAction::find: return "Find Identical Files";
        case AutomationAction::reclaim: return "Reclaim Identical Files";
        case AutomationAction::trueSize: return "What Deleting a Folder Frees";
    }
    return "";
}

ActionPlaces ActionPlaces::standard() { return {Locations::data(), Locations::cache()}; }

namespace {

// "permission denied", to sit inside a sentence.
std::string reasonText(int code) {
    std::string text = std::strerror(code);
    if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

// The folder as given, made absolute: the spelling the saved selection is matched against.
std::string spelled(const std::string& given) {
    std::string path = fs::absolute(fs::path(given)).lexically_normal().string();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// The folder to walk: where it really is, as the walk never follows a link, and only once it is
// known to be a folder this process may read. Checked before anything is opened or changed.
std::string checkedFolder(const std::optional<std::string>& folder) {
    if (!folder || folder->empty()) throw ActionError(std::string(chooseAFolder));
    std::string path = spelled(*folder);
    std::error_code error;
    auto status = fs::status(path, error);
    if (error || !fs::exists(status)) throw ActionError("There is no folder " + *folder + ".");
    if (!fs::is_directory(status)) throw ActionError(*folder + " is not a folder. Choose a folder.");
    if (auto real = platform::realPath(path)) path = *real;
    if (!platform::canAccess(path, R_OK) || !platform::canAccess(path, X_OK)) {
        throw ActionError("The folder " + *folder + " cannot be read: permission denied.");
    }
    return path;
}

// The digest cache only saves reading: without it the same groups are found.
std::unique_ptr<HashCache> openCache(const ActionPlaces& places) {
    try {
        return std::make_unique<HashCache>(places.cache + "/hashes.sqlite");
    } catch (const std::exception&) {
        return nullptr;
    }
}

using Stopped = std::function<bool()>;

bool isStopped(const Stopped& stopped) { return stopped && stopped(); }

const char* stoppedText = "VELMORA.dedup closed before the answer was ready; nothing was changed.";

ScanResult scanFolder(const std::string& folder, const ActionPlaces& places, const Stopped& stopped) {
    auto cache = openCache(places);
    DuplicateFinder finder{ScanOptions::recommended(), cache.get()};
    ScanResult result = finder.scan({folder}, [](const ScanProgress&) {}, [&] { return isStopped(stopped); });
    if (result.cancelled) throw ActionError(stoppedText);
    return result;
}

nlohmann::json baseJson(AutomationAction action, const std::string& folder) {
    return {{"action", std::string(actionWord(action))}, {"folder", pathText(folder)}};
}

ActionAnswer find(const std::string& folder, const ActionPlaces& places, const Stopped& stopped) {
    ScanResult result = scanFolder(folder, places, stopped);
    const int64_t bytes = Report::reclaimableBytes(result.groups, Selection{});
    ActionAnswer answer;
    answer.sentence = formatBytes(bytes) + " can be reclaimed in " + std::to_string(result.groups.size()) + " groups.";
    answer.json = baseJson(AutomationAction::find, folder);
    answer.json["reclaimableBytes"] = bytes;
    answer.json["groups"] = result.groups.size();
    answer.json["filesSeen"] = result.filesSeen;
    answer.json["unreadableFiles"] = pathTexts(result.unreadableFiles);
    answer.json["unreadableFolders"] = pathTexts(result.unreadableFolders);
    return answer;
}

ActionAnswer reclaim(const std::string& given, const std::string& folder, const ActionPlaces& places,
                     const Stopped& stopped) {
    // The user's choices are read before anything is scanned: a list that cannot be read could
    // hold copies they kept apart on purpose, so nothing is replaced without it.
    Selection selection;
    try {
        selection = Selection::loadSaved(places.data + "/selection.json");
    } catch (const SavedChoicesError& error) {
        throw ActionError("Nothing was reclaimed: the files left out of reclaiming are saved in " + error.file +
                          ", which cannot be read (" + error.reason +
                          "). Open VELMORA.dedup to choose them again.");
    }
    // Saved paths match the files below the folder whichever way either was spelled.
    selection.excluded = spellingsBelow(selection.excluded, {spelled(given)});

    ScanResult result = scanFolder(folder, places, stopped);
    Journal journal(places.data + "/journal.jsonl");
    Reclaimer reclaimer;
    reclaimer.engine.journal = &journal;
    ReclaimSummary summary =
        reclaimer.reclaim(result.groups, selection, [](const ReclaimProgress&) {}, [&] { return isStopped(stopped); });

    ActionAnswer answer;
    answer.sentence = formatBytes(summary.freedBytes) + " reclaimed; " + std::to_string(summary.replaced) +
                      " files are clones now.";
    answer.json = baseJson(AutomationAction::reclaim, folder);
    nlohmann::json figures = summary;
    answer.json.update(figures);
    return answer;
}

// Thrown from the measurement's progress report to end it.
struct MeasurementStopped {};

ActionAnswer trueSize(const std::string& folder, const Stopped& stopped) {
    FolderSize size;
    TrueSize::Options options;
    options.progress = [&](const std::string&, int64_t) {
        if (isStopped(stopped)) throw MeasurementStopped{};
    };
    try {
        size = TrueSize::measure(folder, options);
    } catch (const MeasurementStopped&) {
        throw ActionError(stoppedText);
    } catch (const SystemError& error) {
        // A folder left out would make the answer too small: the measurement fails instead.
        throw ActionError("Cannot measure " + folder + ": " + error.path + " cannot be read (" +
                          reasonText(error.code) + ").");
    }
    ActionAnswer answer;
    answer.sentence = "Deleting it frees " + formatBytes(size.freedIfDeleted) + "; the file manager says " +
                      formatBytes(size.logical) + ".";
    answer.json = baseJson(AutomationAction::trueSize, folder);
    answer.json["freedIfDeleted"] = size.freedIfDeleted;
    answer.json["logical"] = size.logical;
    answer.json["allocated"] = size.allocated;
    answer.json["uncertain"] = size.uncertain;
    return answer;
}

}  // namespace

ActionAnswer runAction(AutomationAction action, const std::optional<std::string>& folder, const ActionPlaces& places,
                       const std::function<bool()>& stopped) {
    const std::string path = checkedFolder(folder);
    ActionAnswer answer;
    switch (action) {
        case AutomationAction::find: answer = find(path, places, stopped); break;
        case AutomationAction::reclaim: answer = reclaim(*folder, path, places, stopped); break;
        case AutomationAction::trueSize: answer = trueSize(path, stopped); break;
    }
    answer.json["sentence"] = answer.sentence;
    return answer;
}

}  // namespace dedup::app
