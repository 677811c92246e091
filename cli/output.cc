#include "output.h"

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cctype>
#include <cstring>
#include <map>
#include <thread>

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

namespace {

// JSON text written straight into a string, with no tree in between: building nlohmann's tree for
// each of tens of thousands of grouped files cost more than the grouping itself. The text is the
// same as jsonLine() gives for the same values (keys sorted, nothing escaped that it leaves as is),
// so programs reading either see one format.
class JsonAppender {
public:
    explicit JsonAppender(std::string& out) : out_(out) {}

    void number(std::integral auto value) {
        char digits[24];
        out_.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    }

    // `text` is valid UTF-8 (paths go through pathText first; digests are hexadecimal), so only
    // quotes, backslashes and control characters need escaping.
    void string(std::string_view text) {
        static constexpr char hex[] = "0123456789abcdef";
        out_.push_back('"');
        size_t plain = 0;
        for (size_t i = 0; i < text.size(); ++i) {
            auto c = static_cast<unsigned char>(text[i]);
            if (c >= 0x20 && c != '"' && c != '\\') continue;
            out_.append(text.substr(plain, i - plain));
            plain = i + 1;
            switch (c) {
                case '"': out_.append("\\\""); break;
                case '\\': out_.append("\\\\"); break;
                case '\b': out_.append("\\b"); break;
                case '\f': out_.append("\\f"); break;
                case '\n': out_.append("\\n"); break;
                case '\r': out_.append("\\r"); break;
                case '\t': out_.append("\\t"); break;
                default:
                    out_.append("\\u00");
                    out_.push_back(hex[c >> 4]);
                    out_.push_back(hex[c & 0xF]);
            }
        }
        out_.append(text.substr(plain));
        out_.push_back('"');
    }

    // A path in the form of path_text.h. Most are valid UTF-8 with no backslash, which that form
    // leaves as they are, and hold nothing JSON escapes: those are copied as they stand. One pass
    // over the bytes tells both; only a name beyond ASCII is then looked at sequence by sequence.
    void path(const std::string& path) {
        bool escaped = false, beyondAscii = false;
        for (char c : path) {
            auto byte = static_cast<unsigned char>(c);
            escaped |= byte < 0x20 || byte == '"' || byte == '\\';
            beyondAscii |= byte >= 0x80;
        }
        if (!escaped && (!beyondAscii || isOwnText(path))) {
            out_.push_back('"');
            out_.append(path);
            out_.push_back('"');
            return;
        }
        string(isOwnText(path) ? std::string_view(path) : std::string_view(pathText(path)));
    }

    void key(std::string_view name) {
        out_.push_back('"');
        out_.append(name);
        out_.append("\":");
    }

    void timestamp(const Timestamp& t) {
        out_.append("{\"nanoseconds\":");
        number(t.nanoseconds);
        out_.append(",\"seconds\":");
        number(t.seconds);
        out_.push_back('}');
    }

    void file(const ScannedFile& f) {
        out_.push_back('{');
        if (f.clones) {
            out_.append("\"clones\":{\"cloneID\":");
            number(f.clones->cloneID);
            out_.append(",\"privateSize\":");
            number(f.clones->privateSize);
            out_.append(",\"references\":");
            number(f.clones->references);
            out_.append("},");
        }
        key("path");
        path(f.path);
        const FileStatus& s = f.status;
        out_.append(",\"status\":{\"changed\":");
        timestamp(s.changed);
        out_.append(",\"device\":");
        number(s.device);
        out_.append(",\"flags\":");
        number(s.flags);
        out_.append(",\"gid\":");
        number(s.gid);
        out_.append(",\"inode\":");
        number(s.inode);
        out_.append(",\"links\":");
        number(s.links);
        out_.append(",\"mode\":");
        number(s.mode);
        out_.append(",\"modified\":");
        timestamp(s.modified);
        out_.append(",\"size\":");
        number(s.size);
        out_.append(",\"uid\":");
        number(s.uid);
        out_.append("}}");
    }

    void group(const DuplicateGroup& g) {
        out_.append("{\"digest\":");
        string(g.digest);
        out_.append(",\"files\":[");
        for (size_t i = 0; i < g.files.size(); ++i) {
            if (i > 0) out_.push_back(',');
            file(g.files[i]);
        }
        out_.append("],\"reclaimableBytes\":");
        number(g.reclaimableBytes);
        out_.push_back('}');
    }

    // Any text, valid UTF-8 or not: ASCII as string() writes it, the rest as jsonLine() writes
    // it, invalid bytes replaced.
    void anyText(const std::string& text) {
        bool ascii = std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        if (ascii) {
            string(text);
        } else {
            out_.append(jsonLine(nlohmann::json(text)));
        }
    }

    void acrossGroup(const AcrossFileGroup& g) {
        out_.append("{\"digest\":");
        string(g.digest);
        out_.append(",\"files\":[");
        for (size_t i = 0; i < g.files.size(); ++i) {
            if (i > 0) out_.push_back(',');
            path(g.files[i].path);
        }
        out_.append("],\"freedBytes\":");
        number(g.freedBytes);
        out_.append(",\"size\":");
        number(g.size);
        // Volume names are UUIDs in practice, but only the file system says so.
        out_.append(",\"volumes\":[");
        for (size_t i = 0; i < g.volumes.size(); ++i) {
            if (i > 0) out_.push_back(',');
            anyText(g.volumes[i]);
        }
        out_.append("]}");
    }

private:
    std::string& out_;
};

}  // namespace

std::string groupJsonLine(const DuplicateGroup& group) {
    std::string text;
    JsonAppender(text).group(group);
    return text;
}

std::string acrossGroupJsonLine(const AcrossFileGroup& group) {
    std::string text;
    JsonAppender(text).acrossGroup(group);
    return text;
}

void writeAcrossJson(std::ostream& out, const AcrossResult& result) {
    // Keys in sorted order, as every JSON this system writes.
    out << "{\"bytesRead\":" << result.bytesRead << ",\"cancelled\":" << (result.cancelled ? "true" : "false")
        << ",\"files\":[";
    // The text of tens of thousands of groups takes a good share of a search from memory, all on
    // one core: blocks of groups are made on every core, a round of them at a time, and written in
    // order, so that no more than one round's text (a few megabytes) is held beside the result.
    constexpr size_t groupsPerBlock = 1024;
    const size_t workers = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::string> blocks(2 * workers);
    const size_t count = result.files.size();
    for (size_t first = 0; first < count; first += blocks.size() * groupsPerBlock) {
        const size_t round = std::min(blocks.size(), (count - first + groupsPerBlock - 1) / groupsPerBlock);
        parallelFor(round, workers, [&](size_t b) {
            std::string& text = blocks[b];
            text.clear();
            JsonAppender json(text);
            const size_t begin = first + b * groupsPerBlock;
            for (size_t i = begin; i < std::min(count, begin + groupsPerBlock); ++i) {
                text.append(i > 0 ? ",\n" : "\n");
                json.acrossGroup(result.files[i]);
            }
        });
        for (size_t b = 0; b < round; ++b) out << blocks[b];
    }
    const auto text = jsonLine;
    out << "],\"filesSeen\":" << result.filesSeen << ",\"nearlyIdentical\":" << text(nlohmann::json(result.nearlyIdentical))
        << ",\"trees\":" << text(nlohmann::json(result.trees))
        << ",\"unreadableFolders\":" << text(nlohmann::json(pathTexts(result.unreadableFolders))) << "}\n";
}

void writeScanJson(std::ostream& out, const ScanResult& result, const std::string& putRight) {
    const auto text = jsonLine;
    // Keys in sorted order, as every JSON this system writes.
    out << "{\"bytesRead\":" << result.bytesRead << ",\"cancelled\":" << (result.cancelled ? "true" : "false")
        << ",\"filesSeen\":" << result.filesSeen << ",\"groups\":[";
    // Written some tens of kilobytes at a time, so no more than that is held beside the result.
    constexpr size_t flushAt = 64 << 10;
    std::string buffer;
    buffer.reserve(flushAt + (4 << 10));
    JsonAppender json(buffer);
    for (size_t i = 0; i < result.groups.size(); ++i) {
        buffer.append(i > 0 ? ",\n" : "\n");
        json.group(result.groups[i]);
        if (buffer.size() >= flushAt) {
            out << buffer;
            buffer.clear();
        }
    }
    out << buffer;
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
