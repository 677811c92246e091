// The closed list of reasons for leaving a copy untouched. Each is journalled by its case name and
// shown to the user as a short phrase. A SkipReason is an expected, explainable outcome, thrown as
// a Skip so that the step that found it can stop and be undone like any other failure.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace dedup {

enum class SkipReason {
    notARegularFile,
    differentVolume,
    unreadable,
    hardLinked,
    locked,
    appendOnly,
    onlyInCloud,
    notOwned,
    deleteDenied,
    folderNotWritable,
    alreadyShared,
    inUse,
    changedSinceScan,
    contentDiffers,
    changedDuringReplace,
    coordinationTimedOut,
    volumeCannotClone,
    quarantineCannotBeKept,
    noCopyOnWrite,
    cloneAndSwapNotAsked,
};

// The case name ("inUse"): what the journal stores.
std::string_view rawValue(SkipReason reason);
// "open in another app": what the user reads.
std::string_view phrase(SkipReason reason);
// Absent for a name that is no reason.
std::optional<SkipReason> skipReasonNamed(std::string_view raw);

// Thrown by the checks and the clone engine; its text is the raw value.
class Skip : public std::runtime_error {
public:
    explicit Skip(SkipReason reason) : std::runtime_error(std::string(rawValue(reason))), reason(reason) {}
    SkipReason reason;
};

}  // namespace dedup
