#include "clone_engine.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "journal.h"
#include "metadata.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;
using Strategy = CloneEngine::Strategy;

struct Facts {
    FileStatus status;
    FileTimes times;
    Attributes attributes;
    std::optional<std::string> acl;
    std::string content;
};

Facts factsOf(const std::string& path) {
    return {FileStatus::read(path), FileTimes::read(path), XAttr::all(path), ACL::text(path), test::readFile(path)};
}

bool anyTemporaryIn(const std::string& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().filename().string().find(".dedup-") != std::string::npos) return true;
    }
    return false;
}

struct Param {
    LoopVolume::Kind kind;
    Strategy strategy;
};

class CloneEngineOnVolume : public ::testing::TestWithParam<Param> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam().kind);
        volume_ = test::sharedVolume(GetParam().kind);
        dir_ = test::freshFolder(volume_, "engine");
        journal_ = std::make_unique<Journal>(data_.path("journal.jsonl"));
        engine_.journal = journal_.get();
        engine_.strategy = GetParam().strategy;
    }
    // A kept file and a copy of it with metadata of its own: mode, dates, an attribute and an ACL.
    void makePair(int64_t size = 3 << 20) {
        test::writeRandomFile(kept(), size, 41);
        test::writeRandomFile(copy(), size, 41);
        ASSERT_EQ(::chmod(copy().c_str(), 0640), 0);
        ASSERT_EQ(::lsetxattr(copy().c_str(), "user.tag", "red", 3, 0), 0);
        ASSERT_EQ(::lsetxattr(kept().c_str(), "user.kept-only", "x", 1, 0), 0);
        test::runCommandChecked({"setfacl", "-m", "u:4321:r", copy()});
        struct timespec times[2] = {{1600000000, 111}, {1500000000, 222}};
        ASSERT_EQ(::utimensat(AT_FDCWD, copy().c_str(), times, 0), 0);
    }
    std::string kept() const { return dir_ + "/kept.jpg"; }
    std::string copy() const { return dir_ + "/copy.jpg"; }
    int64_t replace() { return engine_.replace(copy(), kept(), FileStatus::read(copy()), "digest"); }
    static std::optional<SkipReason> skipOf(const std::function<void()>& action) {
        try {
            action();
        } catch (const Skip& skip) {
            return skip.reason;
        }
        return std::nullopt;
    }

    test::TempDir data_;
    LoopVolume* volume_ = nullptr;
    std::string dir_;
    std::unique_ptr<Journal> journal_;
    CloneEngine engine_;
};

TEST_P(CloneEngineOnVolume, ReplacementKeepsEveryMetadataFieldAndSharesTheBlocks) {
    makePair();
    Facts before = factsOf(copy());
    ASSERT_TRUE(before.acl);
    ::sync();
    struct statvfs spaceBefore {};
    ::statvfs(dir_.c_str(), &spaceBefore);

    EXPECT_EQ(replace(), 3 << 20);
    Facts after = factsOf(copy());
    EXPECT_EQ(after.content, before.content);
    EXPECT_EQ(after.status.mode, before.status.mode);
    EXPECT_EQ(after.status.uid, before.status.uid);
    EXPECT_EQ(after.times.modified, before.times.modified);
    EXPECT_EQ(after.attributes, before.attributes);  // its own tag, not the kept file's
    EXPECT_EQ(after.acl, before.acl);
    if (GetParam().strategy == Strategy::inPlace) {
        // In place the copy stays the very same file: inode, birth and change time too.
        EXPECT_EQ(after.status.inode, before.status.inode);
        EXPECT_EQ(after.times.created, before.times.created);
        EXPECT_EQ(after.status.changed, before.status.changed);
    }
    EXPECT_FALSE(anyTemporaryIn(dir_));
    auto a = CloneInfo::read(kept()), b = CloneInfo::read(copy());
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->cloneID, b->cloneID);

    // XFS frees the blocks of an unlinked file in the background: give it a moment to catch up.
    int64_t gained = 0;
    for (int attempt = 0; attempt < 100 && gained < (2 << 20); ++attempt, ::usleep(50000)) {
        ::sync();
        struct statvfs spaceAfter {};
        ::statvfs(dir_.c_str(), &spaceAfter);
        gained = (int64_t(spaceAfter.f_bfree) - int64_t(spaceBefore.f_bfree)) * int64_t(spaceAfter.f_frsize);
    }
    EXPECT_GE(gained, 2 << 20) << "the file system shows the space back";

    auto entries = journal_->entries();
    ASSERT_GE(entries.size(), 2u);
    EXPECT_EQ(entries.back().event, JournalEntry::Event::replaced);
    EXPECT_EQ(entries.back().freedBytes, 3 << 20);
    EXPECT_TRUE(journal_->interrupted().empty());

    // A second attempt finds the work done.
    EXPECT_THROW(replace(), Skip);
}

TEST_P(CloneEngineOnVolume, ChecksRefuseWhatMustNotBeTouched) {
    makePair(200000);
    auto reasonOf = [&](const FileStatus& expected) {
        return skipOf([&] { engine_.replace(copy(), kept(), expected); });
    };
    FileStatus stale = FileStatus::read(copy());
    stale.changed.nanoseconds += 1;
    EXPECT_EQ(reasonOf(stale), SkipReason::changedSinceScan);

    if (::geteuid() == 0) {
        test::runCommandChecked({"chattr", "+i", copy()});
        EXPECT_EQ(reasonOf(FileStatus::read(copy())), SkipReason::locked);
        test::runCommandChecked({"chattr", "-i", "+a", copy()});
        EXPECT_EQ(reasonOf(FileStatus::read(copy())), SkipReason::appendOnly);
        test::runCommandChecked({"chattr", "-a", copy()});
    }

    // Same size, one byte different: the kernel's or our comparison refuses, and nothing changes.
    std::string content = test::readFile(copy());
    content[150000] ^= 1;
    test::writeFile(copy(), content);
    Facts before = factsOf(copy());
    EXPECT_EQ(reasonOf(FileStatus::read(copy())), SkipReason::contentDiffers);
    EXPECT_EQ(factsOf(copy()).content, before.content);
    EXPECT_EQ(FileStatus::read(copy()).inode, before.status.inode);
    EXPECT_FALSE(anyTemporaryIn(dir_));

    // Open in another process. Clone and swap would leave it writing to the replaced file, so the
    // copy is left alone; shared in place, the process keeps the very same file and bytes.
    content[150000] ^= 1;
    test::writeFile(copy(), content);
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    pid_t child = ::fork();
    if (child == 0) {
        int fd = ::open(copy().c_str(), O_RDONLY);
        if (::write(ready[1], "x", 1) != 1) ::_exit(2);
        ::pause();
        ::_exit(fd >= 0 ? 0 : 1);
    }
    ::close(ready[1]);
    char byte;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    bool inPlace = GetParam().strategy == Strategy::inPlace;
    EXPECT_EQ(reasonOf(FileStatus::read(copy())), inPlace ? std::nullopt : std::optional(SkipReason::inUse));
    EXPECT_EQ(FileStatus::read(copy()).inode, before.status.inode);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    test::writeFile(copy(), content);  // its own blocks again

    // With coordination the write lease refuses a copy this very process holds open.
    engine_.coordinate = true;
    int fd = ::open(copy().c_str(), O_RDONLY);
    EXPECT_EQ(reasonOf(FileStatus::read(copy())), SkipReason::inUse);
    ::close(fd);
    EXPECT_EQ(reasonOf(FileStatus::read(copy())), std::nullopt);
    EXPECT_TRUE(journal_->interrupted().empty());
}

TEST_P(CloneEngineOnVolume, OnlyLinksOfRootOrOfTheRunningUserAreFollowedOnTheWay) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs a link owned by another user";
    makePair(200000);
    // Another user's link in place of a folder: refused, saying so in a user's words.
    fs::create_directory_symlink(dir_, dir_ + "-theirs");
    ASSERT_EQ(::lchown((dir_ + "-theirs").c_str(), 4321, 4321), 0);
    std::string through = dir_ + "-theirs/copy.jpg";
    const std::string refusal = through + ": a folder on the way to it is a symbolic link now; nothing was "
                                          "changed (openat2: Too many levels of symbolic links)";
    try {
        engine_.replace(through, kept(), FileStatus::read(through));
        ADD_FAILURE() << "replaced through another user's link";
    } catch (const ReplaceError& error) {
        EXPECT_EQ(std::string(error.what()), refusal);
    }
    EXPECT_EQ(journal_->entries().back().detail, refusal);

    // The system's own links, and the running user's, name folders as the user knows them.
    fs::create_directory_symlink(dir_, dir_ + "-mine");
    std::string mine = dir_ + "-mine/copy.jpg";
    EXPECT_EQ(engine_.replace(mine, kept(), FileStatus::read(mine)), 200000);
    fs::remove(dir_ + "-theirs");
    fs::remove(dir_ + "-mine");
}

// Shared in place, a copy is finished the moment it is shared: its descriptors are let go then,
// so a batch of a thousand copies never needs a thousand open files, and what the journal records
// as the copy afterwards is the copy itself.
TEST_P(CloneEngineOnVolume, InPlaceBatchLetsEachCopyGoOnceShared) {
    if (GetParam().strategy != Strategy::inPlace) GTEST_SKIP() << "clone and swap holds each copy to its batch's end";
    constexpr int copies = 120;
    test::writeRandomFile(kept(), 8192, 7);
    std::vector<CloneEngine::Replacement> batch;
    for (int i = 0; i < copies; ++i) {
        std::string path = dir_ + "/copy" + std::to_string(i);
        test::writeRandomFile(path, 8192, 7);
        batch.push_back({path, kept(), FileStatus::read(path), "digest", std::nullopt});
    }
    struct rlimit saved {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit low = saved;
    low.rlim_cur = 64;  // far fewer than the two descriptors per copy a held batch would need
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    int replaced = 0;
    std::vector<std::string> errors;
    engine_.replace(batch, nullptr, [&](const CloneEngine::Replacement& r, const CloneEngine::Outcome& outcome) {
        if (!outcome.error) {
            ++replaced;
            return;
        }
        try {
            std::rethrow_exception(outcome.error);
        } catch (const std::exception& error) {
            errors.push_back(r.target + ": " + error.what());
        }
    });
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(replaced, copies) << (errors.empty() ? "" : errors.front());

    int recorded = 0;
    for (const auto& entry : journal_->entries()) {
        if (entry.event != JournalEntry::Event::replaced) continue;
        ++recorded;
        ASSERT_TRUE(entry.after) << entry.target;
        EXPECT_EQ(entry.after->status, FileStatus::read(entry.target)) << entry.target;
        ASSERT_TRUE(entry.before) << entry.target;
        EXPECT_EQ(entry.after->status.inode, entry.before->status.inode) << entry.target;
    }
    EXPECT_EQ(recorded, copies);
    EXPECT_TRUE(journal_->interrupted().empty());
}

INSTANTIATE_TEST_SUITE_P(Volumes, CloneEngineOnVolume,
                         ::testing::Values(Param{LoopVolume::Kind::btrfs, Strategy::inPlace},
                                           Param{LoopVolume::Kind::btrfs, Strategy::cloneAndSwap},
                                           Param{LoopVolume::Kind::xfs, Strategy::inPlace},
                                           Param{LoopVolume::Kind::xfs, Strategy::cloneAndSwap}),
                         [](const auto& info) {
                             return std::string(LoopVolume::kindName(info.param.kind)) +
                                    (info.param.strategy == Strategy::inPlace ? "_in_place" : "_clone_and_swap");
                         });

class CloneAndSwapTest : public CloneEngineOnVolume {};

TEST_P(CloneAndSwapTest, AFailureAtEveryStepLeavesTheCopyAsItWas) {
    for (int s = 0; s <= static_cast<int>(CloneEngine::Step::verified); ++s) {
        auto failing = static_cast<CloneEngine::Step>(s);
        SCOPED_TRACE(std::string(rawValue(failing)));
        makePair(300000);
        ASSERT_EQ(::mkdir((dir_ + "/sub").c_str(), 0755), 0);
        Facts before = factsOf(copy());
        auto folderBefore = FileTimes::read(dir_);
        engine_.fault = [&](CloneEngine::Step step, const std::string&) {
            if (step == failing) throw std::runtime_error("injected");
        };
        EXPECT_THROW(replace(), std::runtime_error);
        Facts after = factsOf(copy());
        EXPECT_EQ(after.content, before.content);
        EXPECT_EQ(after.status.inode, before.status.inode);
        EXPECT_EQ(after.status.mode, before.status.mode);
        EXPECT_EQ(after.times.modified, before.times.modified);
        EXPECT_EQ(after.attributes, before.attributes);
        EXPECT_EQ(after.acl, before.acl);
        EXPECT_EQ(FileTimes::read(dir_).modified, folderBefore.modified);
        EXPECT_FALSE(anyTemporaryIn(dir_));
        EXPECT_TRUE(journal_->interrupted().empty());
        EXPECT_EQ(journal_->entries().back().event, JournalEntry::Event::failed);
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
    }
}

TEST_P(CloneAndSwapTest, WritesBeforeAndAfterTheSwapWin) {
    makePair(300000);
    // Written between the clone and the swap: the swap never happens.
    engine_.fault = [&](CloneEngine::Step step, const std::string&) {
        if (step == CloneEngine::Step::metadataCopied) {
            struct timespec times[2] = {{0, UTIME_OMIT}, {1700000000, 0}};
            ::utimensat(AT_FDCWD, copy().c_str(), times, 0);
        }
    };
    EXPECT_EQ(skipOf([&] { replace(); }), SkipReason::changedSinceScan);
    EXPECT_FALSE(anyTemporaryIn(dir_));

    // Opened by a program after the first look and still open at the exchange: it would go on
    // writing to the replaced file, so the copy is left alone.
    int held = -1;
    engine_.fault = [&](CloneEngine::Step step, const std::string&) {
        if (step == CloneEngine::Step::metadataCopied) held = ::open(copy().c_str(), O_RDONLY);
    };
    uint64_t inode = FileStatus::read(copy()).inode;
    EXPECT_EQ(skipOf([&] { replace(); }), SkipReason::inUse);
    EXPECT_EQ(FileStatus::read(copy()).inode, inode);
    ::close(held);
    EXPECT_FALSE(anyTemporaryIn(dir_));

    // Written after the swap, to the replaced copy under its temporary name: it is swapped back.
    std::string written;
    engine_.fault = [&](CloneEngine::Step step, const std::string& temporary) {
        if (step == CloneEngine::Step::verified) {
            written = test::readFile(temporary);
            written[0] ^= 1;
            test::writeFile(temporary, written);
        }
    };
    EXPECT_EQ(skipOf([&] { replace(); }), SkipReason::changedDuringReplace);
    EXPECT_EQ(test::readFile(copy()), written);
    EXPECT_FALSE(anyTemporaryIn(dir_));
}

TEST_P(CloneAndSwapTest, ALeaseCoversOnlyItsOwnReplacementAndIsTakenAgainBeforeTheRemoval) {
    // Two copies in one batch; while the second is replaced, the first's replaced copy waits under
    // its temporary name. Another open of it must not wait for the whole batch to end.
    makePair(300000);
    test::writeRandomFile(dir_ + "/second.jpg", 300000, 41);
    engine_.coordinate = true;
    std::string firstTemporary;
    engine_.fault = [&](CloneEngine::Step step, const std::string& temporary) {
        if (step == CloneEngine::Step::verified && firstTemporary.empty()) firstTemporary = temporary;
    };
    int opened = -1;
    std::map<std::string, std::optional<SkipReason>> outcomes;
    std::vector<CloneEngine::Replacement> batch = {{copy(), kept(), FileStatus::read(copy()), "d", std::nullopt},
                                                   {dir_ + "/second.jpg", kept(), FileStatus::read(dir_ + "/second.jpg"),
                                                    "d", std::nullopt}};
    std::string before = test::readFile(copy());
    engine_.replace(
        batch,
        [&](const CloneEngine::Replacement& r) {
            if (r.target != copy()) opened = ::open(firstTemporary.c_str(), O_RDONLY | O_NONBLOCK);
            return true;
        },
        [&](const CloneEngine::Replacement& r, const CloneEngine::Outcome& outcome) {
            outcomes[r.target] = skipOf([&] {
                if (outcome.error) std::rethrow_exception(outcome.error);
            });
        });
    EXPECT_GE(opened, 0) << "the first copy's lease was still held: " << std::strerror(errno);
    // Open when it would have been removed: it goes back to its name instead.
    EXPECT_EQ(outcomes[copy()], SkipReason::changedDuringReplace);
    EXPECT_EQ(test::readFile(copy()), before);
    EXPECT_EQ(outcomes[dir_ + "/second.jpg"], std::nullopt);
    if (opened >= 0) ::close(opened);
    EXPECT_FALSE(anyTemporaryIn(dir_));
}

TEST_P(CloneAndSwapTest, LinuxAttributesAndCapabilitiesComeAlongOrTheCopyIsLeftAlone) {
    if (::geteuid() != 0) GTEST_SKIP() << "capabilities and the no-copy-on-write bit need root";
    makePair(300000);
    test::runCommandChecked({"chattr", "+A", "+S", copy()});
    test::runCommandChecked({"setcap", "cap_net_raw+ep", copy()});
    std::string capability = test::runCommandChecked({"getcap", copy()}).stdoutText;
    ASSERT_NE(capability.find("cap_net_raw"), std::string::npos);
    replace();
    std::string attributes = test::runCommandChecked({"lsattr", copy()}).stdoutText;
    EXPECT_NE(attributes.substr(0, attributes.find(' ')).find('A'), std::string::npos) << attributes;
    EXPECT_NE(attributes.substr(0, attributes.find(' ')).find('S'), std::string::npos) << attributes;
    EXPECT_EQ(test::runCommandChecked({"getcap", copy()}).stdoutText, capability);

    if (GetParam().kind != LoopVolume::Kind::btrfs) return;
    // No copy-on-write (set while empty, as Btrfs requires): the kernel refuses to share such a
    // file's blocks, in place or by clone, and the copy is left alone saying why.
    std::string nocow = dir_ + "/nocow.jpg";
    test::writeFile(nocow, "");
    test::runCommandChecked({"chattr", "+C", nocow});
    test::writeFile(nocow, test::readFile(kept()));
    for (Strategy strategy : {Strategy::inPlace, Strategy::cloneAndSwap}) {
        engine_.strategy = strategy;
        EXPECT_EQ(skipOf([&] { engine_.replace(nocow, kept(), FileStatus::read(nocow)); }),
                  SkipReason::noCopyOnWrite);
    }
}

// Every clone of a batch is made, unnamed, before the journal records their identities in one
// synced write; only then does any of them get a name. A copy written to while the others' clones
// were made is left alone with what was written, and the rest of the batch goes on.
TEST_P(CloneAndSwapTest, ABatchJournalsEveryCloneBeforeAnyGetsANameAndLeavesACopyChangedMeanwhile) {
    constexpr int copies = 4;
    test::writeRandomFile(kept(), 100000, 21);
    std::vector<CloneEngine::Replacement> batch;
    for (int i = 0; i < copies; ++i) {
        std::string path = dir_ + "/copy" + std::to_string(i);
        test::writeRandomFile(path, 100000, 21);
        batch.push_back({path, kept(), FileStatus::read(path), "digest", std::nullopt});
    }
    const std::string written = test::randomBytes(100000, 99);
    int built = 0;
    bool looked = false;
    engine_.fault = [&](CloneEngine::Step step, const std::string&) {
        // The last copy's clone is made: a program writes into the first copy.
        if (step == CloneEngine::Step::metadataCopied && ++built == copies) test::writeFile(batch[0].target, written);
        if (step != CloneEngine::Step::compared || looked) return;
        looked = true;
        // The first clone to be named: every clone's identity is in the journal already, and no
        // other clone has a name yet.
        std::set<std::string> identified;
        for (const auto& entry : journal_->entries()) {
            if (entry.event == JournalEntry::Event::started && entry.after) identified.insert(entry.target);
        }
        EXPECT_EQ(identified.size(), static_cast<size_t>(copies));
        int named = 0;
        for (const auto& entry : fs::directory_iterator(dir_)) named += CloneEngine::isTemporary(entry.path());
        EXPECT_LE(named, 1);
    };
    std::map<std::string, std::string> outcome;
    engine_.replace(batch, nullptr, [&](const CloneEngine::Replacement& r, const CloneEngine::Outcome& o) {
        if (!o.error) {
            outcome[r.target] = "replaced";
            return;
        }
        try {
            std::rethrow_exception(o.error);
        } catch (const Skip& skip) {
            outcome[r.target] = std::string(rawValue(skip.reason));
        } catch (const std::exception& error) {
            outcome[r.target] = error.what();
        }
    });
    EXPECT_TRUE(looked);
    EXPECT_EQ(outcome[batch[0].target], "changedSinceScan");
    EXPECT_EQ(test::readFile(batch[0].target), written);
    EXPECT_EQ(FileStatus::read(batch[0].target).inode, batch[0].expected.inode);
    for (int i = 1; i < copies; ++i) {
        EXPECT_EQ(outcome[batch[i].target], "replaced") << batch[i].target;
        EXPECT_EQ(test::readFile(batch[i].target), test::readFile(kept())) << batch[i].target;
    }
    EXPECT_FALSE(anyTemporaryIn(dir_));
    EXPECT_TRUE(journal_->interrupted().empty());
}

INSTANTIATE_TEST_SUITE_P(Volumes, CloneAndSwapTest,
                         ::testing::Values(Param{LoopVolume::Kind::btrfs, Strategy::cloneAndSwap},
                                           Param{LoopVolume::Kind::xfs, Strategy::cloneAndSwap}),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param.kind)); });

TEST(CloneEngineTest, LeftoversArePutRight) {
    test::TempDir dir;
    const std::string uuid = "0F0E8C9B-3D63-4E1A-9C9B-5E9A7E0C1D2F";
    std::string temporary = dir.path(".photo.jpg.dedup-" + uuid);
    test::writeFile(temporary, "same");
    EXPECT_EQ(CloneEngine::recoverLeftover(temporary), CloneEngine::Leftover::restored);
    EXPECT_EQ(test::readFile(dir.path("photo.jpg")), "same");

    test::writeFile(temporary, "same");
    EXPECT_EQ(CloneEngine::recoverLeftover(temporary), CloneEngine::Leftover::removed);
    EXPECT_FALSE(std::filesystem::exists(temporary));

    test::writeFile(temporary, "different");
    EXPECT_EQ(CloneEngine::recoverLeftover(temporary), CloneEngine::Leftover::kept);
    EXPECT_EQ(test::readFile(temporary), "different");
    EXPECT_EQ(test::readFile(dir.path("photo.jpg")), "same");

    // Killed between creating the clone and filling it: an empty file, which goes.
    test::writeFile(temporary, "");
    EXPECT_EQ(CloneEngine::recoverLeftover(temporary), CloneEngine::Leftover::removed);
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_EQ(test::readFile(dir.path("photo.jpg")), "same");

    test::writeFile(dir.path(".dedup-" + uuid), "x");
    EXPECT_EQ(CloneEngine::recoverLeftover(dir.path(".dedup-" + uuid)), CloneEngine::Leftover::kept);
    EXPECT_TRUE(std::filesystem::exists(dir.path(".dedup-" + uuid)));
}

TEST(CloneEngineTest, FileThatVanishedSinceTheScanIsSkippedNotFailed) {
    test::TempDir dir, data;
    Journal journal(data.path("journal.jsonl"));
    CloneEngine engine;
    engine.journal = &journal;
    const std::string kept = dir.path("kept.jpg"), copy = dir.path("copy.jpg");
    test::writeRandomFile(kept, 5000, 3);
    test::writeRandomFile(copy, 5000, 3);
    const FileStatus scanned = FileStatus::read(copy);
    auto reasonOf = [&] {
        try {
            engine.replace(copy, kept, scanned, "digest");
        } catch (const Skip& skip) {
            return std::optional<SkipReason>(skip.reason);
        }
        return std::optional<SkipReason>();
    };

    std::filesystem::remove(copy);
    EXPECT_EQ(reasonOf(), SkipReason::changedSinceScan);
    test::writeRandomFile(copy, 5000, 3);
    std::filesystem::remove(kept);  // the copy to keep went away instead
    EXPECT_EQ(reasonOf(), SkipReason::changedSinceScan);
    for (const auto& entry : journal.entries()) EXPECT_NE(entry.event, JournalEntry::Event::failed) << entry.detail.value_or("");
}

}  // namespace
}  // namespace dedup
