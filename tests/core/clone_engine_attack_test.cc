// The clone engine against what else runs at the same time: a user swapping a folder for a link, a
// program saving over the copy, a program writing through a descriptor it opened before the
// exchange while the engine is killed. Each case pauses the engine at a step through its fault hook,
// where the real race would be a matter of luck.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>

#include "clone_engine.h"
#include "journal.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using test::LoopVolume;
using Step = CloneEngine::Step;
using Strategy = CloneEngine::Strategy;

constexpr Step everyStep[] = {Step::checked,  Step::cloned,  Step::metadataCopied,
                              Step::compared, Step::swapped, Step::verified};

// Everything below a folder: path -> (inode, content, mode), and the folder's own dates.
struct Tree {
    std::map<std::string, std::tuple<uint64_t, std::string, uint32_t>> files;
    Timestamp modified;
    bool operator==(const Tree&) const = default;
};

Tree treeOf(const std::string& folder) {
    Tree tree;
    tree.modified = FileTimes::read(folder).modified;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_symlink() || !entry.is_regular_file()) continue;
        auto status = FileStatus::read(entry.path());
        tree.files[entry.path()] = {status.inode, test::readFile(entry.path()), status.mode};
    }
    return tree;
}

std::vector<std::string> filesHolding(const std::string& folder, const std::string& bytes) {
    std::vector<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_symlink() || !entry.is_regular_file()) continue;
        if (test::readFile(entry.path()) == bytes) found.push_back(entry.path());
    }
    return found;
}

std::vector<std::string> leftoversIn(const std::string& folder) {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (CloneEngine::isTemporary(entry.path())) found.push_back(entry.path());
    }
    return found;
}

struct Param {
    LoopVolume::Kind kind;
    Strategy strategy;
};

class EngineUnderAttack : public ::testing::TestWithParam<Param> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam().kind);
        if (::geteuid() != 0) GTEST_SKIP() << "a root-run reclaim is what is attacked";
        volume_ = test::sharedVolume(GetParam().kind);
        dir_ = test::freshFolder(volume_, "attack");
        journal_ = std::make_unique<Journal>(data_.path("journal.jsonl"));
        engine_.journal = journal_.get();
        engine_.strategy = GetParam().strategy;
    }
    int64_t replace(const std::string& target, const std::string& source) {
        return engine_.replace(target, source, FileStatus::read(target), "digest");
    }

    test::TempDir data_;
    LoopVolume* volume_ = nullptr;
    std::string dir_;
    std::unique_ptr<Journal> journal_;
    CloneEngine engine_;
};

// A user owns a folder holding a copy; a root-only folder beside it holds a secret of the same
// name and size. At each step the user swaps their folder (or the kept file's) for a link to the
// secret one. Nothing outside may be created, changed or made readable, at any step.
TEST_P(EngineUnderAttack, AFolderSwappedForALinkAtAnyStepLeadsNothingOutside) {
    const std::string secretBytes = test::randomBytes(200000, 7);
    const std::string sharedBytes = test::randomBytes(200000, 8);
    for (bool swapKeptFolder : {false, true}) {
        for (Step at : everyStep) {
            bool inPlaceStep = at == Step::checked || at == Step::cloned || at == Step::verified;
            if (GetParam().strategy == Strategy::inPlace && !inPlaceStep) continue;
            SCOPED_TRACE(std::string(rawValue(at)) + (swapKeptFolder ? " kept folder" : " copy folder"));
            std::string base = dir_ + "/" + std::string(rawValue(at)) + (swapKeptFolder ? "-kept" : "-copy");
            std::string secret = base + "/secret", user = base + "/user", swapped = user + "/photos";
            std::string kept = (swapKeptFolder ? swapped : base + "/kept") + "/a.jpg";
            std::string copy = (swapKeptFolder ? base + "/other" : swapped) + "/a.jpg";
            test::writeFile(secret + "/a.jpg", secretBytes);
            ASSERT_EQ(::chmod(secret.c_str(), 0700), 0);
            test::writeFile(kept, sharedBytes);
            test::writeFile(copy, sharedBytes);
            ASSERT_EQ(::chmod(copy.c_str(), 0644), 0);
            ASSERT_EQ(::chown(user.c_str(), 4321, 4321), 0);
            ASSERT_EQ(::chown(swapped.c_str(), 4321, 4321), 0);
            const Tree secretBefore = treeOf(secret);

            bool swappedYet = false;
            std::vector<std::string> leaks;
            engine_.fault = [&](Step step, const std::string&) {
                if (step == at && !swappedYet) {
                    fs::rename(swapped, swapped + ".real");
                    fs::create_directory_symlink(secret, swapped);
                    // The user's own link.
                    if (::lchown(swapped.c_str(), 4321, 4321) != 0) throw std::runtime_error("lchown");
                    swappedYet = true;
                }
                // Readable by the user: anything in their folders that holds the secret.
                for (const auto& leak : filesHolding(user, secretBytes)) leaks.push_back(leak);
                if (swapKeptFolder) {
                    for (const auto& leak : filesHolding(base + "/other", secretBytes)) leaks.push_back(leak);
                }
            };
            try {
                replace(copy, kept);
            } catch (const std::exception&) {
                // Refusing is right; what matters is what it touched.
            }
            EXPECT_TRUE(swappedYet);
            EXPECT_EQ(treeOf(secret), secretBefore);
            EXPECT_TRUE(leaks.empty()) << leaks.front();
            EXPECT_TRUE(filesHolding(user, secretBytes).empty());
            EXPECT_TRUE(journal_->interrupted().empty());
        }
    }
}

// A program that saves by writing a new file and renaming it over the copy, at the moment the
// engine undoes a failed replacement or finishes one whose replaced copy was written to. The save
// is the newest version: it stays at the copy's path, and nothing that held data is removed.
TEST_P(EngineUnderAttack, ASaveOverTheCopyWhileItIsPutBackIsNeverRemoved) {
    if (GetParam().strategy != Strategy::cloneAndSwap) GTEST_SKIP() << "in place nothing is put back";
    const std::string bytes = test::randomBytes(300000, 9);
    const std::string saved = test::randomBytes(1000, 10);
    auto saveOver = [&](const std::string& path) {
        test::writeFile(dir_ + "/.save", saved);
        fs::rename(dir_ + "/.save", path);
    };
    // The undo after a failed verification.
    test::writeFile(dir_ + "/kept.jpg", bytes);
    test::writeFile(dir_ + "/copy.jpg", bytes);
    engine_.fault = [&](Step step, const std::string&) {
        if (step != Step::swapped) return;
        saveOver(dir_ + "/copy.jpg");
        throw std::runtime_error("injected");
    };
    EXPECT_THROW(replace(dir_ + "/copy.jpg", dir_ + "/kept.jpg"), std::runtime_error);
    EXPECT_EQ(test::readFile(dir_ + "/copy.jpg"), saved);
    EXPECT_EQ(filesHolding(dir_, bytes).size(), 2u) << "the replaced copy stays beside it";
    EXPECT_TRUE(leftoversIn(dir_).empty());

    // Finishing, after the replaced copy was written to: it would be put back over the save.
    fs::remove_all(dir_);
    test::writeFile(dir_ + "/kept.jpg", bytes);
    test::writeFile(dir_ + "/copy.jpg", bytes);
    std::string written = bytes + "appended";
    engine_.fault = [&](Step step, const std::string& temporary) {
        if (step != Step::verified) return;
        test::writeFile(temporary, written);
        saveOver(dir_ + "/copy.jpg");
    };
    EXPECT_THROW(replace(dir_ + "/copy.jpg", dir_ + "/kept.jpg"), Skip);
    EXPECT_EQ(test::readFile(dir_ + "/copy.jpg"), saved);
    EXPECT_EQ(filesHolding(dir_, written).size(), 1u) << "the written copy stays beside it";
    EXPECT_TRUE(leftoversIn(dir_).empty());
    EXPECT_TRUE(journal_->interrupted().empty());
}

// The engine is killed after the exchange while a program writes to the replaced copy through a
// descriptor it opened before; recovery must leave whichever file was written last at the path.
TEST_P(EngineUnderAttack, RecoveryAfterAKillKeepsWhatAProgramWroteLast) {
    if (GetParam().strategy != Strategy::cloneAndSwap) GTEST_SKIP() << "in place leaves nothing to recover";
    const std::string bytes = test::randomBytes(300000, 11);
    enum class Write { append, truncate, both };
    for (Write write : {Write::append, Write::truncate, Write::both}) {
        SCOPED_TRACE(static_cast<int>(write));
        fs::remove_all(dir_);
        test::writeFile(dir_ + "/kept.jpg", bytes);
        test::writeFile(dir_ + "/copy.jpg", bytes);
        const std::string copy = dir_ + "/copy.jpg";
        FileStatus expected = FileStatus::read(copy);
        int paused[2];
        ASSERT_EQ(::pipe(paused), 0);
        pid_t child = ::fork();
        if (child == 0) {
            int old = -1;
            engine_.fault = [&](Step step, const std::string&) {
                // Opened in the last instant before the exchange, after the engine's last look.
                if (step == Step::compared) old = ::open(copy.c_str(), O_RDWR);
                if (step != Step::verified) return;
                if (write == Write::truncate) {
                    if (::ftruncate(old, 0) != 0) ::_exit(2);
                } else if (::pwrite(old, "tail", 4, static_cast<off_t>(bytes.size())) != 4) {
                    ::_exit(2);
                }
                if (write == Write::both) {
                    int now = ::open(copy.c_str(), O_WRONLY | O_APPEND);
                    if (now < 0 || ::write(now, "path", 4) != 4) ::_exit(2);
                }
                if (::write(paused[1], "x", 1) != 1) ::_exit(2);
                ::pause();
            };
            try {
                engine_.replace(copy, dir_ + "/kept.jpg", expected);
            } catch (...) {
            }
            ::_exit(1);
        }
        ::close(paused[1]);
        char byte = 0;
        ASSERT_EQ(::read(paused[0], &byte, 1), 1) << "the engine reached the step";
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        ::close(paused[0]);

        auto interrupted = journal_->interrupted();
        ASSERT_EQ(interrupted.size(), 1u);
        CloneEngine::Recovered recovered;
        journal_->recoverInterrupted([&](const std::string&) {
            recovered = CloneEngine::recoverLeftover(interrupted.front());
            return recovered.detail();
        });
        EXPECT_TRUE(leftoversIn(dir_).empty());
        if (write == Write::both) {
            EXPECT_EQ(recovered.outcome, CloneEngine::Leftover::kept);
            ASSERT_TRUE(recovered.keptBeside);
            EXPECT_EQ(test::readFile(copy), bytes + "path");
            EXPECT_EQ(test::readFile(*recovered.keptBeside), bytes + "tail");
        } else {
            EXPECT_EQ(test::readFile(copy), write == Write::truncate ? "" : bytes + "tail");
            EXPECT_EQ(recovered.outcome, CloneEngine::Leftover::restored);
            EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 2);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Volumes, EngineUnderAttack,
                         ::testing::Values(Param{LoopVolume::Kind::btrfs, Strategy::inPlace},
                                           Param{LoopVolume::Kind::btrfs, Strategy::cloneAndSwap},
                                           Param{LoopVolume::Kind::xfs, Strategy::cloneAndSwap}),
                         [](const auto& info) {
                             return std::string(LoopVolume::kindName(info.param.kind)) +
                                    (info.param.strategy == Strategy::inPlace ? "_in_place" : "_clone_and_swap");
                         });

}  // namespace
}  // namespace dedup
