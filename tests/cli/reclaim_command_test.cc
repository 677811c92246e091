// dedup reclaim and dedup journal, run as a user would, on real Btrfs and XFS volumes, including a
// reclaim killed half-way and put right afterwards.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include <nlohmann/json.hpp>

#include "core/volumes.h"
#include "hasher.h"
#include "journal.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

test::CommandResult dedupCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEDUP_BINARY);
    return test::runCommand(arguments);
}

std::map<std::string, std::string> contentsUnder(const std::string& root) {
    std::map<std::string, std::string> digests;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            digests[entry.path().string()] = digestText(ContentHash::sha256(entry.path(), ContentHash::fullLimit));
        }
    }
    return digests;
}

struct Param {
    LoopVolume::Kind kind;
    const char* strategy;
};

class ReclaimCommandTest : public ::testing::TestWithParam<Param> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam().kind);
        ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1);
        volume_ = test::sharedVolume(GetParam().kind);
        root_ = test::freshFolder(volume_, "reclaim");
    }
    void makeTree(int groups, int64_t size) {
        for (int g = 0; g < groups; ++g) {
            std::string folder = root_ + "/g" + std::to_string(g % 7);
            fs::create_directories(folder);
            for (int copy = 0; copy < 3; ++copy) {
                test::writeRandomFile(folder + "/file" + std::to_string(g) + "-" + std::to_string(copy) + ".jpg",
                                      size, static_cast<uint64_t>(g));
            }
        }
    }

    test::TempDir data_;
    LoopVolume* volume_ = nullptr;
    std::string root_;
};

TEST_P(ReclaimCommandTest, DryRunChangesNothingThenReclaimFreesWhatItSaid) {
    makeTree(4, 300000);
    std::string strategy = std::string("--strategy=") + GetParam().strategy;
    auto before = contentsUnder(root_);
    auto dry = dedupCommand({"reclaim", "--dry-run", "--min-size", "1", strategy, root_});
    ASSERT_EQ(dry.exitCode, 0) << dry.stderrText;
    EXPECT_NE(dry.stdoutText.find("2.4 MB would be reclaimed by making 8 files clones. Nothing was changed."),
              std::string::npos)
        << dry.stdoutText;
    EXPECT_EQ(dedupCommand({"journal"}).stdoutText, "0 entries.\n");

    auto run = dedupCommand({"reclaim", "--min-size", "1", strategy, root_});
    ASSERT_EQ(run.exitCode, 0) << run.stdoutText << run.stderrText;
    EXPECT_NE(run.stdoutText.find("2.4 MB reclaimed; 8 files are clones now."), std::string::npos) << run.stdoutText;
    EXPECT_EQ(contentsUnder(root_), before);

    // The journal lists each clone, and every one of them checks out.
    auto journal = dedupCommand({"journal"});
    EXPECT_NE(journal.stdoutText.find("clone"), std::string::npos);
    auto verify = dedupCommand({"journal", "verify"});
    EXPECT_NE(verify.stdoutText.find("8 clones checked: 8 as reclaimed."), std::string::npos) << verify.stdoutText;

    // Nothing is left to reclaim, and a copy edited since is reported as changed.
    auto again = dedupCommand({"scan", "--min-size", "1", root_});
    EXPECT_NE(again.stdoutText.find("0 bytes can be reclaimed in 0 groups."), std::string::npos) << again.stdoutText;
    std::string edited = root_ + "/g1/file1-2.jpg";
    std::string content = test::readFile(edited);
    content[10] ^= 1;
    test::writeFile(edited, content);
    verify = dedupCommand({"journal", "verify", "--json"});
    auto findings = nlohmann::json::parse(verify.stdoutText);
    int changed = 0;
    for (const auto& f : findings) changed += f["finding"] == "changed since";
    EXPECT_EQ(changed, fs::exists(edited) ? 1 : 0);
}

TEST_P(ReclaimCommandTest, SavedSelectionIsHonouredAndSkipsAreExplained) {
    makeTree(2, 200000);
    ASSERT_EQ(dedupCommand({"exclude", root_ + "/g0"}).exitCode, 0);
    EXPECT_NE(dedupCommand({"exclusions"}).stdoutText.find(root_ + "/g0"), std::string::npos);
    // Two copies of another user's: one is kept, the other cannot be replaced and says why.
    bool root = ::geteuid() == 0;
    if (root) {
        for (const char* name : {"/g1/file1-0.jpg", "/g1/file1-1.jpg"}) {
            ASSERT_EQ(::chown((root_ + name).c_str(), 4242, 4242), 0);
        }
    }

    auto run = dedupCommand({"reclaim", "--min-size", "1", std::string("--strategy=") + GetParam().strategy, root_});
    if (root) {
        EXPECT_EQ(run.exitCode, 3) << run.stdoutText << run.stderrText;
        EXPECT_NE(run.stdoutText.find("200.0 kB reclaimed; 1 files are clones now."), std::string::npos)
            << run.stdoutText;
        EXPECT_NE(run.stdoutText.find("1 file could not be replaced"), std::string::npos) << run.stdoutText;
        EXPECT_NE(run.stdoutText.find("belongs to another user"), std::string::npos) << run.stdoutText;
        EXPECT_NE(dedupCommand({"journal"}).stdoutText.find("left alone: belongs to another user"),
                  std::string::npos);
    }
    // Everything in g0 was left out, so those copies were never touched.
    auto journal = Journal(data_.path("journal.jsonl")).entries();
    for (const auto& entry : journal) EXPECT_EQ(entry.target.find(root_ + "/g0/"), std::string::npos) << entry.target;

    ASSERT_EQ(dedupCommand({"include", root_ + "/g0"}).exitCode, 0);
    EXPECT_EQ(dedupCommand({"exclusions"}).stdoutText, "Nothing is left out of reclaiming.\n");
}

TEST_P(ReclaimCommandTest, KilledMidwayThenRecoveredLosesNothing) {
    makeTree(60, 200000);
    auto before = contentsUnder(root_);
    std::string journalPath = data_.path("journal.jsonl");

    pid_t child = ::fork();
    if (child == 0) {
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        std::string strategy = std::string("--strategy=") + GetParam().strategy;
        ::execl(DEDUP_BINARY, DEDUP_BINARY, "reclaim", "--min-size", "1", "--no-cache", strategy.c_str(),
                root_.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Kill it once some replacements have begun and before all are done.
    for (int i = 0; i < 2000; ++i) {
        size_t started = 0;
        if (fs::exists(journalPath)) {
            std::string text = test::readFile(journalPath);
            for (size_t at = text.find("\"started\""); at != std::string::npos; at = text.find("\"started\"", at + 1)) {
                ++started;
            }
        }
        if (started >= 20) break;
        ::usleep(2000);
    }
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);

    auto recover = dedupCommand({"journal", "recover"});
    ASSERT_EQ(recover.exitCode, 0) << recover.stderrText;
    EXPECT_TRUE(Journal(journalPath).interrupted().empty());
    EXPECT_EQ(contentsUnder(root_), before);  // also proves no temporary file is left
    EXPECT_EQ(dedupCommand({"journal", "recover"}).stdoutText, "Nothing was left from an interrupted reclaim.\n");

    // The next reclaim finishes the job.
    auto rest = dedupCommand({"reclaim", "--min-size", "1", root_});
    EXPECT_EQ(rest.exitCode, 0) << rest.stdoutText << rest.stderrText;
    EXPECT_EQ(contentsUnder(root_), before);
}

INSTANTIATE_TEST_SUITE_P(Volumes, ReclaimCommandTest,
                         ::testing::Values(Param{LoopVolume::Kind::btrfs, "in-place"},
                                           Param{LoopVolume::Kind::btrfs, "clone"},
                                           Param{LoopVolume::Kind::xfs, "in-place"},
                                           Param{LoopVolume::Kind::xfs, "clone"}),
                         [](const auto& info) {
                             std::string name = std::string(LoopVolume::kindName(info.param.kind)) + "_" +
                                                info.param.strategy;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(ReclaimCommandEdgeTest, DiskThatCannotCloneIsSaidPlainly) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::ext4);
    test::TempDir data;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    auto* volume = test::sharedVolume(LoopVolume::Kind::ext4);
    std::string root = test::freshFolder(volume, "ext4");
    test::writeRandomFile(root + "/a", 200000, 1);
    test::writeRandomFile(root + "/b", 200000, 1);
    auto inode = fs::status(root + "/b").type();
    auto run = dedupCommand({"reclaim", "--min-size", "1", root});
    EXPECT_EQ(run.exitCode, 3);
    EXPECT_NE(run.stdoutText.find("the disk cannot make clones"), std::string::npos) << run.stdoutText;
    EXPECT_EQ(fs::status(root + "/b").type(), inode);
    EXPECT_EQ(test::readFile(root + "/a"), test::readFile(root + "/b"));
}

}  // namespace
}  // namespace dedup
