#include "tree_digest.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include <openssl/evp.h>

#include "hasher.h"

namespace dedup {

std::string treeDigest(std::vector<TreeItem> items) {
    std::sort(items.begin(), items.end(), [](const TreeItem& a, const TreeItem& b) { return a.name < b.name; });
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    auto feed = [&](const std::string& text) {
        uint64_t length = text.size();
        EVP_DigestUpdate(context.get(), &length, sizeof length);
        EVP_DigestUpdate(context.get(), text.data(), text.size());
    };
    for (const auto& item : items) {
        char kind = static_cast<char>(item.kind);
        EVP_DigestUpdate(context.get(), &kind, 1);
        feed(item.name);
        feed(item.payload);
    }
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest.data(), &length);
    return digestText(digest);
}

}  // namespace dedup
