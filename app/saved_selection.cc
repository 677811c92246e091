#include "saved_selection.h"

#include <filesystem>
#include <optional>

namespace dedup::app::SavedSelection {

namespace {

// Absent when the file is there and unreadable.
std::optional<Selection> read(const std::string& path) {
    std::error_code error;
    if (std::filesystem::symlink_status(path, error).type() == std::filesystem::file_type::not_found) return Selection{};
    try {
        return Selection::load(path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

bool readable(const std::string& path) { return read(path).has_value(); }

Selection forPass(const std::string& path) {
    // Every path lies below the root folder, so this leaves out every copy.
    return read(path).value_or(Selection{{"/"}});
}

}  // namespace dedup::app::SavedSelection
