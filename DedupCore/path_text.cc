#include "path_text.h"

namespace dedup {

namespace {

// The length of the well-formed UTF-8 sequence at the start of `s`, or 0 when the first byte does
// not begin one. Overlong forms, surrogates and values above U+10FFFF are not well formed: a
// reader that took them would make another name of them.
size_t validSequence(std::string_view s) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    auto continuation = [&](size_t i) { return i < s.size() && (byte(i) & 0xC0) == 0x80; };
    unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    if (lead >= 0xC2 && lead <= 0xDF) return continuation(1) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (!continuation(1) || !continuation(2)) return 0;
        if (lead == 0xE0 && byte(1) < 0xA0) return 0;  // overlong
        if (lead == 0xED && byte(1) >= 0xA0) return 0;  // surrogate
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (!continuation(1) || !continuation(2) || !continuation(3)) return 0;
        if (lead == 0xF0 && byte(1) < 0x90) return 0;  // overlong
        if (lead == 0xF4 && byte(1) >= 0x90) return 0;  // above U+10FFFF
        return 4;
    }
    return 0;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::string pathText(std::string_view path) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(path.size());
    for (size_t i = 0; i < path.size();) {
        if (path[i] == '\\') {
            text += "\\\\";
            ++i;
            continue;
        }
        size_t length = validSequence(path.substr(i));
        if (length == 0) {
            auto value = static_cast<unsigned char>(path[i]);
            text += "\\x";
            text += digits[value >> 4];
            text += digits[value & 0xF];
            ++i;
            continue;
        }
        text.append(path.substr(i, length));
        i += length;
    }
    return text;
}

bool isOwnText(std::string_view path) {
    for (size_t i = 0; i < path.size();) {
        if (static_cast<unsigned char>(path[i]) < 0x80) {
            if (path[i] == '\\') return false;
            ++i;
            continue;
        }
        size_t length = validSequence(path.substr(i));
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string pathFromText(std::string_view text) {
    std::string path;
    path.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            if (text[i + 1] == '\\') {
                path += '\\';
                ++i;
                continue;
            }
            if (text[i + 1] == 'x' && i + 3 < text.size()) {
                int high = hexValue(text[i + 2]);
                int low = hexValue(text[i + 3]);
                if (high >= 0 && low >= 0) {
                    path += static_cast<char>(high * 16 + low);
                    i += 3;
                    continue;
                }
            }
        }
        path += text[i];
    }
    return path;
}

std::vector<std::string> pathsFromTexts(const std::vector<std::string>& texts) {
    std::vector<std::string> paths;
    paths.reserve(texts.size());
    for (const auto& text : texts) paths.push_back(pathFromText(text));
    return paths;
}

}  // namespace dedup
