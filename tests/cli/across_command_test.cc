// dedup across, dedup trash and dedup journal restore, run as a user would, on a Btrfs and an XFS.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "core/volumes.h"
#include "journal.h"
#include "path_text.h"
#include "platform/trash.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

test::CommandResult dedupCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEDUP_BINARY);
    return test::runCommand(arguments);
}

TEST(AcrossCommandTest, FindsTreesMovesACopyToTheTrashAndRestoresIt) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    test::TempDir data;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    std::string left = test::freshFolder(test::sharedVolume(LoopVolume::Kind::btrfs), "across-cli");
    std::string right = test::freshFolder(test::sharedVolume(LoopVolume::Kind::xfs), "across-cli");
    for (const auto& top : {left + "/Project", right + "/Copy of Project"}) {
        test::writeRandomFile(top + "/src/main.cc", 150000, 11);
        test::writeFile(top + "/README", "read me");
    }
    test::writeRandomFile(left + "/big.iso", 400000, 12);
    // A name that is not UTF-8 (Latin-1), as old disks hold: it must come back byte for byte.
    test::writeRandomFile(right + "/big\xe9.iso", 400000, 12);

    auto json = dedupCommand({"across", "--folders", "--json", "--min-size", "1", left, right});
    ASSERT_EQ(json.exitCode, 0) << json.stderrText;
    auto result = nlohmann::json::parse(json.stdoutText);
    ASSERT_EQ(result["trees"].size(), 1u);
    EXPECT_EQ(result["trees"][0]["folders"], (nlohmann::json{left + "/Project", right + "/Copy of Project"}));
    ASSERT_EQ(result["files"].size(), 1u);
    ASSERT_EQ(result["files"][0]["files"].size(), 2u);
    EXPECT_EQ(result["files"][0]["files"][0], left + "/big.iso");
    EXPECT_EQ(pathFromText(result["files"][0]["files"][1].get<std::string>()), right + "/big\xe9.iso");

    auto text = dedupCommand({"across", "--folders", left, right});
    EXPECT_EQ(text.exitCode, 0) << text.stderrText;
    EXPECT_NE(text.stdoutText.find("1 identical folder and 1 identical file on different disks"), std::string::npos) << text.stdoutText;

    // A changed copy stays; the message says what changed.
    test::writeFile(right + "/Copy of Project/README", "read me!");
    auto refused = dedupCommand({"trash", right + "/Copy of Project", "--keep", left + "/Project"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.stderrText.find("README"), std::string::npos) << refused.stderrText;
    EXPECT_TRUE(fs::exists(right + "/Copy of Project/README"));

    test::writeFile(right + "/Copy of Project/README", "read me");
    auto moved = dedupCommand({"trash", right + "/Copy of Project", "--keep", left + "/Project"});
    ASSERT_EQ(moved.exitCode, 0) << moved.stderrText;
    EXPECT_FALSE(fs::exists(right + "/Copy of Project"));

    auto journal = dedupCommand({"journal"});
    EXPECT_NE(journal.stdoutText.find("to the Trash"), std::string::npos) << journal.stdoutText;
    EXPECT_NE(journal.stdoutText.find(right + "/Copy of Project"), std::string::npos) << journal.stdoutText;

    auto restored = dedupCommand({"journal", "restore", right + "/Copy of Project"});
    ASSERT_EQ(restored.exitCode, 0) << restored.stderrText;
    EXPECT_EQ(test::readFile(right + "/Copy of Project/README"), "read me");
    EXPECT_EQ(dedupCommand({"journal", "restore", right + "/Copy of Project"}).exitCode, 1);
    EXPECT_EQ(dedupCommand({"trash", left + "/nothing", "--keep", left + "/Project"}).exitCode, 1);
}

// A dedup trash killed once the copy was in the Trash but before the journal said so: recover
// says where the copy is, and restore brings it back.
TEST(AcrossCommandTest, MoveKilledAfterTheRenameIsFoundByRecoverAndRestored) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    test::TempDir data;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    std::string folder = test::freshFolder(test::sharedVolume(LoopVolume::Kind::xfs), "across-killed");
    const std::string copy = folder + "/report.pdf";
    test::writeRandomFile(copy, 70000, 14);
    {
        Journal journal(data.path("journal.jsonl"));
        JournalEntry started = JournalEntry::make(JournalEntry::Event::started, copy);
        started.detail = std::string(JournalEntry::trashMove);
        started.before = Snapshot::take(copy);
        started.owner = makeUUID();  // a process that is gone
        journal.append(started);
    }
    ASSERT_TRUE(platform::moveToTrashOfItsDisk(copy).moved);

    auto recovered = dedupCommand({"journal", "recover"});
    ASSERT_EQ(recovered.exitCode, 0) << recovered.stderrText;
    EXPECT_NE(recovered.stdoutText.find(copy + " to the Trash was cut short after it went"), std::string::npos)
        << recovered.stdoutText;
    auto journal = dedupCommand({"journal"});
    EXPECT_NE(journal.stdoutText.find("to the Trash"), std::string::npos) << journal.stdoutText;
    auto restored = dedupCommand({"journal", "restore", copy});
    ASSERT_EQ(restored.exitCode, 0) << restored.stderrText;
    EXPECT_EQ(test::readFile(copy), test::randomBytes(70000, 14));
}

}  // namespace
}  // namespace dedup
