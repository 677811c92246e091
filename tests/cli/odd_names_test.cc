// File names that are not UTF-8 (old disks, archives from other systems) go through every command
// and every file the command writes, and come back as the very bytes of a file that exists.
#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "cli/command_helpers.h"
#include "core/volumes.h"
#include "journal.h"
#include "path_text.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

using test::dedupCommand;

class OddNamesTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
        ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1);
        root_ = test::freshFolder(test::sharedVolume(LoopVolume::Kind::btrfs), "odd-names");
        // Latin-1, a stray byte, a backslash that looks like an escape.
        names_ = {root_ + "/caf\xe9.jpg", root_ + "/\xff\xfe copy.jpg", root_ + "/dossier \xe0/\\xe9.jpg"};
        for (const auto& name : names_) test::writeRandomFile(name, 200000, 9);
    }

    test::TempDir data_;
    std::string root_;
    std::vector<std::string> names_;
};

TEST_F(OddNamesTest, EveryNameRoundTripsThroughScanSaveCsvReclaimJournalAndAuto) {
    const std::set<std::string> all(names_.begin(), names_.end());

    auto json = dedupCommand({"scan", "--json", "--min-size", "1", root_});
    ASSERT_EQ(json.exitCode, 0) << json.stderrText;
    auto result = nlohmann::json::parse(json.stdoutText);
    ASSERT_EQ(result["groups"].size(), 1u) << json.stdoutText;
    std::set<std::string> found;
    for (const auto& file : result["groups"][0]["files"]) found.insert(pathFromText(file["path"].get<std::string>()));
    EXPECT_EQ(found, all);

    const std::string saved = data_.path("scan.json"), csv = data_.path("scan.csv");
    auto scan = dedupCommand({"scan", "--min-size", "1", "--save", saved, "--csv", csv, root_});
    ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
    auto show = dedupCommand({"show", saved});
    ASSERT_EQ(show.exitCode, 0) << show.stderrText;
    EXPECT_EQ(show.stdoutText, scan.stdoutText);
    const std::string table = test::readFile(csv);
    EXPECT_NO_THROW({  // the report is UTF-8: the strict JSON writer takes it
        auto text = nlohmann::json(table).dump();
        (void)text;
    });
    for (const auto& name : names_) EXPECT_NE(table.find(pathText(name)), std::string::npos) << table;

    auto reclaim = dedupCommand({"reclaim", "--min-size", "1", root_});
    EXPECT_EQ(reclaim.exitCode, 0) << reclaim.stdoutText << reclaim.stderrText;
    EXPECT_NE(reclaim.stdoutText.find("2 files are clones now"), std::string::npos) << reclaim.stdoutText;
    std::set<std::string> replaced;
    for (const auto& entry : Journal(data_.path("journal.jsonl")).entries()) {
        if (entry.event == JournalEntry::Event::replaced) replaced.insert(entry.target);
    }
    EXPECT_EQ(replaced.size(), 2u);
    for (const auto& target : replaced) EXPECT_TRUE(all.contains(target)) << target;
    auto verify = dedupCommand({"journal", "verify"});
    EXPECT_NE(verify.stdoutText.find("2 clones checked: 2 as reclaimed."), std::string::npos) << verify.stdoutText;
    for (const auto& entry : nlohmann::json::parse(dedupCommand({"journal", "--json"}).stdoutText)) {
        EXPECT_TRUE(all.contains(pathFromText(entry["target"].get<std::string>()))) << entry;
    }

    // dedup auto reclaims a new copy with such a name, and says so.
    const std::string later = root_ + "/later \xfc.jpg";
    test::BackgroundCommand automatic({"auto", "--anytime", "--json", "--quiet-period", "0.5", "--min-size", "1", root_},
                                      data_.path("auto.log"));
    ASSERT_TRUE(automatic.waitFor("\"event\":\"started\"")) << automatic.output();
    test::writeRandomFile(later, 200000, 9);
    ASSERT_TRUE(automatic.waitFor("1 files became clones")) << automatic.output();
    automatic.stop();
    bool laterReplaced = false;
    for (const auto& entry : Journal(data_.path("journal.jsonl")).entries()) {
        laterReplaced = laterReplaced || (entry.event == JournalEntry::Event::replaced && entry.target == later);
    }
    EXPECT_TRUE(laterReplaced) << automatic.output();
}

}  // namespace
}  // namespace dedup
