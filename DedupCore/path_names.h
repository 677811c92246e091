// Pieces of absolute paths, taken apart as plain strings: the engine never asks the file system
// to resolve a path it has built itself.
#pragma once

#include <string>
#include <string_view>

namespace dedup {

// "/a/b" -> "/a"; "/a" -> "/"; a bare name -> ".". A view into `path`, for a lookup that
// needs no string of its own.
inline std::string_view parentViewOf(std::string_view path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos) return ".";
    return path.substr(0, slash == 0 ? 1 : slash);
}

inline std::string parentOf(const std::string& path) { return std::string(parentViewOf(path)); }

// "/a/b.jpg" -> "b.jpg".
inline std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

}  // namespace dedup
