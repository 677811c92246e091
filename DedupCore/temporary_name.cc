#include "temporary_name.h"

#include <cctype>

namespace dedup {

bool isUUIDText(std::string_view text) {
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

bool isTemporaryName(std::string_view name) {
    if (name.empty() || name.front() != '.') return false;
    size_t marker = name.rfind(temporaryMarker);
    if (marker == std::string_view::npos || marker <= 1) return false;
    return isUUIDText(name.substr(marker + temporaryMarker.size()));
}

}  // namespace dedup
