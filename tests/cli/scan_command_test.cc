// The dedup command run as a person or a script would run it: output, JSON and exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "support/test_files.h"

namespace dedup {
namespace {

class ScanCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1);
        std::filesystem::create_directories(tree_.path("a/b"));
        test::writeRandomFile(tree_.path("a/photo.jpg"), 200000, 1);
        test::writeRandomFile(tree_.path("a/b/photo copy.jpg"), 200000, 1);
        test::writeRandomFile(tree_.path("a/b/notes.txt"), 200000, 1);
        test::writeRandomFile(tree_.path("small1"), 5000, 2);
        test::writeRandomFile(tree_.path("small2"), 5000, 2);
    }
    test::CommandResult dedup(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), DEDUP_BINARY);
        return test::runCommand(arguments);
    }

    test::TempDir data_;
    test::TempDir tree_;
};

TEST_F(ScanCommandTest, PrintsGroupsLargestFirstAndTheTotal) {
    auto run = dedup({"scan", "--min-size", "1", tree_.path()});
    ASSERT_EQ(run.exitCode, 0) << run.stderrText;
    EXPECT_EQ(run.stderrText, "");  // no progress noise when standard error is not a terminal
    const std::string& out = run.stdoutText;
    auto big = out.find("400.0 kB to reclaim: 3 copies of 200.0 kB");
    auto small = out.find("5.0 kB to reclaim: 2 copies of 5.0 kB");
    ASSERT_NE(big, std::string::npos) << out;
    ASSERT_NE(small, std::string::npos) << out;
    EXPECT_LT(big, small);
    // The kept copy comes first, the others with what each frees.
    EXPECT_NE(out.find("kept  " + tree_.path("a/b/notes.txt")), std::string::npos) << out;
    EXPECT_NE(out.find("200.0 kB  " + tree_.path("a/b/photo copy.jpg")), std::string::npos) << out;
    EXPECT_TRUE(out.ends_with("405.0 kB can be reclaimed in 2 groups.\n")) << out;

    // The default minimum size leaves the small pair out.
    auto defaults = dedup({"scan", tree_.path()});
    EXPECT_TRUE(defaults.stdoutText.ends_with("400.0 kB can be reclaimed in 1 groups.\n")) << defaults.stdoutText;
}

TEST_F(ScanCommandTest, JsonIsTheScanResultAndFiltersApply) {
    auto run = dedup({"scan", "--json", "--min-size", "1", "--ext", "JPG", "--exclude", tree_.path("small1"),
                      tree_.path()});
    ASSERT_EQ(run.exitCode, 0) << run.stderrText;
    auto result = nlohmann::json::parse(run.stdoutText);
    ASSERT_EQ(result["groups"].size(), 1u);
    EXPECT_EQ(result["groups"][0]["reclaimableBytes"], 200000);
    EXPECT_EQ(result["groups"][0]["files"].size(), 2u);
    EXPECT_EQ(result["filesSeen"], 2);
    EXPECT_EQ(result["cancelled"], false);
    EXPECT_TRUE(result["unreadableFolders"].empty());
    EXPECT_EQ(result["groups"][0]["digest"].get<std::string>().size(), 64u);
}

TEST_F(ScanCommandTest, BadInputGetsAClearErrorAndItsExitCode) {
    auto missing = dedup({"scan", tree_.path("nowhere")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.stderrText, "dedup: no such folder: " + tree_.path("nowhere") + "\n");

    auto file = dedup({"scan", tree_.path("small1")});
    EXPECT_EQ(file.exitCode, 1);
    EXPECT_EQ(file.stderrText, "dedup: " + tree_.path("small1") + " is not a folder\n");

    EXPECT_EQ(dedup({"scan", "--threads", "0", tree_.path()}).exitCode, 2);
    EXPECT_EQ(dedup({"scan", "--min-size", "-1", tree_.path()}).exitCode, 2);
    EXPECT_EQ(dedup({"scan"}).exitCode, 2);
    EXPECT_EQ(dedup({}).exitCode, 2);
    EXPECT_EQ(dedup({"scan", "--ext", ".", tree_.path()}).exitCode, 2);
    EXPECT_EQ(dedup({"--help"}).exitCode, 0);

    // A cache that cannot be opened costs time, never the scan.
    test::writeFile(data_.path("hashes.sqlite"), std::string(4096, 'x'));
    auto broken = dedup({"scan", "--min-size", "1", tree_.path()});
    EXPECT_EQ(broken.exitCode, 0);
    EXPECT_NE(broken.stderrText.find("digest cache cannot be opened"), std::string::npos) << broken.stderrText;
}

TEST_F(ScanCommandTest, RootGivenThroughALinkIsScannedWhereItPoints) {
    std::filesystem::create_symlink(tree_.path("a"), tree_.path("link"));
    auto run = dedup({"scan", "--json", tree_.path("link")});
    ASSERT_EQ(run.exitCode, 0) << run.stderrText;
    auto result = nlohmann::json::parse(run.stdoutText);
    ASSERT_EQ(result["groups"].size(), 1u);
    EXPECT_EQ(result["groups"][0]["files"][0]["path"].get<std::string>().rfind(tree_.path("a/"), 0), 0u);
}

}  // namespace
}  // namespace dedup
