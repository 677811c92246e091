// What the command tests share: running the dedup binary under test, and the state of a tree.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "hasher.h"
#include "support/test_files.h"

namespace dedup::test {

inline CommandResult dedupCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEDUP_BINARY);
    return runCommand(arguments);
}

// Every regular file under the root with its content's digest: a temporary left behind shows too.
inline std::map<std::string, std::string> contentsUnder(const std::string& root) {
    std::map<std::string, std::string> digests;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            digests[entry.path().string()] = digestText(ContentHash::sha256(entry.path(), ContentHash::fullLimit));
        }
    }
    return digests;
}

}  // namespace dedup::test
