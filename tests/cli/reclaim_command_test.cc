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
#include <sstream>

#include <nlohmann/json.hpp>

#include "core/volumes.h"
#include "hasher.h"
#include "journal.h"
#include "cli/command_helpers.h"
#include "reclaim_commands.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

using test::contentsUnder;
using test::dedupCommand;

class ReclaimCommandTest : public ::testing::Test {
protected:
    void SetUp() override { ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1); }
    void makeTree(int groups, int64_t size) {
        for (int g = 0; g < groups; ++g) {
            std::string folder = root_ + "/g" + std::to_string(g % 7);
            for (int copy = 0; copy < 3; ++copy) {
                test::writeRandomFile(folder + "/file" + std::to_string(g) + "-" + std::to_string(copy) + ".jpg",
                                      size, static_cast<uint64_t>(g));
            }
        }
    }

    test::TempDir data_;
    std::string root_;
};

// On a volume of its own kind, made once per process: the root is chosen per test.
#define DEDUP_USE_VOLUME(kind)                                      \
    DEDUP_REQUIRE_VOLUME(kind);                                     \
    root_ = test::freshFolder(test::sharedVolume(kind), "reclaim")

TEST_F(ReclaimCommandTest, DryRunChangesNothingThenReclaimFreesWhatItSaid) {
    DEDUP_USE_VOLUME(LoopVolume::Kind::btrfs);
    makeTree(4, 300000);
    auto before = contentsUnder(root_);
    auto dry = dedupCommand({"reclaim", "--dry-run", "--min-size", "1", root_});
    ASSERT_EQ(dry.exitCode, 0) << dry.stderrText;
    EXPECT_NE(dry.stdoutText.find("2.4 MB would be reclaimed by making 8 files clones. Nothing was changed."),
              std::string::npos)
        << dry.stdoutText;
    EXPECT_EQ(dedupCommand({"journal"}).stdoutText, "0 entries.\n");

    auto run = dedupCommand({"reclaim", "--min-size", "1", root_});
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
    // A clone edited since, one deleted and one that is another file now are each told apart.
    std::string content = test::readFile(root_ + "/g1/file1-2.jpg");
    content[10] ^= 1;
    test::writeFile(root_ + "/g1/file1-2.jpg", content);
    fs::remove(root_ + "/g2/file2-2.jpg");
    // Made before the old one goes, so the new file cannot be given the old inode number.
    fs::copy_file(root_ + "/g3/file3-2.jpg", root_ + "/new");
    fs::rename(root_ + "/new", root_ + "/g3/file3-2.jpg");
    std::map<std::string, int> findings;
    for (const auto& f : nlohmann::json::parse(dedupCommand({"journal", "verify", "--json"}).stdoutText)) {
        ++findings[f["finding"].get<std::string>()];
    }
    EXPECT_EQ(findings, (std::map<std::string, int>{
                            {"as reclaimed", 5}, {"changed since", 1}, {"gone", 1}, {"another file now", 1}}));
}

TEST_F(ReclaimCommandTest, SavedSelectionIsHonouredAndSkipsAreExplained) {
    DEDUP_USE_VOLUME(LoopVolume::Kind::xfs);
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

    auto run = dedupCommand({"reclaim", "--min-size", "1", root_});
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

TEST_F(ReclaimCommandTest, TrashSaysTheSpaceComesBackOnlyWhenItIsEmptied) {
    DEDUP_USE_VOLUME(LoopVolume::Kind::btrfs);
    makeTree(1, 200000);
    // Exchanged copies wait in the Trash with their blocks.
    auto swapped = dedupCommand({"reclaim", "--strategy", "clone", "--trash", "--min-size", "1", root_});
    ASSERT_EQ(swapped.exitCode, 0) << swapped.stdoutText << swapped.stderrText;
    EXPECT_NE(swapped.stdoutText.find("Of that, 400.0 kB comes back only when the Trash is emptied"),
              std::string::npos)
        << swapped.stdoutText;

    // Shared in place, nothing goes to the Trash, so there is nothing to wait for.
    root_ = test::freshFolder(test::sharedVolume(LoopVolume::Kind::btrfs), "reclaim-in-place");
    makeTree(1, 200000);
    auto inPlace = dedupCommand({"reclaim", "--strategy", "in-place", "--trash", "--min-size", "1", root_});
    ASSERT_EQ(inPlace.exitCode, 0) << inPlace.stdoutText << inPlace.stderrText;
    EXPECT_NE(inPlace.stdoutText.find("400.0 kB reclaimed"), std::string::npos) << inPlace.stdoutText;
    EXPECT_EQ(inPlace.stdoutText.find("Trash"), std::string::npos) << inPlace.stdoutText;
}

TEST(ReclaimSummaryTest, FailuresOfOneCauseAreSaidOnce) {
    ReclaimSummary summary;
    summary.replaced = 3;
    summary.freedBytes = 600000;
    for (int i = 0; i < 50; ++i) {
        std::string path = "/photos/" + std::to_string(i) + ".jpg";
        summary.failed[path] = "FICLONE(" + path + "): No space left on device";
    }
    summary.failed["/photos/odd.jpg"] = "open(/photos/odd.jpg): Input/output error";
    std::ostringstream out;
    cli::printReclaimSummary(out, summary);
    const std::string text = out.str();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6) << text;
    EXPECT_NE(text.find("50 copies: No space left on device, for example FICLONE(/photos/0.jpg)"), std::string::npos)
        << text;
    EXPECT_NE(text.find("The disk is full: free some space on it, then reclaim again."), std::string::npos) << text;
    EXPECT_NE(text.find("open(/photos/odd.jpg): Input/output error"), std::string::npos) << text;
}

struct Param {
    LoopVolume::Kind kind;
    const char* strategy;
};

class KilledReclaimTest : public ReclaimCommandTest, public ::testing::WithParamInterface<Param> {};

TEST_P(KilledReclaimTest, KilledMidwayThenRecoveredLosesNothing) {
    DEDUP_USE_VOLUME(GetParam().kind);
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

INSTANTIATE_TEST_SUITE_P(Volumes, KilledReclaimTest,
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

TEST_F(ReclaimCommandTest, DiskThatCannotCloneIsSaidPlainlyAndNothingChanges) {
    DEDUP_USE_VOLUME(LoopVolume::Kind::ext4);
    test::writeRandomFile(root_ + "/a", 200000, 1);
    test::writeRandomFile(root_ + "/b", 200000, 1);
    auto inodes = [&] {  // a temporary left behind would show here too
        std::map<std::string, uint64_t> found;
        for (const auto& entry : fs::directory_iterator(root_)) {
            found[entry.path()] = FileStatus::read(entry.path()).inode;
        }
        return found;
    };
    auto before = inodes();
    for (const char* strategy : {"auto", "in-place", "clone"}) {
        SCOPED_TRACE(strategy);
        auto run = dedupCommand({"reclaim", "--min-size", "1", std::string("--strategy=") + strategy, root_});
        EXPECT_EQ(run.exitCode, 3);
        EXPECT_NE(run.stdoutText.find("the disk cannot make clones"), std::string::npos) << run.stdoutText;
        EXPECT_EQ(inodes(), before);
        EXPECT_EQ(test::readFile(root_ + "/a"), test::readFile(root_ + "/b"));
    }
}

}  // namespace
}  // namespace dedup
