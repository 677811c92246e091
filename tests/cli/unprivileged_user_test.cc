// The dedup command run by a user who is not root, as most people run it: what it saves, it can
// read back; files and folders it may not touch are named and left alone. The tests start as root
// (to make the volumes) and run the command under a made-up user id.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "core/volumes.h"
#include "support/test_files.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;

constexpr uid_t user = 54321;

class UnprivilegedUserTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "needs root to take on another user's id";
        setpriv_ = test::findProgram("setpriv");
        if (setpriv_.empty()) GTEST_SKIP() << "setpriv (util-linux) is missing";
        DEDUP_REQUIRE_VOLUME(LoopVolume::Kind::btrfs);
        volume_ = LoopVolume::create(LoopVolume::Kind::btrfs);
        // The user must reach the mount point and its own data folder.
        ASSERT_EQ(::chmod(volume_->folder().c_str(), 0755), 0);
        ASSERT_EQ(::chmod(data_.path().c_str(), 0755), 0);
        home_ = volume_->path("home");
        fs::create_directories(home_ + "/data");
        ::setenv("DEDUP_DATA_DIR", (home_ + "/data").c_str(), 1);
    }

    // Runs dedup as `user`, with the usual umask of a desktop session.
    test::CommandResult asUser(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {setpriv_, "--reuid=" + std::to_string(user),
                                             "--regid=" + std::to_string(user), "--clear-groups", DEDUP_BINARY});
        mode_t old = ::umask(022);
        auto result = test::runCommand(arguments);
        ::umask(old);
        return result;
    }

    // Makes everything under home_ the user's, as if the user had made it.
    void handOver() {
        ASSERT_EQ(::chown(home_.c_str(), user, user), 0);
        for (const auto& entry : fs::recursive_directory_iterator(home_)) {
            ASSERT_EQ(::lchown(entry.path().c_str(), user, user), 0) << entry.path();
        }
    }

    static unsigned modeOf(const std::string& path) {
        struct stat st {};
        if (::stat(path.c_str(), &st) != 0) return 0;
        return st.st_mode & 07777;
    }

    std::string setpriv_;
    test::TempDir data_;
    std::unique_ptr<LoopVolume> volume_;
    std::string home_;
};

TEST_F(UnprivilegedUserTest, EverythingSavedIsReadBackAndExclusionsHold) {
    const std::string photos = home_ + "/photos";
    for (const char* name : {"a.jpg", "b.jpg", "kept-out/c.jpg"}) test::writeRandomFile(photos + "/" + name, 300000, 7);
    handOver();

    // The saved selection is the user's to read, and every reclaim honours it.
    auto excluded = asUser({"exclude", photos + "/kept-out"});
    ASSERT_EQ(excluded.exitCode, 0) << excluded.stderrText;
    EXPECT_EQ(modeOf(home_ + "/data/selection.json"), 0644u);
    EXPECT_NE(asUser({"exclusions"}).stdoutText.find(photos + "/kept-out"), std::string::npos);
    auto reclaim = asUser({"reclaim", "--min-size", "1", photos});
    EXPECT_EQ(reclaim.exitCode, 0) << reclaim.stdoutText << reclaim.stderrText;
    EXPECT_NE(reclaim.stdoutText.find("1 files are clones now"), std::string::npos) << reclaim.stdoutText;
    EXPECT_EQ(reclaim.stderrText, "");
    auto journal = asUser({"journal", "--json"});
    ASSERT_EQ(journal.exitCode, 0) << journal.stderrText;
    for (const auto& entry : nlohmann::json::parse(journal.stdoutText)) {
        EXPECT_EQ(entry["target"].get<std::string>().find("/kept-out/"), std::string::npos) << entry;
    }

    // A backup disk marked is listed.
    auto add = asUser({"backup-disk", "add", home_});
    ASSERT_EQ(add.exitCode, 0) << add.stderrText;
    EXPECT_EQ(modeOf(home_ + "/data/backup-disks.json"), 0644u);
    EXPECT_NE(asUser({"backup-disk", "list"}).stdoutText.find("1 backup disk."), std::string::npos);

    // A saved scan and a CSV report open again; a file the user had made private stays private
    // when saved over.
    const std::string saved = home_ + "/data/scan.json";
    const std::string csv = home_ + "/data/scan.csv";
    auto scan = asUser({"scan", "--min-size", "1", "--save", saved, "--csv", csv, photos});
    ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
    EXPECT_EQ(modeOf(saved), 0644u);
    EXPECT_EQ(modeOf(csv), 0644u);
    auto show = asUser({"show", saved});
    EXPECT_EQ(show.exitCode, 0) << show.stderrText;
    ASSERT_EQ(::chmod(csv.c_str(), 0600), 0);
    ASSERT_EQ(asUser({"scan", "--min-size", "1", "--csv", csv, photos}).exitCode, 0);
    EXPECT_EQ(modeOf(csv), 0600u);
}

TEST_F(UnprivilegedUserTest, WhatCannotBeReadOrReplacedIsNamedAndNotCounted) {
    const std::string photos = home_ + "/photos";
    for (const char* name : {"a.jpg", "b.jpg", "locked/c.jpg", "locked/d.jpg"}) {
        test::writeRandomFile(photos + "/" + name, 300000, 8);
    }
    test::writeRandomFile(photos + "/private/e.jpg", 300000, 8);
    handOver();
    // A folder its user may not write (its copies cannot be replaced) and one of root's it may not read.
    ASSERT_EQ(::chmod((photos + "/locked").c_str(), 0555), 0);
    ASSERT_EQ(::chown((photos + "/private").c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod((photos + "/private").c_str(), 0700), 0);
    // And a file of root's it may not read, beside the copies.
    test::writeRandomFile(photos + "/secret.jpg", 300000, 8);
    ASSERT_EQ(::chmod((photos + "/secret.jpg").c_str(), 0600), 0);

    // One locked copy is kept; the other is named with its reason and counted as nothing.
    auto scan = asUser({"scan", "--min-size", "1", photos});
    ASSERT_EQ(scan.exitCode, 0) << scan.stderrText;
    EXPECT_NE(scan.stdoutText.find("600.0 kB can be reclaimed in 1 groups."), std::string::npos) << scan.stdoutText;
    EXPECT_NE(scan.stdoutText.find(photos + "/locked/d.jpg  (left alone: "), std::string::npos) << scan.stdoutText;
    auto dry = asUser({"reclaim", "--dry-run", "--min-size", "1", photos});
    EXPECT_NE(dry.stdoutText.find("600.0 kB would be reclaimed by making 2 files clones."), std::string::npos)
        << dry.stdoutText;

    // The reclaim names the folder and the file it could not read.
    auto reclaim = asUser({"reclaim", "--min-size", "1", photos});
    EXPECT_NE(reclaim.stdoutText.find("1 folder could not be read; nothing in it was looked at:\n  " + photos +
                                      "/private\n1 file could not be read to compare it:\n  " + photos +
                                      "/secret.jpg\n"),
              std::string::npos)
        << reclaim.stdoutText;

    // True size measures the rest and says what it left out.
    auto size = asUser({"true-size", photos});
    EXPECT_EQ(size.exitCode, 3) << size.stderrText;
    EXPECT_NE(size.stdoutText.find("1 folder could not be read and is not counted:\n  " + photos +
                                   "/private (permission denied)"),
              std::string::npos)
        << size.stdoutText;
    EXPECT_NE(size.stdoutText.find("Deleting it frees at least "), std::string::npos) << size.stdoutText;
}

}  // namespace
}  // namespace dedup
