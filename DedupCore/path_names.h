// Pieces of absolute paths, taken apart as plain strings: the engine never asks the file system
// to resolve a path it has built itself.
#pragma once

#include <string>

namespace dedup {

// "/a/b" -> "/a"; "/a" -> "/"; a bare name -> ".".
inline std::string parentOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// "/a/b.jpg" -> "b.jpg".
inline std::string nameOf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

}  // namespace dedup
