// One line of progress on standard error, redrawn at most ten times a second, and only when
// standard error is a terminal (a log file gets no progress noise). Safe to call from any thread.
#pragma once

#include <mutex>
#include <string>

#include "progress_throttle.h"
#include "scan_progress.h"

namespace dedup::cli {

class ProgressLine {
public:
    ProgressLine();
    ~ProgressLine() { clear(); }

    void scan(const ScanProgress& progress);
    void show(const std::string& text);
    // Erases the line so the results start on a clean one.
    void clear();

private:
    bool enabled_;
    ProgressThrottle throttle_{std::chrono::milliseconds(100)};
    std::mutex mutex_;
    bool drawn_ = false;
};

}  // namespace dedup::cli
