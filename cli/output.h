// How the command writes results: sentences and aligned columns for a person, JSON for programs.
#pragma once

#include <ostream>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "across_volumes.h"
#include "duplicate_finder.h"

namespace dedup::cli {

// Paths in JSON are written in the form of path_text.h, so that a program gets back the very
// bytes of a name that is not UTF-8; any other text that is not UTF-8 shows U+FFFD rather than
// failing the whole output.
std::string jsonText(const nlohmann::json& value);
// The same on one line, for streams of one object per line.
std::string jsonLine(const nlohmann::json& value);

// 12345678 -> "12,345,678": counts a person can read at a glance.
std::string groupedNumber(int64_t n);

// `putRight`: the command that puts the result's leftovers right, shown with them when given.
void printScanText(std::ostream& out, const ScanResult& result, const std::string& putRight = "");

// The ScanResult's JSON, written one group at a time: building the whole document first would
// take more memory than the scan itself. `putRight` is written as "putRightWith" when given.
void writeScanJson(std::ostream& out, const ScanResult& result, const std::string& putRight = "");
// One group as writeScanJson writes it: the same text as jsonLine(nlohmann::json(group)).
std::string groupJsonLine(const DuplicateGroup& group);
// One set of copies across disks, likewise: the same text as jsonLine(nlohmann::json(group)).
std::string acrossGroupJsonLine(const AcrossFileGroup& group);
// The AcrossResult's JSON, the same document as nlohmann::json(result), each group of files on a
// line of its own; written a few blocks of groups at a time.
void writeAcrossJson(std::ostream& out, const AcrossResult& result);

// The text as one shell word: "dedup journal recover '/home/ana/My Photos'" can be pasted as it is.
std::string shellQuoted(const std::string& text);

}  // namespace dedup::cli
