// dedup scan, show, true-size and holders, run as a person or a script would run them: output,
// JSON, reports and exit codes.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <filesystem>

#include <fmt/format.h>
#include <linux/magic.h>
#include <nlohmann/json.hpp>

#include "byte_format.h"
#include "support/test_files.h"

namespace dedup {
namespace {

class CommandTest : public ::testing::Test {
protected:
    CommandTest() { ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1); }
    test::CommandResult dedup(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), DEDUP_BINARY);
        return test::runCommand(arguments);
    }

    test::TempDir data_;
    test::TempDir tree_;
};

// The readers of a scan free, for every file, what another thread made: with glibc's malloc they
// wait on each other for it, a tenth of a scan. A link order that let glibc's malloc win again
// would cost that silently.
TEST(AllocatorTest, TheCommandAllocatesWithMimalloc) {
    auto run = test::runCommand({"env", "MIMALLOC_VERBOSE=1", DEDUP_BINARY, "--version"});
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_NE(run.stderrText.find("mimalloc: process init"), std::string::npos) << run.stderrText;
}

class ScanCommandTest : public CommandTest {
protected:
    void SetUp() override {
        test::writeRandomFile(tree_.path("a/photo.jpg"), 200000, 1);
        test::writeRandomFile(tree_.path("a/b/photo copy.jpg"), 200000, 1);
        test::writeRandomFile(tree_.path("a/b/notes.txt"), 200000, 1);
        test::writeRandomFile(tree_.path("small1"), 5000, 2);
        test::writeRandomFile(tree_.path("small2"), 5000, 2);
    }
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
    // "find" is the scan under the name the desktop's actions use.
    auto found = dedup({"find", tree_.path()});
    EXPECT_EQ(found.exitCode, 0) << found.stderrText;
    EXPECT_EQ(found.stdoutText, defaults.stdoutText);
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
    auto unknown = dedup({"frob", tree_.path()});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_NE(unknown.stderrText.find("unknown command \"frob\"; the commands are scan, reclaim,"), std::string::npos)
        << unknown.stderrText;

    // A cache that cannot be opened costs time, never the scan.
    test::writeFile(data_.path("hashes.sqlite"), std::string(4096, 'x'));
    auto broken = dedup({"scan", "--min-size", "1", tree_.path()});
    EXPECT_EQ(broken.exitCode, 0);
    EXPECT_NE(broken.stderrText.find("digest cache cannot be opened"), std::string::npos) << broken.stderrText;

    // A report that cannot be written (a full disk) fails, and says so, rather than end as if the
    // whole list had been given.
    auto full = test::runCommand(
        {"/bin/sh", "-c", std::string(DEDUP_BINARY) + " scan --json --min-size 1 '" + tree_.path() + "' >/dev/full"});
    EXPECT_EQ(full.exitCode, 1);
    EXPECT_NE(full.stderrText.find("dedup: the output could not be written"), std::string::npos) << full.stderrText;
}

TEST_F(ScanCommandTest, RootGivenThroughALinkIsScannedWhereItPoints) {
    std::filesystem::create_symlink(tree_.path("a"), tree_.path("link"));
    auto run = dedup({"scan", "--json", tree_.path("link")});
    ASSERT_EQ(run.exitCode, 0) << run.stderrText;
    auto result = nlohmann::json::parse(run.stdoutText);
    ASSERT_EQ(result["groups"].size(), 1u);
    EXPECT_EQ(result["groups"][0]["files"][0]["path"].get<std::string>().rfind(tree_.path("a/"), 0), 0u);
}

class SpaceCommandsTest : public CommandTest {
protected:
    void SetUp() override {
        test::writeRandomFile(tree_.path("big/photo.jpg"), 300000, 1);
        test::writeRandomFile(tree_.path("big/photo copy.jpg"), 300000, 1);
        test::writeRandomFile(tree_.path("small/notes.txt"), 150000, 2);
    }
};

TEST_F(SpaceCommandsTest, TrueSizePrintsTheTreeLargestFirstAndTheSentence) {
    int64_t big = test::allocatedOf(tree_.path("big/photo.jpg")) + test::allocatedOf(tree_.path("big/photo copy.jpg"));
    int64_t all = big + test::allocatedOf(tree_.path("small/notes.txt"));
    auto run = dedup({"true-size", tree_.path()});
    ASSERT_EQ(run.exitCode, 0) << run.stderrText;
    EXPECT_EQ(run.stderrText, "");
    const std::string& out = run.stdoutText;
    auto bigLine = out.find(fmt::format("{:>10}  {:>10}  {:>10}    big\n", formatBytes(big), "600.0 kB", formatBytes(big)));
    auto smallLine = out.find("    small\n");
    ASSERT_NE(bigLine, std::string::npos) << out;
    ASSERT_NE(smallLine, std::string::npos) << out;
    EXPECT_LT(bigLine, smallLine);
    EXPECT_TRUE(out.ends_with("Deleting it frees " + formatBytes(all) + "; the file manager says 750.0 kB.\n")) << out;

    auto json = dedup({"true-size", "--json", "--depth", "0", tree_.path()});
    ASSERT_EQ(json.exitCode, 0) << json.stderrText;
    auto tree = nlohmann::json::parse(json.stdoutText);
    EXPECT_EQ(tree["freedIfDeleted"], all);
    EXPECT_EQ(tree["logical"], 750000);
    EXPECT_TRUE(tree["children"].empty());
    EXPECT_TRUE(tree["sharing"] == "unknown" || tree["sharing"] == "resolved");

    auto missing = dedup({"true-size", tree_.path("nowhere")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.stderrText, "dedup: no such folder: " + tree_.path("nowhere") + "\n");
    EXPECT_EQ(dedup({"true-size", "--depth", "-1", tree_.path()}).exitCode, 2);
}

TEST_F(SpaceCommandsTest, UnreadableSubfolderIsNamedAndTheRestStillScanned) {
    std::string setpriv = test::findProgram("setpriv");
    if (::geteuid() != 0 || setpriv.empty()) GTEST_SKIP() << "needs root and setpriv to run as another user";
    ASSERT_EQ(::chmod(tree_.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(tree_.path("big").c_str(), 0755), 0);
    ASSERT_EQ(::chmod(tree_.path("small").c_str(), 0), 0);
    // Only copies the user may replace are ever shown.
    for (const char* name : {"big", "big/photo.jpg", "big/photo copy.jpg"}) {
        ASSERT_EQ(::chown(tree_.path(name).c_str(), 65534, 65534), 0);
    }
    auto asNobody = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(),
                         {setpriv, "--reuid=65534", "--regid=65534", "--clear-groups", DEDUP_BINARY});
        return test::runCommand(arguments);
    };
    // True size measures the rest and names what it could not read.
    auto run = asNobody({"true-size", tree_.path()});
    EXPECT_EQ(run.exitCode, 3) << run.stderrText;
    EXPECT_NE(run.stdoutText.find("  " + tree_.path("small") + " (permission denied)\n"), std::string::npos)
        << run.stdoutText;

    auto scan = asNobody({"scan", "--json", "--no-cache", "--min-size", "1", tree_.path()});
    ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
    auto result = nlohmann::json::parse(scan.stdoutText);
    EXPECT_EQ(result["unreadableFolders"], nlohmann::json::array({tree_.path("small")}));
    EXPECT_EQ(result["groups"].size(), 1u);
    ::chmod(tree_.path("small").c_str(), 0755);
}

TEST_F(SpaceCommandsTest, SavedScanShowsAsTheScanDidAndCsvListsEveryFile) {
    std::string saved = data_.path("scan.json"), table = data_.path("scan.csv");
    auto scan = dedup({"scan", "--min-size", "1", "--save", saved, "--csv", table, tree_.path()});
    ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
    auto show = dedup({"show", saved});
    ASSERT_EQ(show.exitCode, 0) << show.stderrText;
    EXPECT_EQ(show.stdoutText, scan.stdoutText);
    std::string csv = test::readFile(table);
    EXPECT_TRUE(csv.starts_with("digest,size,frees,role,path\n")) << csv;
    EXPECT_NE(csv.find(",300000,,keep," + tree_.path("big/photo copy.jpg") + "\n"), std::string::npos) << csv;
    EXPECT_NE(csv.find(",300000,300000,clone," + tree_.path("big/photo.jpg") + "\n"), std::string::npos) << csv;

    auto notAScan = dedup({"show", table});
    EXPECT_EQ(notAScan.exitCode, 1);
    EXPECT_TRUE(notAScan.stderrText.starts_with("dedup: " + table + " is not a saved scan")) << notAScan.stderrText;
    auto missing = dedup({"show", data_.path("none.json")});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.stderrText, "dedup: cannot read " + data_.path("none.json") + ": no such file or directory\n");
    auto unwritable = dedup({"scan", "--save", data_.path("no/such/folder/scan.json"), tree_.path()});
    EXPECT_EQ(unwritable.exitCode, 1);
    EXPECT_NE(unwritable.stderrText.find("cannot write"), std::string::npos) << unwritable.stderrText;
}

TEST_F(SpaceCommandsTest, HoldersSayWhatWaitsInTheTrash) {
    struct statfs fs {};
    ASSERT_EQ(::statfs(tree_.path().c_str(), &fs), 0);
    if (fs.f_type == BTRFS_SUPER_MAGIC) GTEST_SKIP() << "this disk may have snapshots of its own";
    std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
    ::setenv("HOME", tree_.path().c_str(), 1);
    ::unsetenv("XDG_DATA_HOME");
    const std::string nothing = "Nothing holds space on this disk: no snapshots, and the Trash is empty.\n";
    auto none = dedup({"holders", tree_.path()});
    EXPECT_EQ(none.exitCode, 0) << none.stderrText;
    EXPECT_EQ(none.stdoutText, nothing);

    // The home Trash, its information files included.
    std::string trash = tree_.path(".local/share/Trash");
    test::writeRandomFile(trash + "/files/folder/old.jpg", 250000, 3);
    test::writeFile(trash + "/info/folder.trashinfo", "[Trash Info]\nPath=/x/folder\n");
    int64_t held =
        test::allocatedOf(trash + "/files/folder/old.jpg") + test::allocatedOf(trash + "/info/folder.trashinfo");
    EXPECT_EQ(dedup({"holders", tree_.path()}).stdoutText,
              "Still holding space on this disk:\n  " + formatBytes(held) + " waits in the Trash.\n");
    // XDG_DATA_HOME moves the home Trash.
    ::setenv("XDG_DATA_HOME", data_.path().c_str(), 1);
    EXPECT_EQ(dedup({"holders", tree_.path()}).stdoutText, nothing);
    EXPECT_EQ(dedup({"holders", tree_.path("nowhere")}).exitCode, 1);
    ::setenv("HOME", home.c_str(), 1);
    ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace dedup
