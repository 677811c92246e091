#include "tree_digest.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <stdexcept>

#include <openssl/evp.h>

#include "hasher.h"

namespace dedup {

std::string treeDigest(std::vector<TreeItem> items) {
    std::sort(items.begin(), items.end(), [](const TreeItem& a, const TreeItem& b) { return a.name < b.name; });
    // The fields laid end to end and digested in one call: a search digests thousands of folders,
    // and a call per field cost more than the digest itself.
    std::string bytes;
    auto feed = [&](const std::string& text) {
        uint64_t length = text.size();
        bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
        bytes.append(text);
    };
    for (const auto& item : items) {
        bytes.push_back(static_cast<char>(item.kind));
        feed(item.name);
        feed(item.payload);
    }
    // Looked up once: left to EVP_Digest, the lookup is made again for every folder.
    static EVP_MD* const method = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    Digest digest{};
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, method ? method : EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    return digestText(digest);
}

}  // namespace dedup
