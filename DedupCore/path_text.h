// How a file name is written where the text must be UTF-8: the journal, saved scans, the saved
// selection, CSV reports and every JSON the command prints. Linux accepts any bytes but NUL and
// "/" in a name, and old disks and archives from other systems hold names that are not UTF-8; such
// a name must still come back byte for byte, or a journal would point at a file that does not
// exist.
//
// The form: valid UTF-8 stands as it is; each byte that is not part of valid UTF-8 is written as
// the four characters "\xNN" (two lower-case hexadecimal digits), and a backslash as "\\". Reading
// turns both back; any other backslash stays as it is, so text written before this form existed
// reads as it did. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace dedup {

std::string pathText(std::string_view path);
// Whether pathText(path) is the path itself (valid UTF-8, no backslash), asked without making it.
bool isOwnText(std::string_view path);
std::string pathFromText(std::string_view text);

template <typename Paths>
std::vector<std::string> pathTexts(const Paths& paths) {
    std::vector<std::string> texts;
    texts.reserve(paths.size());
    for (const auto& path : paths) texts.push_back(pathText(path));
    return texts;
}
std::vector<std::string> pathsFromTexts(const std::vector<std::string>& texts);

}  // namespace dedup
