// Byte counts as the desktop's file managers show them: decimal units, one decimal place.
#pragma once

#include <cstdint>
#include <string>

namespace dedup {

// "0 bytes", "1 byte", "999 bytes", "1.0 kB", "12.3 MB", "4.1 GB".
std::string formatBytes(int64_t bytes);

}  // namespace dedup
