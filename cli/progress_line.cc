#include "progress_line.h"

#include <unistd.h>

#include <cstdio>

#include <fmt/format.h>

#include "byte_format.h"
#include "output.h"
#include "platform/process.h"

namespace dedup::cli {

ProgressLine::ProgressLine() : enabled_(platform::isTerminal(STDERR_FILENO)) {}

void ProgressLine::scan(const ScanProgress& progress) {
    if (!enabled_ || !throttle_.accept()) return;
    std::string text = progress.phase == ScanProgress::Phase::walking
                           ? fmt::format("Looking: {} files  ", groupedNumber(progress.filesSeen))
                           : fmt::format("Comparing: {} files, {} read  ", groupedNumber(progress.filesSeen),
                                         formatBytes(progress.bytesRead));
    show(text + progress.current);
}

void ProgressLine::show(const std::string& text) {
    if (!enabled_) return;
    int width = platform::terminalWidth(STDERR_FILENO);
    std::string line = text;
    // Keep the end of a long path: the file name says more than the folders above it.
    if (width > 10 && line.size() >= static_cast<size_t>(width)) {
        size_t keep = static_cast<size_t>(width) - 2;
        size_t start = line.size() - keep + 1;
        while (start < line.size() && (static_cast<unsigned char>(line[start]) & 0xC0) == 0x80) ++start;
        line = "…" + line.substr(start);
    }
    std::lock_guard lock(mutex_);
    std::fprintf(stderr, "\r\033[K%s", line.c_str());
    std::fflush(stderr);
    drawn_ = true;
}

void ProgressLine::clear() {
    std::lock_guard lock(mutex_);
    if (!drawn_) return;
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
    drawn_ = false;
}

}  // namespace dedup::cli
