#include "hasher.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "hash_cache.h"
#include "parallel.h"
#include "platform/file_io.h"

namespace dedup {

std::string digestText(const Digest& digest) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string text(64, '0');
    for (size_t i = 0; i < digest.size(); ++i) {
        text[2 * i] = hex[digest[i] >> 4];
        text[2 * i + 1] = hex[digest[i] & 0xF];
    }
    return text;
}

namespace {

struct DigestContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Each thread keeps its one chunk buffer: memory stays at one chunk per worker however many files
// it reads.
std::span<std::byte> chunkBuffer() {
    thread_local std::unique_ptr<std::byte[]> buffer(new std::byte[ContentHash::chunkSize]);
    return {buffer.get(), ContentHash::chunkSize};
}

}  // namespace

Digest ContentHash::sha256(const std::string& path, int64_t limit) {
    platform::FileDescriptor fd = platform::openForReading(path);
    std::unique_ptr<EVP_MD_CTX, DigestContextFree> context(EVP_MD_CTX_new());
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("SHA-256 is not available from OpenSSL");
    }
    auto buffer = chunkBuffer();
    int64_t remaining = limit;
    while (remaining > 0) {
        size_t want = static_cast<size_t>(std::min<int64_t>(remaining, chunkSize));
        size_t got = platform::readSome(fd, path, buffer.first(want));
        if (got == 0) break;
        EVP_DigestUpdate(context.get(), buffer.data(), got);
        remaining -= static_cast<int64_t>(got);
    }
    Digest digest{};
    unsigned length = 0;
    EVP_DigestFinal_ex(context.get(), digest.data(), &length);
    return digest;
}

std::vector<std::optional<std::string>> Hasher::digests(const std::vector<ScannedFile>& files, int64_t limit,
                                                        bool rotational, HashCache* cache,
                                                        Locked<int64_t>& bytesRead,
                                                        const std::function<void(const std::string&)>& reading,
                                                        const std::function<bool()>& isCancelled, int workers) {
    std::vector<const ScannedFile*> pointers;
    pointers.reserve(files.size());
    for (const auto& file : files) pointers.push_back(&file);
    return digests(pointers, limit, rotational, cache, bytesRead, reading, isCancelled, workers);
}

std::vector<std::optional<std::string>> Hasher::digests(const std::vector<const ScannedFile*>& files, int64_t limit,
                                                        bool rotational, HashCache* cache,
                                                        Locked<int64_t>& bytesRead,
                                                        const std::function<void(const std::string&)>& reading,
                                                        const std::function<bool()>& isCancelled, int workers) {
    // Each index is written by exactly one worker, and the vector is not resized while they run,
    // so the entries need no lock of their own.
    std::vector<std::optional<std::string>> result(files.size());
    auto work = [&](size_t i) {
        if (isCancelled && isCancelled()) return;
        const ScannedFile& file = *files[i];
        bool full = limit >= file.status.size;
        auto kind = full ? HashCache::Kind::full : HashCache::Kind::partial;
        if (cache) {
            if (auto known = cache->digest(kind, file)) {
                result[i] = std::move(known);
                return;
            }
        }
        if (reading) reading(file.path);
        std::string text;
        try {
            text = digestText(ContentHash::sha256(file.path, limit));
        } catch (const std::exception&) {
            return;  // unreadable or gone: no digest, so it matches nothing
        }
        if (cache) cache->store(text, kind, file);
        bytesRead.with([&](int64_t& total) { total += std::min(file.status.size, limit); });
        result[i] = std::move(text);
    };

    parallelFor(files.size(), workersFor(workers, rotational), work);
    return result;
}

bool sameContent(const std::string& a, const std::string& b) {
    platform::FileDescriptor fa = platform::openForReading(a);
    platform::FileDescriptor fb = platform::openForReading(b);
    auto bufferA = chunkBuffer();
    std::vector<std::byte> bufferB(ContentHash::chunkSize);
    for (;;) {
        // A short read is not the end of a file: fill each chunk fully so the two line up.
        auto fill = [](const platform::FileDescriptor& fd, const std::string& path, std::span<std::byte> buffer) {
            size_t total = 0;
            while (total < buffer.size()) {
                size_t got = platform::readSome(fd, path, buffer.subspan(total));
                if (got == 0) break;
                total += got;
            }
            return total;
        };
        size_t na = fill(fa, a, bufferA);
        size_t nb = fill(fb, b, bufferB);
        if (na != nb || std::memcmp(bufferA.data(), bufferB.data(), na) != 0) return false;
        if (na == 0) return true;
    }
}

}  // namespace dedup
