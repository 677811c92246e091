// Reading what the user chose and saved: which files are left out of reclaiming, which disks are
// backup disks. A missing file means nothing was chosen yet. A file that is there but cannot be
// read or understood is an error, never "nothing chosen": read as empty, it would let a reclaim
// replace files the user left out, and the next save would overwrite the user's list.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace dedup {

// Saved choices that are there but unusable. `what()` is a sentence naming the file.
class SavedChoicesError : public std::runtime_error {
public:
    SavedChoicesError(std::string file, std::string reason);

    std::string file;
    std::string reason;  // "permission denied", "it is not valid JSON", ...
};

// The file's bytes; absent when there is no such file. Throws SavedChoicesError for anything else.
std::optional<std::string> readSavedChoices(const std::string& file);

// Decodes saved choices of type T; empty text is damage, not absence. Throws SavedChoicesError.
template <typename T>
T decodeSavedChoices(const std::string& file, const std::string& text) {
    auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) throw SavedChoicesError(file, "it is not valid JSON");
    try {
        return json.get<T>();
    } catch (const nlohmann::json::exception&) {
        throw SavedChoicesError(file, "it does not hold what this file should");
    }
}

}  // namespace dedup
