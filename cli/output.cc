#include "output.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "byte_format.h"
#include "parallel.h"
#include "path_text.h"
#include "reclaim_plan.h"
#include "replaceability.h"
#include "skip_reason.h"

namespace dedup::cli {

std::string jsonText(const nlohmann::json& value) {
    return value.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string jsonLine(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void writeScanJson(std::ostream& out, const ScanResult& result, const std::string& putRight) {
    const auto text = jsonLine;
    // Keys in sorted order, as every JSON this system writes.
    out << "{\"bytesRead\":" << result.bytesRead << ",\"cancelled\":" << (result.cancelled ? "true" : "false")
        << ",\"filesSeen\":" << result.filesSeen << ",\"groups\":[";
    // Making a group's text costs more than writing it: the groups of a window are made on every
    // core at once and written in order, so no more than one window's text is held.
    constexpr size_t window = 256;
    std::vector<std::string> texts;
    for (size_t start = 0; start < result.groups.size(); start += window) {
        texts.assign(std::min(window, result.groups.size() - start), std::string());
        parallelFor(texts.size(), workersFor(0, false), [&](size_t k) { texts[k] = text(result.groups[start + k]); });
        for (size_t k = 0; k < texts.size(); ++k) {
            if (start + k > 0) out << ",";
            out << "\n" << texts[k];
        }
    }
    out << "],\"leftovers\":" << text(pathTexts(result.leftovers));
    if (!putRight.empty()) out << ",\"putRightWith\":" << text(pathText(putRight));
    out << ",\"unreadableFiles\":" << text(pathTexts(result.unreadableFiles))
        << ",\"unreadableFolders\":" << text(pathTexts(result.unreadableFolders))
        << "}\n";
}

std::string groupedNumber(int64_t n) {
    std::string digits = std::to_string(n < 0 ? -n : n);
    std::string out;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
        out.push_back(digits[i]);
    }
    return n < 0 ? "-" + out : out;
}

namespace {

void printGroup(std::ostream& out, const DuplicateGroup& group) {
    int64_t size = group.files.front().status.size;
    out << fmt::format("{} to reclaim: {} copies of {}\n", formatBytes(group.reclaimableBytes), group.files.size(),
                       formatBytes(size));
    out << "  sha256 " << group.digest << "\n";
    // What each copy frees comes from the same plan a reclaim follows, so the figures agree; a
    // copy the reclaim would have to leave alone says why.
    std::map<std::string, SkipReason> leftAlone;
    Selection cannot;
    for (size_t i = 1; i < group.files.size(); ++i) {
        if (auto reason = neverReplaceable(group.files[i].path, group.files[i].status)) {
            leftAlone.emplace(group.files[i].path, *reason);
            cannot.excluded.insert(group.files[i].path);
        }
    }
    auto targets = Report::targets({group}, cannot);
    out << fmt::format("  {:>10}  {}\n", "kept", group.files.front().path);
    size_t next = 0;
    for (size_t i = 1; i < group.files.size(); ++i) {
        const ScannedFile& copy = group.files[i];
        if (next < targets.size() && targets[next].file.path == copy.path) {
            out << fmt::format("  {:>10}  {}\n", formatBytes(targets[next].frees), copy.path);
            ++next;
        } else if (auto reason = leftAlone.find(copy.path); reason != leftAlone.end()) {
            out << fmt::format("  {:>10}  {}  (left alone: {})\n", "0 bytes", copy.path, phrase(reason->second));
        } else {
            out << fmt::format("  {:>10}  {}  (already shares its blocks with the kept copy)\n", "0 bytes", copy.path);
        }
    }
    out << "\n";
}

}  // namespace

std::string shellQuoted(const std::string& text) {
    bool plain = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || std::strchr("/._-+=:,@%", c) != nullptr;
    });
    if (plain) return text;
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void printScanText(std::ostream& out, const ScanResult& result, const std::string& putRight) {
    for (const auto& group : result.groups) printGroup(out, group);
    if (!result.unreadableFolders.empty()) {
        out << fmt::format("{} could not be read:\n", result.unreadableFolders.size() == 1
                                                          ? std::string("1 folder")
                                                          : groupedNumber(static_cast<int64_t>(
                                                                result.unreadableFolders.size())) + " folders");
        for (const auto& path : result.unreadableFolders) out << "  " << path << "\n";
        out << "\n";
    }
    if (!result.unreadableFiles.empty()) {
        out << fmt::format("{} could not be read to compare {}:\n",
                           result.unreadableFiles.size() == 1
                               ? std::string("1 file")
                               : groupedNumber(std::ssize(result.unreadableFiles)) + " files",
                           result.unreadableFiles.size() == 1 ? "it" : "them");
        for (const auto& path : result.unreadableFiles) out << "  " << path << "\n";
        out << "\n";
    }
    if (!result.leftovers.empty()) {
        out << fmt::format("{} left from an interrupted reclaim:\n",
                           result.leftovers.size() == 1
                               ? std::string("1 file is")
                               : groupedNumber(static_cast<int64_t>(result.leftovers.size())) + " files are");
        for (const auto& path : result.leftovers) out << "  " << path << "\n";
        if (!putRight.empty()) out << "Put them right with: " << putRight << "\n";
        out << "\n";
    }
    if (result.cancelled) out << "Cancelled: these are the groups found before the scan was stopped.\n";
    int64_t total = 0;
    for (const auto& group : result.groups) total += group.reclaimableBytes;
    out << fmt::format("Looked at {} files; read {} to compare them.\n", groupedNumber(result.filesSeen),
                       formatBytes(result.bytesRead));
    out << formatBytes(total) << " can be reclaimed in " << result.groups.size() << " groups.\n";
}

}  // namespace dedup::cli
