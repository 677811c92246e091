#include "saved_choices.h"

#include <cctype>
#include <cerrno>
#include <cstring>

#include "file_records.h"
#include "platform/metadata.h"

namespace dedup {

SavedChoicesError::SavedChoicesError(std::string file_, std::string reason_)
    : std::runtime_error(file_ + " cannot be read: " + reason_), file(std::move(file_)), reason(std::move(reason_)) {}

std::optional<std::string> readSavedChoices(const std::string& file) {
    try {
        return platform::readWholeFile(file);
    } catch (const SystemError& error) {
        if (error.code == ENOENT) return std::nullopt;
        std::string reason = std::strerror(error.code);
        if (!reason.empty()) reason[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(reason[0])));
        throw SavedChoicesError(file, reason);
    }
}

}  // namespace dedup
