// make_dataset: writes a reproducible folder tree on which duplicate finders are timed and
// checked against each other.
//
//   make_dataset [--shape mixed|home] [--scale N] [--reflink] DIR
//
// The same scale gives the same names and the same bytes on every run and every machine, so
// figures taken on different days stay comparable. At scale 1 the tree holds about 60,000 files
// and 2.7 GB; the scale multiplies the number of files and the size of the largest ones, never
// the fixed edge cases (files of exactly 65536 bytes stay 65536 bytes).
//
// Every file's bytes come from a recipe (Content) and are generated again for every copy. Copying
// through the kernel (copy_file_range) would let Btrfs and XFS share the blocks behind our back,
// and such a "copy" is not one. Blocks are shared only where asked for: with --reflink, the files
// under "Clones" are made with FICLONE where the file system accepts it.
//
// At the end it prints what a correct scan has to find. The expectation is computed from the bytes
// actually written (a 128-bit digest of each file, one record per inode), not from the plan, so an
// accidental coincidence in the plan cannot make the tree and the expectation disagree.

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <map>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t KiB = 1024;
constexpr std::uint64_t MiB = 1024 * KiB;
// One write per MiB: large enough that system calls cost nothing next to the disk, small enough
// to stay in the CPU's cache between being generated and being written. A multiple of 8, so only
// the last piece of a file ever ends inside a random word.
constexpr std::size_t chunkSize = 1 * MiB;

std::system_error systemError(const std::string& call, const fs::path& path) {
    return {errno, std::generic_category(), call + "(" + path.string() + ")"};
}

// ---- Random numbers ---------------------------------------------------------------------------
// Written out here rather than taken from <random>: the standard fixes its engines' output but not
// its distributions', and the tree must not change with the standard library. Integers only, for
// the same reason (a libm may round exp/log differently).

std::uint64_t splitmix64(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// xoshiro256**, seeded through splitmix64 so that neighbouring seeds give unrelated streams.
class Random {
public:
    explicit Random(std::uint64_t seed) {
        for (auto& word : state_) word = splitmix64(seed);
    }

    std::uint64_t next() {
        const std::uint64_t result = std::rotl(state_[1] * 5, 7) * 9;
        const std::uint64_t t = state_[1] << 17;
        state_[2] ^= state_[0];
        state_[3] ^= state_[1];
        state_[1] ^= state_[2];
        state_[0] ^= state_[3];
        state_[2] ^= t;
        state_[3] = std::rotl(state_[3], 45);
        return result;
    }

    // [low, high], both included. The modulo bias is far below anything a benchmark could notice.
    std::uint64_t between(std::uint64_t low, std::uint64_t high) { return low + next() % (high - low + 1); }
    std::size_t below(std::size_t count) { return static_cast<std::size_t>(next() % count); }
    bool perMille(unsigned chance) { return next() % 1000 < chance; }

    // Real file sizes spread over orders of magnitude: pick a doubling band uniformly, then a size
    // uniformly inside it (a log-uniform draw without floating point).
    std::uint64_t spread(std::uint64_t low, std::uint64_t high) {
        unsigned bands = 0;
        while ((low << (bands + 1)) <= high) ++bands;
        const std::uint64_t from = low << below(bands + 1);
        return between(from, std::min(high, from * 2));
    }

    template <class T, std::size_t N>
    const T& pick(const std::array<T, N>& items) {
        return items[below(N)];
    }
    template <class T>
    const T& pick(const std::vector<T>& items) {
        return items[below(items.size())];
    }

private:
    std::array<std::uint64_t, 4> state_{};
};

// ---- File contents -----------------------------------------------------------------------------

// What a file holds. Two files with equal recipes hold equal bytes.
struct Content {
    std::uint64_t seed = 0;
    std::uint64_t size = 0;
    std::uint64_t prefixSeed = 0;  // the first prefixLength bytes follow this stream instead
    std::uint64_t prefixLength = 0;
    std::vector<std::uint64_t> flipped;  // offsets whose byte is inverted

    Content flippedAt(std::uint64_t offset) const {
        Content changed = *this;
        changed.flipped.push_back(offset);
        return changed;
    }
};

// Fills buffers from a random stream, eight bytes per step. Words are stored little-endian
// whatever the machine, so the bytes do not depend on it.
void fillRandom(Random& random, std::span<std::uint8_t> out) {
    std::size_t i = 0;
    for (; i + 8 <= out.size(); i += 8) {
        std::uint64_t word = random.next();
        if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
        std::memcpy(out.data() + i, &word, 8);
    }
    if (i < out.size()) {
        std::uint64_t word = random.next();
        for (; i < out.size(); ++i, word >>= 8) out[i] = static_cast<std::uint8_t>(word);
    }
}

// A 128-bit digest of a file's bytes, used only to tell which written files are identical. Not a
// cryptographic hash: nothing here is adversarial, and it must cost little next to the writing.
struct Digest {
    std::uint64_t high = 0, low = 0;
    auto operator<=>(const Digest&) const = default;
};

class Digester {
public:
    void update(std::span<const std::uint8_t> bytes) {
        // Complete a word left over from the previous piece first, so any split gives one digest.
        while (pendingCount_ > 0 && pendingCount_ < 8 && !bytes.empty()) {
            pending_[pendingCount_++] = bytes.front();
            bytes = bytes.subspan(1);
        }
        if (pendingCount_ == 8) {
            mix(load(pending_.data()));
            pendingCount_ = 0;
        }
        std::size_t i = 0;
        for (; i + 8 <= bytes.size(); i += 8) mix(load(bytes.data() + i));
        for (; i < bytes.size(); ++i) pending_[pendingCount_++] = bytes[i];
    }

    Digest finish(std::uint64_t size) {
        if (pendingCount_ > 0) {
            std::fill(pending_.begin() + pendingCount_, pending_.end(), 0);
            mix(load(pending_.data()));
        }
        mix(size);
        return {avalanche(a_ ^ std::rotl(b_, 32)), avalanche(b_ + a_ * 3)};
    }

private:
    static std::uint64_t load(const std::uint8_t* p) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        return word;
    }
    void mix(std::uint64_t word) {
        a_ = std::rotl((a_ ^ word) * 0x9E3779B97F4A7C15ull, 29);
        b_ = (std::rotl(b_, 17) + word) * 0xC2B2AE3D27D4EB4Full;
    }
    static std::uint64_t avalanche(std::uint64_t z) {
        std::uint64_t state = z;
        return splitmix64(state);
    }

    std::uint64_t a_ = 0x243F6A8885A308D3ull, b_ = 0x13198A2E03707344ull;
    std::array<std::uint8_t, 8> pending_{};
    std::size_t pendingCount_ = 0;
};

// ---- Writing the tree --------------------------------------------------------------------------

// Owns the output folder while it is written; remembers, per inode, its size, digest, how many
// names it has and which storage unit it belongs to (a clone made with FICLONE joins its
// source's unit, because a finder that reads block sharing counts the two once). Single thread.
// Every failure other than a refused clone is thrown as std::system_error naming the path.
class TreeWriter {
public:
    TreeWriter(fs::path root, bool reflink) : root_(std::move(root)), reflink_(reflink), buffer_(chunkSize) {}

    void write(const fs::path& relative, const Content& content) {
        const fs::path path = prepare(relative);
        const int fd = create(path);
        const Digest digest = fill(fd, path, content);
        close(fd);
        remember(relative, content.size, digest, inodes_.size());
    }

    void hardLink(const fs::path& existing, const fs::path& relative) {
        const fs::path path = prepare(relative);
        if (::link((root_ / existing).c_str(), path.c_str()) != 0) throw systemError("link", path);
        const std::size_t inode = inodeOf(existing);
        ++inodes_[inode].names;
        inodeOfPath_[relative.string()] = inode;
    }

    // A file sharing every block with `source`; written out as a plain copy when clones were not
    // asked for or the file system refuses them, so the tree has the same names and bytes either way.
    void clone(const fs::path& source, const fs::path& relative, const Content& content) {
        ++clonesAsked_;
        const fs::path path = prepare(relative);
        const int fd = create(path);
        if (reflink_ && clonesWork_) {
            const int from = ::open((root_ / source).c_str(), O_RDONLY | O_CLOEXEC);
            if (from < 0) throw systemError("open", root_ / source);
            const bool cloned = ::ioctl(fd, FICLONE, from) == 0;
            close(from);
            if (cloned) {
                close(fd);
                const Inode& original = inodes_[inodeOf(source)];
                remember(relative, original.size, original.digest, original.unit);
                ++clonesMade_;
                clonedBytes_ += original.size;
                return;
            }
            // EOPNOTSUPP on ext4 and tmpfs, EXDEV across file systems: the answer will not change.
            clonesWork_ = false;
        }
        const Digest digest = fill(fd, path, content);
        close(fd);
        remember(relative, content.size, digest, inodes_.size());
    }

    void symlink(const fs::path& target, const fs::path& relative) {
        const fs::path path = prepare(relative);
        if (::symlink(target.c_str(), path.c_str()) != 0) throw systemError("symlink", path);
    }

    struct Summary {
        std::uint64_t folders = 0, fileNames = 0, symlinks = 0, emptyFiles = 0;
        std::uint64_t inodes = 0, candidates = 0, bytes = 0;
        std::uint64_t duplicateSets = 0, expected = 0, expectedClonesApart = 0, setsNoneReplaceable = 0;
        std::uint64_t clonesAsked = 0, clonesMade = 0, clonedBytes = 0;
        std::uint64_t candidatesInSharedSizes = 0;
    };

    Summary summarize() const {
        Summary s;
        // Names are counted on the finished tree, never following a link, to report what is there
        // rather than what was meant to be.
        for (auto it = fs::recursive_directory_iterator(root_); it != fs::recursive_directory_iterator();
             ++it) {
            const fs::file_status status = it->symlink_status();
            if (fs::is_symlink(status))
                ++s.symlinks;
            else if (fs::is_directory(status))
                ++s.folders;
            else if (fs::is_regular_file(status))
                ++s.fileNames;
        }
        std::map<std::pair<std::uint64_t, Digest>, std::vector<std::size_t>> sets;
        for (std::size_t i = 0; i < inodes_.size(); ++i) {
            const Inode& inode = inodes_[i];
            ++s.inodes;
            s.bytes += inode.size;
            // An empty file is never a duplicate: there is nothing to share.
            if (inode.size == 0) {
                ++s.emptyFiles;
                continue;
            }
            ++s.candidates;
            sets[{inode.size, inode.digest}].push_back(i);
        }
        for (const auto& [key, members] : sets) {
            if (members.size() < 2) continue;
            std::map<std::size_t, bool> units;  // unit -> every inode of it has a single name
            for (std::size_t i : members) {
                auto [it, fresh] = units.try_emplace(inodes_[i].unit, true);
                it->second = it->second && inodes_[i].names == 1;
            }
            s.expectedClonesApart += (members.size() - 1) * key.first;
            if (units.size() < 2) continue;
            // A finder never offers a set in which every copy is hard-linked (none may be replaced).
            // The plan avoids such sets; counting them tells if one slipped in.
            if (std::none_of(units.begin(), units.end(), [](const auto& unit) { return unit.second; })) {
                ++s.setsNoneReplaceable;
                continue;
            }
            ++s.duplicateSets;
            s.expected += (units.size() - 1) * key.first;
        }
        s.clonesAsked = clonesAsked_;
        s.clonesMade = clonesMade_;
        s.clonedBytes = clonedBytes_;
        std::map<std::uint64_t, std::uint64_t> filesOfSize;
        for (const Inode& inode : inodes_) {
            if (inode.size > 0) ++filesOfSize[inode.size];
        }
        for (const auto& [size, files] : filesOfSize) {
            if (files > 1) s.candidatesInSharedSizes += files;
        }
        return s;
    }

private:
    struct Inode {
        std::uint64_t size;
        Digest digest;
        std::size_t unit;
        unsigned names;
    };

    fs::path prepare(const fs::path& relative) {
        fs::path path = root_ / relative;
        const fs::path parent = path.parent_path();
        if (madeFolders_.insert(parent.string()).second) fs::create_directories(parent);
        return path;
    }

    static int create(const fs::path& path) {
        // O_EXCL: two plan entries with the same name are a bug in the plan, not something to overwrite.
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) throw systemError("open", path);
        return fd;
    }

    Digest fill(int fd, const fs::path& path, const Content& content) {
        Random stream(content.seed);
        Random prefix(content.prefixSeed);
        Digester digester;
        for (std::uint64_t offset = 0; offset < content.size;) {
            const std::size_t length =
                static_cast<std::size_t>(std::min<std::uint64_t>(chunkSize, content.size - offset));
            const std::span<std::uint8_t> piece(buffer_.data(), length);
            fillRandom(stream, piece);
            if (offset < content.prefixLength) {
                fillRandom(prefix, piece.first(static_cast<std::size_t>(
                                       std::min<std::uint64_t>(length, content.prefixLength - offset))));
            }
            for (std::uint64_t at : content.flipped) {
                if (at >= offset && at < offset + length) piece[at - offset] ^= 0xFF;
            }
            digester.update(piece);
            writeAll(fd, path, piece);
            offset += length;
        }
        return digester.finish(content.size);
    }

    static void writeAll(int fd, const fs::path& path, std::span<const std::uint8_t> bytes) {
        while (!bytes.empty()) {
            const ssize_t written = ::write(fd, bytes.data(), bytes.size());
            if (written < 0) {
                if (errno == EINTR) continue;
                throw systemError("write", path);
            }
            bytes = bytes.subspan(static_cast<std::size_t>(written));
        }
    }

    void close(int fd) {
        if (::close(fd) != 0 && errno != EINTR) throw systemError("close", root_);
    }

    void remember(const fs::path& relative, std::uint64_t size, Digest digest, std::size_t unit) {
        inodeOfPath_[relative.string()] = inodes_.size();
        inodes_.push_back({size, digest, unit, 1});
    }

    std::size_t inodeOf(const fs::path& relative) const {
        const auto it = inodeOfPath_.find(relative.string());
        if (it == inodeOfPath_.end())
            throw std::logic_error("plan refers to a file not written: " + relative.string());
        return it->second;
    }

    fs::path root_;
    bool reflink_;
    bool clonesWork_ = true;
    std::uint64_t clonesAsked_ = 0, clonesMade_ = 0, clonedBytes_ = 0;
    std::vector<std::uint8_t> buffer_;
    std::set<std::string> madeFolders_;
    std::unordered_map<std::string, std::size_t> inodeOfPath_;
    std::vector<Inode> inodes_;
};

// ---- The plan ----------------------------------------------------------------------------------
// Names mix spaces, accents and other scripts, because paths are where finders' output parsers
// and comparison code tend to break. No name is ".DS_Store", ends a folder in ".app" or holds
// ".dedup-": those are treated specially by the scanner and would make the figures disagree.

constexpr std::array<std::string_view, 8> areas = {
    "Documents", "Projects", "Music", "Downloads", "Schreibtisch Ablage", "Проекты", "写真と資料", ".config"};
constexpr std::array<std::string_view, 20> folderWords = {
    "client notes", "Année 2021",    "naïve café",    "src",    "build output",
    "old stuff",    "résumé drafts", "Ελληνικά",      "日本語", "Zoë's things",
    "tax 2019",     "misc",          "holiday plans", "mañana", "Ärzte",
    "podcasts",     "assets",        "scans",         "lib",    "Données brutes"};
constexpr std::array<std::string_view, 14> stems = {
    "report", "notes", "Überweisung", "facture", "データ", "отчёт",        "main",
    "index",  "thumb", "song",        "readme",  "config", "Ünïcödé test", "meeting minutes"};
constexpr std::array<std::string_view, 3> separators = {" ", "_", "-"};
constexpr std::array<std::string_view, 12> extensions = {".txt", ".md",   ".pdf", ".csv", ".json", ".cc",
                                                         ".h",   ".html", ".xml", ".log", ".ini",  ""};
constexpr std::array<std::string_view, 12> months = {
    "01 January", "02 février", "03 März",      "04 April",   "05 May",      "06 junio",
    "07 July",    "08 août",    "09 September", "10 October", "11 November", "12 Dezember"};

std::string number(std::uint64_t value, int width) {
    std::string digits = std::to_string(value);
    if (digits.size() < static_cast<std::size_t>(width)) digits.insert(0, width - digits.size(), '0');
    return digits;
}

enum class Shape { mixed, home };

// The folder of the home shape that benchmarks rewrite, relative to the tree.
constexpr std::string_view rewrittenFolder = "Projects/build cache";

class Plan {
public:
    Plan(TreeWriter& writer, double scale) : w_(writer), scale_(scale) {}

    // The order of the steps is part of the dataset: every draw depends on the ones before it.
    void build(Shape shape) {
        if (shape == Shape::home) {
            homeFolders();
            homeUniqueFiles();
            homeCopies();
            return;
        }
        folders();
        smallFiles();
        emptyFiles();
        photos();
        largeFiles();
        sameSizeDifferent();
        firstAndLastByte();
        hardLinks();
        symbolicLinks();
        clones();
    }

private:
    std::size_t count(double atScaleOne, std::size_t minimum) const {
        return std::max<std::size_t>(minimum, static_cast<std::size_t>(std::llround(atScaleOne * scale_)));
    }
    std::uint64_t bytes(std::uint64_t atScaleOne, std::uint64_t minimum) const {
        return std::max<std::uint64_t>(minimum,
                                       static_cast<std::uint64_t>(std::llround(double(atScaleOne) * scale_)));
    }
    Content fresh(std::uint64_t size) {
        Content content;
        content.seed = splitmix64(seeds_);
        content.size = size;
        return content;
    }

    // A random tree: each new folder goes under an area or under an earlier folder that is not yet
    // four levels deep, so depths from one to five occur.
    void folders() {
        std::vector<std::pair<fs::path, int>> made;
        for (auto area : areas) made.emplace_back(fs::path(area), 0);
        const std::size_t n = count(1800, 12);
        for (std::size_t i = 0; i < n; ++i) {
            auto [parent, depth] = made[random_.below(made.size())];
            if (depth >= 4) std::tie(parent, depth) = made[random_.below(areas.size())];
            made.emplace_back(parent / (std::string(random_.pick(folderWords)) + " " + std::to_string(i)),
                              depth + 1);
        }
        for (const auto& entry : made) smallFolders_.push_back(entry.first);
    }

    std::string fileName() {
        std::string name;
        if (random_.perMille(20)) name = ".";  // hidden files are files too
        name += random_.pick(stems);
        name += random_.pick(separators);
        name += number(fileCounter_++, 6);
        name += random_.pick(extensions);
        return name;
    }

    // Most files of a home folder are small and unique; about one in eleven has a copy elsewhere.
    void smallFiles() {
        const std::size_t n = count(53000, 200);
        for (std::size_t i = 0; i < n; ++i) {
            const fs::path folder = random_.pick(smallFolders_);
            const std::string name = fileName();
            const Content content = fresh(random_.spread(200, 30 * KiB));
            w_.write(folder / name, content);
            if (!random_.perMille(90)) {
                uniqueSmall_.push_back(folder / name);
                continue;
            }
            const int copies = random_.perMille(200) ? 2 : 1;
            std::vector<fs::path> used = {folder};
            for (int c = 1; c <= copies; ++c) {
                const fs::path other = random_.pick(smallFolders_);
                // The same name only where it is free; "Copy N of" names are unique by their number.
                const bool sameName =
                    std::find(used.begin(), used.end(), other) == used.end() && random_.perMille(500);
                w_.write(other / (sameName ? name : "Copy " + std::to_string(c) + " of " + name), content);
                used.push_back(other);
            }
        }
    }

    void emptyFiles() {
        const std::size_t n = count(150, 4);
        for (std::size_t i = 0; i < n; ++i) {
            w_.write(random_.pick(smallFolders_) /
                         (i % 3 == 0 ? ".keep " + std::to_string(i) : "empty " + number(i, 4) + ".log"),
                     Content{});
        }
    }

    // Photos come back as copies under other names and in other folders: the bulk of the bytes a
    // user gets back. Some originals also have a hard-linked album entry, which is not a copy.
    void photos() {
        const std::size_t n = count(75, 4);
        for (std::size_t i = 0; i < n; ++i) {
            const std::string year = std::to_string(2015 + random_.below(9));
            const std::string stem = (i % 3 == 0 ? "DSC" : "IMG_") + number(1000 + i, 5);
            const fs::path original = fs::path("Photos") / year / random_.pick(months) / (stem + ".JPG");
            const Content content = fresh(random_.between(1 * MiB, 8 * MiB));
            w_.write(original, content);
            const std::array<fs::path, 4> elsewhere = {
                fs::path("Backup") / ("Phone camera " + year) / (stem + ".JPG"),
                fs::path("Desktop") / "to sort" / ("holiday ünïcode " + std::to_string(i) + ".jpg"),
                fs::path("Photos") / year / "Favourites ★" / (stem + " copy.JPG"),
                fs::path("Downloads") / "Shared images" /
                    ("IMG-" + year + "0612-WA" + number(i, 4) + ".jpg")};
            const std::size_t copies = random_.between(1, 3);
            const std::size_t first = random_.below(elsewhere.size());
            for (std::size_t c = 0; c < copies; ++c)
                w_.write(elsewhere[(first + c) % elsewhere.size()], content);
            if (i % 8 == 0)
                w_.hardLink(original, fs::path("Photos") / "Albums" / ("Best of " + year) / (stem + ".JPG"));
        }
    }

    void largeFiles() {
        const Content clip = fresh(bytes(40 * MiB, 2 * MiB) + 11);
        w_.write(fs::path("Videos") / "raw" / "clip 01.mov", clip);
        w_.write(fs::path("Backup") / "old disk" / "Videos" / "clip 01.mov", clip);

        // Equal size, equal except the very last byte: only reading to the end tells them apart.
        const Content render = fresh(bytes(90 * MiB, 3 * MiB) + 5);
        w_.write(fs::path("Videos") / "render v2.mkv", render);
        w_.write(fs::path("Videos") / "render v2 (final).mkv", render.flippedAt(render.size - 1));

        // Two real copies and a hard link to one of them.
        const Content image = fresh(bytes(150 * MiB, 4 * MiB) + 3);
        w_.write(fs::path("Archive") / "disk images" / "laptop 2019.img", image);
        w_.write(fs::path("Backup") / "old disk" / "laptop backup.img", image);
        w_.hardLink(fs::path("Archive") / "disk images" / "laptop 2019.img",
                    fs::path("Archive") / "current" / "laptop.img");
    }

    // Files of one size that differ: entirely, only after a shared first 64 KiB, or in one middle
    // byte. Every fourth group also holds one real copy, so a finder must pick it out of the crowd.
    void sameSizeDifferent() {
        const std::size_t groups = count(250, 8);
        const fs::path base = fs::path("Edge cases") / "same size but different";
        for (std::size_t g = 0; g < groups; ++g) {
            // The shared-prefix kind needs a tail long enough to be different for every member.
            const std::uint64_t size =
                g % 4 == 1 ? random_.spread(80 * KiB, 512 * KiB) : random_.spread(1 * KiB, 512 * KiB);
            const std::size_t members = random_.between(2, 5);
            const Content shared = fresh(size);
            const fs::path folder = base / ("group " + number(g, 4));
            for (std::size_t m = 0; m < members; ++m) {
                Content content = fresh(size);
                switch (g % 4) {
                    case 1:  // the same first 64 KiB, then each its own bytes
                        content.prefixSeed = shared.seed;
                        content.prefixLength = 64 * KiB;
                        break;
                    case 2:
                        content = shared.flippedAt(size / 2 + m);
                        break;
                    default:
                        break;
                }
                const fs::path path = folder / ("member " + std::to_string(m) + ".dat");
                w_.write(path, content);
                if (g % 4 == 3 && m == 0)
                    w_.write(base / "copies" / ("group " + number(g, 4) + " member 0.dat"), content);
            }
        }
    }

    // The classic traps: files that differ only in their first or last byte, at sizes around the
    // 4 KiB and 64 KiB boundaries that finders use for their first, partial read; and files equal
    // in their first 64 KiB that differ in the byte right after. Each size also has an exact copy.
    void firstAndLastByte() {
        std::vector<std::uint64_t> sizes = {1,
                                            2,
                                            3,
                                            4095,
                                            4096,
                                            4097,
                                            65535,
                                            65536,
                                            65537,
                                            131072,
                                            131073,
                                            1 * MiB + 1,
                                            bytes(16 * MiB, 2 * MiB) + 1};
        const fs::path base = fs::path("Edge cases") / "first or last byte";
        for (std::uint64_t size : sizes) {
            const Content original = fresh(size);
            const fs::path folder = base / (std::to_string(size) + " bytes");
            w_.write(folder / "original.bin", original);
            w_.write(base / "copies" / (std::to_string(size) + " bytes copy.bin"), original);
            w_.write(folder / "first byte differs.bin", original.flippedAt(0));
            if (size >= 2) w_.write(folder / "last byte differs.bin", original.flippedAt(size - 1));
            if (size > 65537) w_.write(folder / "byte 65537 differs.bin", original.flippedAt(65536));
        }
    }

    // Hard links are one file under several names: never a duplicate. Some are alone, some are
    // triples, some also have a real copy (which is one duplicate, whatever the number of names).
    void hardLinks() {
        const fs::path base = fs::path("Links") / "hard links";
        const std::size_t alone = count(40, 3);
        for (std::size_t i = 0; i < alone; ++i) {
            const fs::path original = base / "originals" / ("linked " + number(i, 3) + ".dat");
            w_.write(original, fresh(random_.spread(4 * KiB, 2 * MiB)));
            w_.hardLink(original, random_.pick(smallFolders_) / ("hard link " + number(i, 3) + ".dat"));
            if (i % 4 == 0) w_.hardLink(original, base / "third name" / ("linked " + number(i, 3) + ".dat"));
        }
        const std::size_t withCopy = count(20, 2);
        for (std::size_t i = 0; i < withCopy; ++i) {
            const fs::path original = base / "with a copy" / ("shared " + number(i, 3) + ".dat");
            const Content content = fresh(random_.spread(4 * KiB, 2 * MiB));
            w_.write(original, content);
            w_.hardLink(original, base / "with a copy" / "second name" / ("shared " + number(i, 3) + ".dat"));
            w_.write(base / "real copies" / ("shared " + number(i, 3) + " copy.dat"), content);
        }
    }

    // Symbolic links are never followed. Each kind here would add duplicates, or loop, if one were:
    // links to unique files, to a photo folder, to the root of the tree, and dangling ones.
    void symbolicLinks() {
        const fs::path base = fs::path("Links") / "symbolic links";
        const std::size_t n = std::min(count(60, 5), uniqueSmall_.size());
        for (std::size_t i = 0; i < n; ++i) {
            const fs::path& target = uniqueSmall_[random_.below(uniqueSmall_.size())];
            w_.symlink(target.lexically_relative(base), base / ("link to file " + number(i, 3)));
        }
        w_.symlink(fs::path("..") / ".." / "Photos", base / "Photos again");
        w_.symlink(fs::path("..") / "..", base / "whole tree (loop)");
        w_.symlink("no such file.txt", base / "dangling.txt");
        w_.symlink(fs::path("..") / ".." / "Videos" / "raw" / "clip 01.mov", base / "clip shortcut.mov");
        w_.symlink("clip shortcut.mov", base / "link to a link.mov");
    }

    // Files that already share all their blocks (with --reflink on a file system that clones):
    // a clone of the original alone; the pair plus an independent copy; an independent copy that
    // has a clone of its own. A finder that reads block sharing counts each clone family once.
    void clones() {
        const fs::path base = fs::path("Clones");
        const std::size_t n = count(24, 3);
        for (std::size_t i = 0; i < n; ++i) {
            const Content content = fresh(random_.spread(256 * KiB, 6 * MiB));
            const std::string stem = "set " + number(i, 3);
            const fs::path original = base / "originals" / (stem + ".raw");
            const fs::path copy = base / "independent copies" / (stem + ".raw");
            w_.write(original, content);
            switch (i % 3) {
                case 0:
                    w_.clone(original, base / "clones" / (stem + " clone.raw"), content);
                    break;
                case 1:
                    w_.clone(original, base / "clones" / (stem + " clone.raw"), content);
                    w_.write(copy, content);
                    break;
                default:
                    w_.write(copy, content);
                    w_.clone(copy, base / "clones of copies" / (stem + " clone.raw"), content);
                    break;
            }
        }
    }


    // ---- The home-folder shape ----
    // A home folder as scans meet it every day: a hundred thousand files, most of them small, in
    // a few thousand folders; nearly every file (95%) has a size another file shares, so a finder
    // must read almost all of them; a third of them are copies, in 15,000 sets, mostly small
    // (dependency trees, checkouts, exports), a few large. A tenth of the duplicate bytes already
    // share blocks where the file system clones (--reflink). One folder of 1,000 small files stands
    // apart, for benchmarks that rewrite it to time a scan after a small change.

    void homeFolders() {
        constexpr std::array<std::string_view, 9> homeAreas = {
            "Documents", "Pictures", "Music", "Downloads", "Projects", ".config", ".local/share", "Desktop",
            "Проекты"};
        std::vector<std::pair<fs::path, int>> made;
        for (auto area : homeAreas) made.emplace_back(fs::path(area), 0);
        const std::size_t n = count(4000, 20);
        for (std::size_t i = 0; i < n; ++i) {
            auto [parent, depth] = made[random_.below(made.size())];
            if (depth >= 5) std::tie(parent, depth) = made[random_.below(homeAreas.size())];
            made.emplace_back(parent / (std::string(random_.pick(folderWords)) + " " + std::to_string(i)),
                              depth + 1);
        }
        for (const auto& entry : made) smallFolders_.push_back(entry.first);
    }

    // Files with no copy. The small ones share their sizes with many others all the same (there
    // are only so many sizes under 4 KiB), so only their bytes tell them apart; the larger ones
    // mostly have sizes of their own.
    void homeUniqueFiles() {
        const std::size_t rewritten = count(1000, 10);
        for (std::size_t i = 0; i < rewritten; ++i) {
            w_.write(fs::path(std::string(rewrittenFolder)) / ("module " + number(i, 5) + ".js"),
                     fresh(random_.spread(64, 4 * KiB)));
        }
        const std::size_t small = count(44000, 40);
        for (std::size_t i = 0; i < small; ++i) {
            w_.write(random_.pick(smallFolders_) / fileName(), fresh(random_.spread(32, 4 * KiB)));
        }
        const std::size_t larger = count(5000, 5);
        for (std::size_t i = 0; i < larger; ++i) {
            w_.write(random_.pick(smallFolders_) / fileName(), fresh(random_.spread(4 * KiB, bytes(1 * MiB, 64 * KiB))));
        }
    }

    // The sets of copies: small ones in many copies, middling ones in a few, large ones in two.
    void homeCopies() {
        struct Kind {
            double sets;
            std::uint64_t low, high;
            unsigned fewest, most;
        };
        const std::array<Kind, 3> kinds = {Kind{11000, 64, 16 * KiB, 2, 5}, Kind{3800, 16 * KiB, 512 * KiB, 2, 4},
                                           Kind{200, 1 * MiB, bytes(8 * MiB, 2 * MiB), 2, 2}};
        for (const Kind& kind : kinds) {
            const std::size_t sets = count(kind.sets, 2);
            for (std::size_t s = 0; s < sets; ++s) {
                const Content content = fresh(random_.spread(kind.low, kind.high));
                const std::string name = fileName();
                const std::size_t copies = random_.between(kind.fewest, kind.most);
                // One set in six above 64 KiB already shares its blocks between two of its copies:
                // about a tenth of the duplicate bytes. Small files are left out, as Btrfs keeps
                // them inside its metadata, where nothing is shared.
                const bool cloned = content.size > 64 * KiB && random_.below(6) == 0;
                std::vector<fs::path> written;
                for (std::size_t c = 0; c < copies; ++c) {
                    fs::path folder = random_.pick(smallFolders_);
                    fs::path path = folder / name;
                    if (std::find(written.begin(), written.end(), path) != written.end())
                        path = folder / ("Copy " + std::to_string(c) + " of " + name);
                    if (cloned && c == 1)
                        w_.clone(written.front(), path, content);
                    else
                        w_.write(path, content);
                    written.push_back(path);
                }
            }
        }
    }

    TreeWriter& w_;
    double scale_;
    Random random_{0x56454C4D4F524131ull};         // draws that shape the tree
    std::uint64_t seeds_ = 0x64656475702D3031ull;  // successive content seeds
    std::uint64_t fileCounter_ = 0;
    std::vector<fs::path> smallFolders_;
    std::vector<fs::path> uniqueSmall_;
};

// ---- Command line ------------------------------------------------------------------------------

[[noreturn]] void usage(int status) {
    std::fprintf(
        status == 0 ? stdout : stderr,
        "usage: make_dataset [--shape mixed|home] [--scale N] [--reflink] DIR\n"
        "  --shape S   mixed: edge cases, photos, links (default); home: a home folder, ~100,000 files,\n"
        "              ~4.6 GB, 15,000 sets of copies, and the folder \"Projects/build cache\" to rewrite\n"
        "  --scale N   multiply file counts and large-file sizes (default 1: ~60,000 files, ~2.7 GB)\n"
        "  --reflink   make the files under Clones/ with FICLONE where the file system can\n"
        "DIR must not exist or be empty.\n");
    std::exit(status);
}

void printSummary(const fs::path& root, double scale, bool reflink, const TreeWriter::Summary& s) {
    std::printf("dataset: %s\n", root.c_str());
    std::printf("scale: %g\n", scale);
    std::printf("folders: %llu\n", static_cast<unsigned long long>(s.folders));
    std::printf("regular file names: %llu\n", static_cast<unsigned long long>(s.fileNames));
    std::printf("files (one per inode): %llu\n", static_cast<unsigned long long>(s.inodes));
    std::printf("empty files: %llu\n", static_cast<unsigned long long>(s.emptyFiles));
    std::printf("files a scan takes: %llu\n", static_cast<unsigned long long>(s.candidates));
    std::printf("files in a size another file shares: %llu\n",
                static_cast<unsigned long long>(s.candidatesInSharedSizes));
    std::printf("symbolic links: %llu\n", static_cast<unsigned long long>(s.symlinks));
    std::printf("bytes: %llu\n", static_cast<unsigned long long>(s.bytes));
    std::printf("duplicate sets: %llu\n", static_cast<unsigned long long>(s.duplicateSets));
    std::printf("expected duplicate bytes: %llu\n", static_cast<unsigned long long>(s.expected));
    std::printf("expected duplicate bytes, clones counted apart: %llu\n",
                static_cast<unsigned long long>(s.expectedClonesApart));
    if (!reflink) {
        std::printf("clones: 0 of %llu (not asked for: written as plain copies)\n",
                    static_cast<unsigned long long>(s.clonesAsked));
    } else {
        std::printf("clones: %llu of %llu%s\n", static_cast<unsigned long long>(s.clonesMade),
                    static_cast<unsigned long long>(s.clonesAsked),
                    s.clonesMade < s.clonesAsked
                        ? " (the file system refused FICLONE: written as plain copies)"
                        : "");
    }
    std::printf("duplicate bytes already shared by clones: %llu\n", static_cast<unsigned long long>(s.clonedBytes));
    if (s.setsNoneReplaceable > 0) {
        std::printf("warning: %llu sets have only hard-linked copies and are left out of the expectation\n",
                    static_cast<unsigned long long>(s.setsNoneReplaceable));
    }
}

}  // namespace

int main(int argc, char** argv) {
    double scale = 1.0;
    bool reflink = false;
    Shape shape = Shape::mixed;
    fs::path root;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "-h" || arg == "--help") usage(0);
        if (arg == "--reflink") {
            reflink = true;
        } else if (arg == "--shape" || arg.starts_with("--shape=")) {
            const std::string_view text = arg == "--shape" ? (i + 1 < argc ? argv[++i] : "") : arg.substr(8);
            if (text == "home") {
                shape = Shape::home;
            } else if (text == "mixed") {
                shape = Shape::mixed;
            } else {
                std::fprintf(stderr, "make_dataset: --shape is mixed or home\n");
                return 2;
            }
        } else if (arg == "--scale" || arg.starts_with("--scale=")) {
            const char* text = arg == "--scale" ? (i + 1 < argc ? argv[++i] : nullptr) : argv[i] + 8;
            char* end = nullptr;
            scale = text ? std::strtod(text, &end) : 0.0;
            if (!text || end == text || *end != '\0' || !(scale > 0.0) || scale > 1000.0) {
                std::fprintf(stderr, "make_dataset: --scale needs a number above 0 (e.g. 0.05)\n");
                return 2;
            }
        } else if (!arg.empty() && arg[0] == '-') {
            std::fprintf(stderr, "make_dataset: unknown option %s\n", argv[i]);
            usage(2);
        } else if (root.empty()) {
            root = arg;
        } else {
            usage(2);
        }
    }
    if (root.empty()) usage(2);

    try {
        // Refuse a folder that holds anything: the summary must describe the whole tree, and writing
        // into someone's folder by mistake must not be possible.
        if (fs::exists(root) && !(fs::is_directory(root) && fs::is_empty(root))) {
            std::fprintf(stderr, "make_dataset: %s exists and is not an empty folder\n", root.c_str());
            return 1;
        }
        fs::create_directories(root);
        root = fs::canonical(root);
        TreeWriter writer(root, reflink);
        Plan(writer, scale).build(shape);
        printSummary(root, scale, reflink, writer.summarize());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "make_dataset: %s\n", error.what());
        return 1;
    }
    return 0;
}
