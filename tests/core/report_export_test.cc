#include "report_export.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace dedup {
namespace {

ScannedFile fileAt(std::string path, int64_t size, std::optional<CloneInfo> clones = std::nullopt) {
    ScannedFile file;
    file.path = std::move(path);
    file.status.size = size;
    file.status.device = 7;
    file.status.mode = 0100644;
    file.clones = clones;
    return file;
}

TEST(ReportExportTest, CsvQuotesOnlyPathsThatNeedItAndLeavesFreesEmptyWhereNothingIsFreed) {
    EXPECT_EQ(Report::csv({}, {}), "digest,size,frees,role,path\n");

    std::string digest(64, 'a');
    DuplicateGroup group;
    group.digest = digest;
    group.files = {fileAt("/p/kept, first.jpg", 300, CloneInfo{300, 5, 0}),
                   fileAt("/p/say \"hi\".jpg", 300),
                   fileAt("/p/two\nlines.jpg", 300),
                   fileAt("/p/left out/ünïcode photo.jpg", 300),
                   fileAt("/p/already a clone.jpg", 300, CloneInfo{0, 5, 0})};
    Selection selection;
    selection.excluded = {"/p/left out"};
    EXPECT_EQ(Report::csv({group}, selection),
              "digest,size,frees,role,path\n" +
                  digest + ",300,,keep,\"/p/kept, first.jpg\"\n" +
                  digest + ",300,300,clone,\"/p/say \"\"hi\"\".jpg\"\n" +
                  digest + ",300,300,clone,\"/p/two\nlines.jpg\"\n" +
                  digest + ",300,,excluded,/p/left out/ünïcode photo.jpg\n" +
                  digest + ",300,,clone,/p/already a clone.jpg\n");
}

TEST(ReportExportTest, SavedScanLoadsBackEqual) {
    ScanResult result;
    DuplicateGroup group;
    group.digest = std::string(64, 'f');
    group.files = {fileAt("/a/é.jpg", 5000000000, CloneInfo{5000000000, 0xFFFFFFFFFFFFFFF1ull, 3}),
                   fileAt("/b/x.jpg", 5000000000)};
    group.files[1].status.modified = {-1, 999999999};
    group.files[1].status.device = 0xFFFFFFFF12ull;
    group.reclaimableBytes = 5000000000;
    result.groups = {group, group};
    result.filesSeen = 12;
    result.bytesRead = 10000000000;
    result.unreadableFolders = {"/secret"};
    result.leftovers = {"/a/.x.dedup-0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F"};
    result.cancelled = true;

    std::string text = Report::json(result);
    EXPECT_TRUE(text.starts_with("{\n  \"bytesRead\": 10000000000,\n  \"cancelled\": true,")) << text;
    EXPECT_EQ(Report::load(text), result);
    EXPECT_EQ(Report::load(Report::json(ScanResult{})), ScanResult{});

    // A path that is not UTF-8 cannot be saved faithfully, so saving fails rather than alter it.
    result.groups[0].files[0].path = "/a/\xff.jpg";
    EXPECT_THROW(Report::json(result), nlohmann::json::exception);
    EXPECT_THROW(Report::load("digest,size\n"), nlohmann::json::exception);
    EXPECT_THROW(Report::load("{\"groups\": []}"), nlohmann::json::exception);
}

}  // namespace
}  // namespace dedup
