// What the user chose and saved (files left out, backup disks) is honoured by every command: a
// list that cannot be read stops the work and is never overwritten, and a path left out holds
// however it and the folders were spelled, through symbolic links or not.
#include <gtest/gtest.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "cli/command_helpers.h"
#include "core/volumes.h"
#include "journal.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

using test::dedupCommand;

class SavedChoicesTest : public ::testing::Test {
protected:
    void SetUp() override { ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1); }

    // Every journalled target, as written.
    std::vector<std::string> journalTargets() {
        std::vector<std::string> targets;
        for (const auto& entry : Journal(data_.path("journal.jsonl")).entries()) targets.push_back(entry.target);
        return targets;
    }

    test::TempDir data_;
    test::TempDir tree_;
};

TEST_F(SavedChoicesTest, UnreadableChoicesStopEveryCommandAndAreNeverOverwritten) {
    test::writeRandomFile(tree_.path("a.jpg"), 200000, 3);
    test::writeRandomFile(tree_.path("b.jpg"), 200000, 3);
    const std::string selection = data_.path("selection.json");
    const std::string disks = data_.path("backup-disks.json");

    // Absent: nothing chosen yet, which is fine.
    EXPECT_EQ(dedupCommand({"exclusions"}).stdoutText, "Nothing is left out of reclaiming.\n");
    EXPECT_EQ(dedupCommand({"backup-disk", "list"}).stdoutText, "0 backup disks.\n");

    auto refused = [&](const std::vector<std::string>& arguments, const std::string& file) {
        auto run = dedupCommand(arguments);
        EXPECT_EQ(run.exitCode, 1) << arguments[0] << ": " << run.stdoutText << run.stderrText;
        EXPECT_NE(run.stderrText.find(file + ", which cannot be read: "), std::string::npos)
            << arguments[0] << ": " << run.stderrText;
        EXPECT_NE(run.stderrText.find("Nothing was changed"), std::string::npos) << run.stderrText;
    };
    // Damaged, of the wrong shape, or not a file at all.
    for (const std::string damage : {"{\"excluded\": [\"/a\"", "{\"excluded\": 5}", "", "folder"}) {
        SCOPED_TRACE(damage);
        fs::remove_all(selection);
        if (damage == "folder") {
            fs::create_directory(selection);
        } else {
            test::writeFile(selection, damage);
        }
        refused({"reclaim", "--min-size", "1", tree_.path()}, selection);
        refused({"reclaim", "--dry-run", "--min-size", "1", tree_.path()}, selection);
        refused({"scan", "--min-size", "1", "--csv", data_.path("r.csv"), tree_.path()}, selection);
        refused({"auto", "--anytime", tree_.path()}, selection);
        refused({"exclude", tree_.path("a.jpg")}, selection);
        refused({"include", tree_.path("a.jpg")}, selection);
        refused({"exclusions"}, selection);
        if (damage != "folder") {
            EXPECT_EQ(test::readFile(selection), damage);
        }
        EXPECT_FALSE(fs::exists(data_.path("r.csv")));
    }
    EXPECT_TRUE(journalTargets().empty());
    fs::remove_all(selection);

    test::writeFile(disks, "{\"volumes\": [\"1234\"]");
    refused({"backup-disk", "add", tree_.path()}, disks);
    refused({"backup-disk", "remove", "1234"}, disks);
    refused({"backup-disk", "list"}, disks);
    refused({"auto", "--anytime", "--backup-disks"}, disks);
    EXPECT_EQ(test::readFile(disks), "{\"volumes\": [\"1234\"]");
}

class LinkedRootTest : public SavedChoicesTest {
protected:
    void SetUp() override {
        SavedChoicesTest::SetUp();
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
        real_ = test::freshFolder(test::sharedVolume(LoopVolume::Kind::btrfs), "linked");
        for (const char* name : {"a.jpg", "b.jpg", "sub/c.jpg", "sub/d.jpg"}) {
            test::writeRandomFile(real_ + "/" + name, 200000, 5);
        }
        link_ = real_ + "-link";
        fs::create_directory_symlink(real_, link_);
    }

    // Targets a dry run would replace.
    std::vector<std::string> planned(const std::string& root) {
        auto run = dedupCommand({"reclaim", "--dry-run", "--json", "--min-size", "1", root});
        EXPECT_EQ(run.exitCode, 0) << run.stderrText;
        auto plan = nlohmann::json::parse(run.stdoutText);
        std::vector<std::string> paths;
        for (const auto& target : plan["targets"]) paths.push_back(target["path"]);
        return paths;
    }

    static bool anyBelow(const std::vector<std::string>& paths, const std::string& folder) {
        return std::any_of(paths.begin(), paths.end(), [&](const auto& p) { return p.starts_with(folder + "/"); });
    }

    std::string real_, link_;
};

TEST_F(LinkedRootTest, LeftOutThroughALinkHoldsInEveryCommand) {
    // Left out through the link; the roots given both ways.
    ASSERT_EQ(dedupCommand({"exclude", link_ + "/sub"}).exitCode, 0);
    EXPECT_EQ(dedupCommand({"exclusions"}).stdoutText, "Left out of reclaiming:\n  " + real_ + "/sub\n");
    for (const auto& root : {real_, link_}) {
        auto targets = planned(root);
        EXPECT_EQ(targets.size(), 1u) << root;
        EXPECT_FALSE(anyBelow(targets, real_ + "/sub")) << root;
        EXPECT_FALSE(anyBelow(targets, link_ + "/sub")) << root;
    }
    // Taken back through the other spelling.
    ASSERT_EQ(dedupCommand({"include", real_ + "/sub"}).exitCode, 0);
    EXPECT_EQ(dedupCommand({"exclusions"}).stdoutText, "Nothing is left out of reclaiming.\n");
    EXPECT_EQ(planned(link_).size(), 3u);

    // A list saved by hand through the link holds too, and so does leaving out the link itself.
    test::writeFile(data_.path("selection.json"), nlohmann::json{{"excluded", {link_ + "/sub"}}}.dump());
    EXPECT_EQ(planned(real_).size(), 1u);
    test::writeFile(data_.path("selection.json"), nlohmann::json{{"excluded", {link_}}}.dump());
    EXPECT_TRUE(planned(real_).empty());
    EXPECT_TRUE(planned(link_).empty());
    fs::remove(data_.path("selection.json"));

    // scan --exclude, spelled either way against either root.
    for (const auto& [root, left] : {std::pair{real_, link_}, std::pair{link_, real_}}) {
        auto scan = dedupCommand({"scan", "--json", "--min-size", "1", "--exclude", left + "/sub", root});
        ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
        auto groups = nlohmann::json::parse(scan.stdoutText)["groups"];
        ASSERT_EQ(groups.size(), 1u) << scan.stdoutText;
        EXPECT_EQ(groups[0]["files"].size(), 2u) << scan.stdoutText;
    }

    // dedup auto keeps the root as spelled; the exclusion saved at the real folder holds.
    ASSERT_EQ(dedupCommand({"exclude", real_ + "/sub"}).exitCode, 0);
    test::BackgroundCommand automatic({"auto", "--anytime", "--quiet-period", "0.5", "--min-size", "1", link_},
                                      data_.path("auto.log"));
    ASSERT_TRUE(automatic.waitFor("files became clones")) << automatic.output();
    automatic.stop();
    auto targets = journalTargets();
    EXPECT_FALSE(targets.empty());
    EXPECT_FALSE(anyBelow(targets, real_ + "/sub"));
    EXPECT_FALSE(anyBelow(targets, link_ + "/sub"));
}

}  // namespace
}  // namespace dedup
