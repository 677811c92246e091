#include "byte_format.h"

#include <array>
#include <cstdio>

namespace dedup {

std::string formatBytes(int64_t bytes) {
    if (bytes == 1) return "1 byte";
    if (bytes > -1000 && bytes < 1000) return std::to_string(bytes) + " bytes";
    static constexpr std::array<const char*, 6> units = {"kB", "MB", "GB", "TB", "PB", "EB"};
    double value = static_cast<double>(bytes) / 1000.0;
    size_t unit = 0;
    // Move up a unit before rounding would print "1000.0".
    while ((value >= 999.95 || value <= -999.95) && unit + 1 < units.size()) {
        value /= 1000.0;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
    return text;
}

}  // namespace dedup
