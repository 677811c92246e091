// The scan's JSON is written without building a tree; programs must still get exactly what
// nlohmann's serializer gives for the same values.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <sstream>

#include <nlohmann/json.hpp>

#include "output.h"

namespace dedup {
namespace {

ScannedFile fileAt(std::string path, uint64_t inode) {
    ScannedFile file;
    file.path = std::move(path);
    file.status.device = std::numeric_limits<uint64_t>::max();
    file.status.inode = inode;
    file.status.size = 4096;
    file.status.modified = {-1, 999'999'999};
    file.status.changed = {1'700'000'000, 0};
    file.status.mode = 0100644;
    file.status.links = 2;
    file.status.uid = 4'000'000'000u;
    file.status.gid = 100;
    file.status.flags = 7;
    return file;
}

TEST(ScanJsonTest, GroupsAreWrittenAsTheJsonLibraryWritesThemForAnyName) {
    std::vector<DuplicateGroup> groups;
    // Every byte a name can hold, alone and among others: control characters, quotes,
    // backslashes, bytes that are not UTF-8, and UTF-8 of two, three and four bytes.
    std::string every;
    for (int c = 1; c < 256; ++c) {
        if (c != '/') every.push_back(static_cast<char>(c));
    }
    DuplicateGroup odd;
    odd.digest = std::string(64, 'a');
    odd.reclaimableBytes = std::numeric_limits<int64_t>::max();
    odd.files = {fileAt("/t/" + every, 1), fileAt("/t/say \"hi\"\\n\t.txt", 2), fileAt("/t/\x7f caf\xc3\xa9 \xe5\x86\x99 \xf0\x9f\x93\xb7", 3),
                 fileAt("/t/caf\xe9 \xc3", 4), fileAt("", 5)};
    odd.files[1].clones = CloneInfo{-5, std::numeric_limits<uint64_t>::max(), 3};
    odd.files[2].clones = CloneInfo{0, 1, 0};
    groups.push_back(odd);
    DuplicateGroup plain;
    plain.digest = "0123456789abcdef";
    plain.files = {fileAt("/t/a", 9), fileAt("/t/b", 10)};
    groups.push_back(plain);

    for (const auto& group : groups) {
        EXPECT_EQ(cli::groupJsonLine(group), cli::jsonLine(nlohmann::json(group)));
        // The same names as a set of copies across disks, whose volumes are names too.
        AcrossFileGroup across{group.digest, 4096, group.reclaimableBytes, group.files, {}};
        for (const auto& file : group.files) across.volumes.push_back(file.path.substr(file.path.empty() ? 0 : 3));
        EXPECT_EQ(cli::acrossGroupJsonLine(across), cli::jsonLine(nlohmann::json(across)));
    }

    ScanResult result;
    result.groups = groups;
    result.filesSeen = 12;
    result.bytesRead = 345;
    result.unreadableFiles = {"/t/locked\xe9"};
    std::ostringstream out;
    cli::writeScanJson(out, result);
    // What the whole document says reads back as the very result, names' bytes included.
    auto parsed = nlohmann::json::parse(out.str());
    EXPECT_EQ(parsed.at("groups").get<std::vector<DuplicateGroup>>(), groups);
    EXPECT_EQ(parsed.at("filesSeen"), 12);
    EXPECT_EQ(parsed.at("unreadableFiles"), nlohmann::json::array({"/t/locked\\xe9"}));
}

TEST(AcrossJsonTest, ManyGroupsMadeOnEveryCoreComeOutWholeAndInOrder) {
    // More groups than one round of blocks holds, the last block part full, so that a group lost,
    // doubled or out of order at a block's or a round's edge shows.
    AcrossResult result;
    for (uint64_t i = 0; i < 9000; ++i) {
        AcrossFileGroup group{std::string(64, "0123456789abcdef"[i % 16]), static_cast<int64_t>(i), 9000 - static_cast<int64_t>(i), {}, {}};
        group.files = {fileAt("/a/" + std::to_string(i), 2 * i), fileAt("/b/" + std::to_string(i) + (i % 7 == 0 ? "\xe9\"" : ""), 2 * i + 1)};
        group.volumes = {"one", "two"};
        result.files.push_back(std::move(group));
    }
    result.trees.push_back({"d", 10, 2, 10, {"/a/t", "/b/t"}, {"one", "two"}});
    result.nearlyIdentical.push_back({{"/a/n", "/b/n"}, 3, 30, {"x"}, {}, {"y\xff"}});
    result.filesSeen = 18'002;
    result.bytesRead = 7;
    result.unreadableFolders = {"/a/locked"};
    std::ostringstream out;
    cli::writeAcrossJson(out, result);
    EXPECT_EQ(nlohmann::json::parse(out.str()), nlohmann::json(result));
    // One line per group between the document's first line and its last.
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 9000 + 1);
}

}  // namespace
}  // namespace dedup
