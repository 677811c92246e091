#include "path_spellings.h"

#include "path_names.h"
#include "platform/system.h"

namespace dedup {

namespace {

bool isUnder(const std::string& path, const std::string& folder) {
    if (folder == "/") return path.starts_with("/");
    return path == folder || (path.starts_with(folder) && path[folder.size()] == '/');
}

std::string joined(const std::string& folder, const std::string& rest) {
    if (folder == "/") return rest.empty() ? "/" : rest;
    return folder + rest;
}

}  // namespace

std::string realLocation(const std::string& path) {
    if (path == "/" || !path.starts_with("/")) return path;
    if (auto real = platform::realPath(path)) return *real;
    auto folder = platform::realPath(parentOf(path));
    if (!folder) return path;
    return joined(*folder, "/" + nameOf(path));
}

std::set<std::string> spellingsBelow(const std::set<std::string>& excluded, const std::vector<std::string>& roots) {
    std::set<std::string> spellings = excluded;
    for (const auto& path : excluded) spellings.insert(realLocation(path));
    for (const auto& root : roots) {
        auto real = platform::realPath(root);
        if (!real || *real == root) continue;
        // The same tree under two names: what is left out below (or above) one is left out below
        // (or above) the other.
        std::set<std::string> more;
        for (const auto& path : spellings) {
            for (const auto& [from, to] : {std::pair{*real, root}, std::pair{root, *real}}) {
                if (isUnder(path, from)) {
                    more.insert(joined(to, path.substr(from.size() == 1 ? 0 : from.size())));
                } else if (isUnder(from, path)) {
                    more.insert(to);  // the whole root lies below the left-out folder
                }
            }
        }
        spellings.merge(more);
    }
    return spellings;
}

}  // namespace dedup
