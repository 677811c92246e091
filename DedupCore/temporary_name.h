// The names the clone engine gives its temporary files: a dot, the copy's own name, ".dedup-" and
// an upper-case UUID, in the copy's own folder. They are part of the on-disk contract: walks report
// them as leftovers of an interrupted reclaim and never take them as candidates.
#pragma once

#include <string>
#include <string_view>

namespace dedup {

inline constexpr std::string_view temporaryMarker = ".dedup-";

// True for ".<name>.dedup-<UUID>" with a non-empty name. The engine's private Trash folder
// (".dedup-trash-<UUID>") is not one: its marker stands at the very start.
bool isTemporaryName(std::string_view name);

// The canonical 36-character text of a UUID, upper or lower case.
bool isUUIDText(std::string_view text);

}  // namespace dedup
