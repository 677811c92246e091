// Progress of a scan as the engine reports it. The engine calls as often as it has news; whoever
// shows it decides how often to draw (see ProgressThrottle).
#pragma once

#include <cstdint>
#include <string>

namespace dedup {

struct ScanProgress {
    enum class Phase { walking, hashing };
    Phase phase = Phase::walking;
    int64_t filesSeen = 0;
    int64_t bytesRead = 0;
    std::string current;
};

}  // namespace dedup
