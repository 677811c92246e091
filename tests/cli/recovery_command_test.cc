// Putting right what an interrupted reclaim left, run as a user would: a dry run that must change
// nothing, temporaries the journal does not know, and two dedup processes on one tree at once.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "clone_engine.h"
#include "core/volumes.h"
#include "hasher.h"
#include "journal.h"
#include "cli/command_helpers.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

using test::contentsUnder;
using test::dedupCommand;

std::set<std::string> temporariesUnder(const std::string& root) {
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        if (CloneEngine::isTemporary(entry.path())) found.insert(entry.path());
    }
    return found;
}

std::string temporaryOf(const std::string& copy) {
    return fs::path(copy).parent_path().string() + "/." + fs::path(copy).filename().string() + ".dedup-" + makeUUID();
}

class RecoveryCommandTest : public ::testing::Test {
protected:
    void SetUp() override { ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1); }
    std::string journalPath() const { return data_.path("journal.jsonl"); }

    test::TempDir data_;
    test::TempDir tree_;
};

TEST_F(RecoveryCommandTest, DryRunWithLeftoversChangesNothingAndSaysWhatWouldBePutRight) {
    // Two replacements a killed run left: one whose temporary holds the replaced copy beside its
    // clone, one whose copy's name is free because the run died between the two renames.
    test::writeRandomFile(tree_.path("kept.jpg"), 50000, 3);
    test::writeRandomFile(tree_.path("copy.jpg"), 50000, 3);
    std::string identical = temporaryOf(tree_.path("copy.jpg"));
    test::writeRandomFile(identical, 50000, 3);
    std::string orphan = temporaryOf(tree_.path("lonely.jpg"));
    test::writeRandomFile(orphan, 50000, 4);
    {
        Journal journal(journalPath());
        std::vector<JournalEntry> entries;
        for (const auto& [target, temporary] : {std::pair{tree_.path("copy.jpg"), identical},
                                                std::pair{tree_.path("lonely.jpg"), orphan}}) {
            JournalEntry entry = JournalEntry::make(JournalEntry::Event::started, target);
            entry.temporary = temporary;
            entry.owner = makeUUID();  // a process long gone
            entries.push_back(entry);
        }
        journal.append(entries);
    }
    auto before = contentsUnder(tree_.path());
    std::string journalBefore = test::readFile(journalPath());

    auto dry = dedupCommand({"reclaim", "--dry-run", "--min-size", "1", tree_.path()});
    EXPECT_EQ(dry.exitCode, 0) << dry.stderrText;
    EXPECT_NE(dry.stdoutText.find("2 interrupted replacements would be put right first."), std::string::npos)
        << dry.stdoutText;
    EXPECT_NE(dry.stdoutText.find("Nothing was changed."), std::string::npos) << dry.stdoutText;
    EXPECT_EQ(contentsUnder(tree_.path()), before);
    EXPECT_EQ(test::readFile(journalPath()), journalBefore);

    auto recover = dedupCommand({"journal", "recover"});
    EXPECT_EQ(recover.exitCode, 0) << recover.stdoutText << recover.stderrText;
    EXPECT_FALSE(fs::exists(identical));
    EXPECT_EQ(test::readFile(tree_.path("lonely.jpg")), test::randomBytes(50000, 4));
    EXPECT_TRUE(Journal(journalPath()).interrupted().empty());
}

TEST_F(RecoveryCommandTest, TemporariesTheJournalDoesNotKnowAreOfferedThenOnlyProvablySpareOnesRemoved) {
    test::writeRandomFile(tree_.path("a/photo.jpg"), 40000, 1);
    std::string same = temporaryOf(tree_.path("a/photo.jpg"));
    test::writeRandomFile(same, 40000, 1);
    std::string unfilled = temporaryOf(tree_.path("a/b/big.mov"));
    test::writeRandomFile(tree_.path("a/b/big.mov"), 40000, 2);
    test::writeFile(unfilled, "");
    std::string orphan = temporaryOf(tree_.path("a/b/gone.jpg"));
    test::writeRandomFile(orphan, 40000, 5);
    // Differs from the copy beside it: it may be the only place some saved data lives.
    test::writeRandomFile(tree_.path("a/edited.txt"), 40000, 6);
    std::string differs = temporaryOf(tree_.path("a/edited.txt"));
    test::writeRandomFile(differs, 40000, 7);
    // Not the engine's: no UUID after the marker.
    test::writeRandomFile(tree_.path("a/.notes.dedup-draft"), 100, 8);

    auto scan = dedupCommand({"scan", "--min-size", "1", tree_.path()});
    EXPECT_NE(scan.stdoutText.find("4 files are left from an interrupted reclaim:"), std::string::npos)
        << scan.stdoutText;
    EXPECT_NE(scan.stdoutText.find("Put them right with: dedup journal recover " + tree_.path()), std::string::npos)
        << scan.stdoutText;
    auto json = nlohmann::json::parse(dedupCommand({"scan", "--json", "--min-size", "1", tree_.path()}).stdoutText);
    EXPECT_EQ(json["leftovers"].size(), 4u);
    EXPECT_EQ(json["putRightWith"], "dedup journal recover " + tree_.path());

    auto recover = dedupCommand({"journal", "recover", tree_.path()});
    EXPECT_EQ(recover.exitCode, 3) << recover.stdoutText << recover.stderrText;
    EXPECT_NE(recover.stdoutText.find("2 removed"), std::string::npos) << recover.stdoutText;
    EXPECT_NE(recover.stdoutText.find("may hold data found nowhere else"), std::string::npos) << recover.stdoutText;
    EXPECT_NE(recover.stdoutText.find(differs), std::string::npos) << recover.stdoutText;
    EXPECT_FALSE(fs::exists(same));
    EXPECT_FALSE(fs::exists(unfilled));
    EXPECT_EQ(test::readFile(tree_.path("a/b/gone.jpg")), test::randomBytes(40000, 5));
    EXPECT_EQ(test::readFile(differs), test::randomBytes(40000, 7));
    EXPECT_EQ(test::readFile(tree_.path("a/edited.txt")), test::randomBytes(40000, 6));
    EXPECT_TRUE(fs::exists(tree_.path("a/.notes.dedup-draft")));
    // What was done is in the journal.
    size_t recorded = 0;
    for (const auto& entry : Journal(journalPath()).entries()) {
        recorded += entry.event == JournalEntry::Event::recovered ? 1 : 0;
    }
    EXPECT_EQ(recorded, 4u);
    // Only the kept one is offered again.
    auto again = dedupCommand({"scan", "--min-size", "1", tree_.path()});
    EXPECT_NE(again.stdoutText.find("1 file is left from an interrupted reclaim:"), std::string::npos)
        << again.stdoutText;
}

class TwoProcessesTest : public RecoveryCommandTest, public ::testing::WithParamInterface<LoopVolume::Kind> {};

// A reclaim is stopped (not killed) with temporaries on disk; a recovery and a second reclaim of
// the same tree run meanwhile; then the first goes on. Nothing the first is doing may be touched.
TEST_P(TwoProcessesTest, RecoveryAndASecondReclaimLeaveALiveReclaimsReplacementsAlone) {
    DEDUP_REQUIRE_VOLUME(GetParam());
    std::string root = test::freshFolder(test::sharedVolume(GetParam()), "two");
    for (int g = 0; g < 20; ++g) {
        for (int copy = 0; copy < 3; ++copy) {
            test::writeRandomFile(root + "/g" + std::to_string(g % 4) + "/f" + std::to_string(g) + "-" +
                                      std::to_string(copy) + ".jpg",
                                  1 << 20, static_cast<uint64_t>(g));
        }
    }
    auto before = contentsUnder(root);
    std::string firstOutput = data_.path("first.json");

    pid_t first = ::fork();
    if (first == 0) {
        int out = ::open(firstOutput.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(out, 1);
        ::dup2(null, 2);
        ::execl(DEDUP_BINARY, DEDUP_BINARY, "reclaim", "--json", "--min-size", "1", "--no-cache", "--strategy=clone",
                root.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // Stopped the moment its temporaries are on disk.
    std::set<std::string> held;
    for (int i = 0; i < 20000 && held.empty(); ++i) {
        if (temporariesUnder(root).empty()) {
            ::usleep(500);
            continue;
        }
        ::kill(first, SIGSTOP);
        held = temporariesUnder(root);
        if (held.empty()) ::kill(first, SIGCONT);
    }
    ASSERT_FALSE(held.empty()) << "the reclaim ended before it could be stopped";

    auto recover = dedupCommand({"journal", "recover", root});
    EXPECT_EQ(recover.exitCode, 0) << recover.stdoutText << recover.stderrText;
    EXPECT_NE(recover.stdoutText.find("being replaced by another dedup right now"), std::string::npos)
        << recover.stdoutText;
    EXPECT_EQ(temporariesUnder(root), held);
    auto second = dedupCommand({"reclaim", "--json", "--min-size", "1", "--no-cache", "--strategy=clone", root});
    EXPECT_TRUE(nlohmann::json::parse(second.stdoutText)["failed"].empty()) << second.stdoutText;
    EXPECT_EQ(temporariesUnder(root), held);

    ::kill(first, SIGCONT);
    int status = 0;
    ::waitpid(first, &status, 0);
    auto summary = nlohmann::json::parse(test::readFile(firstOutput));
    EXPECT_TRUE(summary["failed"].empty()) << summary.dump();
    EXPECT_TRUE(Journal(journalPath()).interrupted().empty());
    EXPECT_TRUE(Journal(journalPath()).underway().empty());
    EXPECT_EQ(contentsUnder(root), before);
}

INSTANTIATE_TEST_SUITE_P(Volumes, TwoProcessesTest, ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

}  // namespace
}  // namespace dedup
