// dedup auto and dedup backup-disk, run as a user would, on a loop-mounted Btrfs volume.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "auto_lock.h"
#include "core/volumes.h"
#include "file_records.h"
#include "support/test_files.h"

namespace dedup {
namespace {

using test::LoopVolume;

test::CommandResult dedupCommand(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), DEDUP_BINARY);
    return test::runCommand(arguments);
}

// Waits for a condition that depends on another process, giving up after a minute.
template <typename Condition>
bool eventually(Condition condition) {
    for (int i = 0; i < 1200; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

class AutoCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
        ::setenv("DEDUP_DATA_DIR", data_.path().c_str(), 1);
        volume_ = test::sharedVolume(LoopVolume::Kind::btrfs);
        root_ = test::freshFolder(volume_, "auto-command");
    }
    test::TempDir data_;
    LoopVolume* volume_ = nullptr;
    std::string root_;
};

TEST_F(AutoCommandTest, BackupDiskIsMarkedOnceListedAndUnmarked) {
    auto added = dedupCommand({"backup-disk", "add", root_});
    ASSERT_EQ(added.exitCode, 0) << added.stderrText;
    EXPECT_EQ(added.stdoutText.find(volume_->mountPoint() + " is a backup disk now ("), 0u) << added.stdoutText;
    auto again = dedupCommand({"backup-disk", "add", volume_->mountPoint()});
    EXPECT_EQ(again.stdoutText, volume_->mountPoint() + " is already a backup disk.\n");

    auto listed = nlohmann::json::parse(dedupCommand({"backup-disk", "list", "--json"}).stdoutText);
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0]["mountPoint"], volume_->mountPoint());
    auto saved = nlohmann::json::parse(test::readFile(data_.path("backup-disks.json")));
    EXPECT_EQ(saved["volumes"], nlohmann::json::array({listed[0]["volume"]}));

    EXPECT_EQ(dedupCommand({"backup-disk", "remove", root_}).stdoutText,
              volume_->mountPoint() + " is no longer a backup disk.\n");
    EXPECT_EQ(dedupCommand({"backup-disk", "list"}).stdoutText, "0 backup disks.\n");

    auto missing = dedupCommand({"backup-disk", "add", root_ + "/nowhere"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.stderrText.find("no such file or folder"), std::string::npos);
    EXPECT_EQ(dedupCommand({"auto"}).exitCode, 2);  // nothing to watch
}

TEST_F(AutoCommandTest, ReclaimsANewCopyOnceQuietAndStopsOnSigterm) {
    test::writeRandomFile(root_ + "/a.jpg", 250000, 11);
    const std::string log = data_.path("auto.log");
    int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(out, 0);
    pid_t child = ::fork();
    if (child == 0) {
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execl(DEDUP_BINARY, DEDUP_BINARY, "auto", "--anytime", "--quiet-period", "0.5", "--min-size", "1",
                root_.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(out);
    // Whatever fails below, the watcher does not outlive the test.
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            if (pid > 0) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, 0);
            }
        }
    } reaper{child};
    auto logged = [&](const std::string& text) { return test::readFile(log).find(text) != std::string::npos; };
    ASSERT_TRUE(eventually([&] { return logged("Watching 1 folders with 1 files"); })) << test::readFile(log);

    test::writeRandomFile(root_ + "/b.jpg", 250000, 11);
    auto shared = [&] {
        auto a = CloneInfo::read(root_ + "/a.jpg"), b = CloneInfo::read(root_ + "/b.jpg");
        return a && b && a->cloneID == b->cloneID;
    };
    EXPECT_TRUE(eventually(shared));
    EXPECT_TRUE(eventually([&] { return logged(": 1 files became clones; "); })) << test::readFile(log);

    ::kill(child, SIGTERM);
    int status = 0;
    ::waitpid(child, &status, 0);
    reaper.pid = 0;
    ASSERT_TRUE(WIFEXITED(status)) << test::readFile(log);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(logged("Stopping"));
    EXPECT_EQ(test::readFile(root_ + "/b.jpg"), test::randomBytes(250000, 11));
}

TEST(AutoCommandEdgeTest, DiskThatCannotCloneIsSaidAtTheStart) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::ext4);
    test::TempDir data;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    std::string root = test::freshFolder(test::sharedVolume(LoopVolume::Kind::ext4), "auto-ext4");
    // Watching it would only journal every copy as left alone on each pass: with nothing else to
    // watch the command says why and stops.
    auto run = test::runCommand({"timeout", "-s", "TERM", "3", DEDUP_BINARY, "auto", "--anytime", root});
    EXPECT_NE(run.stdoutText.find(root + " is on "), std::string::npos) << run.stdoutText;
    EXPECT_NE(run.stdoutText.find("(ext4), which cannot make clones"), std::string::npos) << run.stdoutText;
    EXPECT_EQ(run.exitCode, 1) << run.stderrText;
    EXPECT_NE(run.stderrText.find("nothing to keep reclaimed"), std::string::npos) << run.stderrText;

    // For programs: one whole JSON object per line.
    auto json = test::runCommand({"timeout", "-s", "TERM", "3", DEDUP_BINARY, "auto", "--anytime", "--json", root});
    std::istringstream lines(json.stdoutText);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line)) << json.stdoutText;
    auto warning = nlohmann::json::parse(line);
    EXPECT_EQ(warning["event"], "warning");
    EXPECT_EQ(warning["fileSystem"], "ext4");
    EXPECT_FALSE(std::getline(lines, line)) << json.stdoutText;
}

TEST(AutoCommandEdgeTest, SecondAutomaticReclaimerSaysWhoWorksAndDoesNotStart) {
    test::TempDir data, root;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    auto lock = AutoLock::acquire(data.path(), "the desktop application");
    ASSERT_TRUE(std::holds_alternative<AutoLock>(lock));
    auto run = test::runCommand({"timeout", "-s", "KILL", "20", DEDUP_BINARY, "auto", "--anytime", root.path()});
    EXPECT_EQ(run.exitCode, 1) << run.stdoutText;
    EXPECT_EQ(run.stderrText, "dedup: automatic reclaiming already runs in the desktop application (process " +
                                  std::to_string(::getpid()) + ")\n");
    EXPECT_EQ(run.stdoutText, "");  // not even the journal's recovery ran
}

TEST(AutoCommandEdgeTest, XfsIsWatchedOnlyWhereItWasFormattedToShareBlocks) {
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfsWithoutReflink);
    DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::xfs);
    test::TempDir data;
    ::setenv("DEDUP_DATA_DIR", data.path().c_str(), 1);
    auto plain = LoopVolume::create(LoopVolume::Kind::xfsWithoutReflink);
    const std::string refusing = test::freshFolder(plain.get(), "auto-xfs");
    const std::string sharing = test::freshFolder(test::sharedVolume(LoopVolume::Kind::xfs), "auto-xfs");

    auto run = test::runCommand(
        {"timeout", "--preserve-status", "-s", "TERM", "5", DEDUP_BINARY, "auto", "--anytime", refusing, sharing});
    EXPECT_NE(run.stdoutText.find(refusing + " is on " + plain->mountPoint() + " (xfs), which cannot make clones"),
              std::string::npos)
        << run.stdoutText;
    EXPECT_EQ(run.stdoutText.find(sharing + " is on "), std::string::npos) << run.stdoutText;
    EXPECT_NE(run.stdoutText.find("Watching 1 folders"), std::string::npos) << run.stdoutText;
    EXPECT_EQ(run.exitCode, 0) << run.stderrText;
}

}  // namespace
}  // namespace dedup
