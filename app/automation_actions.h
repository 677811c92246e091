// The three actions other programs run on one folder without the window: find identical files,
// reclaim them, and what deleting the folder frees. The D-Bus interface of the running application,
// the file managers' folder menus (through `velmora-dedup --action`) and scripts all come here, so
// they answer with the same sentences as the `dedup` command.
//
// Each action runs the engine directly, not through AppModel, on the calling thread, and blocks
// until it is done: call it off the main thread. Plain functions; any thread, several at once.
//
// Failure: a missing folder throws ActionError with "Choose a folder."; a folder that does not
// exist or is not a folder, a journal that cannot be opened, a saved selection that cannot be read
// and a measurement that fails throw ActionError with a sentence a person can act on. Nothing is
// changed before the checks that could refuse have passed.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace dedup::app {

enum class AutomationAction { find, reclaim, trueSize };

// "find", "reclaim", "true-size": the words of `velmora-dedup --action` and of the JSON answers.
std::string_view actionWord(AutomationAction action);
std::optional<AutomationAction> actionNamed(std::string_view word);
// "Find Identical Files", "Reclaim Identical Files", "What Deleting a Folder Frees".
std::string_view actionTitle(AutomationAction action);

// Where the actions find the digest cache, the journal and the saved selection: the application's
// own folders, so a reclaim run from a menu honours what the user left out in the window.
struct ActionPlaces {
    std::string data;   // journal.jsonl, selection.json
    std::string cache;  // hashes.sqlite

    static ActionPlaces standard();
};

struct ActionAnswer {
    std::string sentence;  // for a person: a notification, a spoken answer
    nlohmann::json json;   // for programs; holds "action", "folder" and "sentence" besides the figures
};

class ActionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline constexpr std::string_view chooseAFolder = "Choose a folder.";

// Runs one action on `folder` (absent or empty: ActionError "Choose a folder."). `stopped`, when
// given, is asked between files: the application closing stops the work it runs for others. A
// stopped reclaim answers with what it did (its replacement under way finished first); a stopped
// find or measurement throws ActionError, as its figures would be too small.
ActionAnswer runAction(AutomationAction action, const std::optional<std::string>& folder, const ActionPlaces& places,
                       const std::function<bool()>& stopped = {});

}  // namespace dedup::app
