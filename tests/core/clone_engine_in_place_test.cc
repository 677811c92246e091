// Copies of one group shared in place by one kernel call: each copy keeps its own checks, answer,
// verification and journal entries, on a real Btrfs and a real XFS.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "clone_engine.h"
#include "journal.h"
#include "metadata.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;
using Step = CloneEngine::Step;

struct Outcomes {
    std::map<std::string, int64_t> freed;              // target -> freed bytes
    std::map<std::string, std::string> refused;        // target -> skip reason or error text
};

class InPlaceGroupTest : public ::testing::TestWithParam<LoopVolume::Kind> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam());
        dir_ = test::freshFolder(test::sharedVolume(GetParam()), "group");
        journal_ = std::make_unique<Journal>(data_.path("journal.jsonl"));
        engine_.journal = journal_.get();
        engine_.strategy = CloneEngine::Strategy::inPlace;
    }
    std::string kept() const { return dir_ + "/kept.raw"; }
    std::string copy(int i) const { return dir_ + "/copy" + std::to_string(i) + ".raw"; }
    CloneEngine::Replacement replacementOf(const std::string& target) const {
        return {target, kept(), FileStatus::read(target), "digest", FileStatus::read(kept())};
    }
    Outcomes run(const std::vector<CloneEngine::Replacement>& batch) {
        Outcomes outcomes;
        engine_.replace(batch, nullptr, [&](const CloneEngine::Replacement& r, const CloneEngine::Outcome& o) {
            if (!o.error) {
                outcomes.freed[r.target] = o.freed;
                return;
            }
            try {
                std::rethrow_exception(o.error);
            } catch (const Skip& skip) {
                outcomes.refused[r.target] = std::string(rawValue(skip.reason));
            } catch (const std::exception& error) {
                outcomes.refused[r.target] = error.what();
            }
        });
        return outcomes;
    }
    // The closing entry of every copy, by target.
    std::map<std::string, JournalEntry> closing() const {
        std::map<std::string, JournalEntry> found;
        for (const auto& entry : journal_->entries()) {
            if (entry.event != JournalEntry::Event::started) found[entry.target] = entry;
        }
        return found;
    }

    test::TempDir data_;
    std::string dir_;
    std::unique_ptr<Journal> journal_;
    CloneEngine engine_;
};

// One call for the group: every copy is checked before any is shared. A copy that differs from the
// kept file by one byte is refused by the kernel's comparison and left exactly as it was, while the
// others of the same call are shared; a copy that already shares the kept file's blocks is left
// alone, whether the scan said so or the engine had to read it.
TEST_P(InPlaceGroupTest, EachCopyOfOneCallGetsItsOwnAnswer) {
    constexpr int64_t size = 300000;
    test::writeRandomFile(kept(), size, 5);
    for (int i = 0; i < 6; ++i) test::writeRandomFile(copy(i), size, 5);
    std::string differing = test::readFile(copy(2));
    differing[size - 10] ^= 1;
    test::writeFile(copy(2), differing);
    test::reflinkCopy(kept(), copy(4));
    test::reflinkCopy(kept(), copy(5));
    const auto differentBefore = FileStatus::read(copy(2));
    const auto attributesBefore = XAttr::all(copy(2));

    std::vector<CloneEngine::Replacement> batch;
    for (int i = 0; i < 6; ++i) batch.push_back(replacementOf(copy(i)));
    // The scan knew copy 5 shares the kept file's blocks: nothing needs to be read to leave it.
    batch[5].clones = CloneInfo::read(copy(5));
    batch[5].keptClones = CloneInfo::read(kept());

    std::vector<Step> steps;
    engine_.fault = [&](Step step, const std::string&) { steps.push_back(step); };
    Outcomes outcomes = run(batch);

    EXPECT_EQ(outcomes.refused[copy(2)], "contentDiffers");
    EXPECT_EQ(outcomes.refused[copy(4)], "alreadyShared");
    EXPECT_EQ(outcomes.refused[copy(5)], "alreadyShared");
    for (int i : {0, 1, 3}) {
        EXPECT_EQ(outcomes.freed[copy(i)], size) << copy(i);
        EXPECT_EQ(CloneInfo::read(copy(i))->cloneID, CloneInfo::read(kept())->cloneID) << copy(i);
        EXPECT_EQ(test::readFile(copy(i)), test::readFile(kept())) << copy(i);
    }
    EXPECT_EQ(outcomes.freed.size() + outcomes.refused.size(), 6u);
    // Every copy that went to the kernel was checked before the first was shared: one call.
    ASSERT_FALSE(steps.empty());
    size_t firstShared = 0;
    while (firstShared < steps.size() && steps[firstShared] == Step::checked) ++firstShared;
    EXPECT_EQ(firstShared, 4u) << "copies 0, 1, 2 and 3 go to the kernel together";

    // The refused copy: same inode, bytes, dates and attributes, and its own blocks.
    EXPECT_EQ(test::readFile(copy(2)), differing);
    EXPECT_EQ(FileStatus::read(copy(2)), differentBefore);
    EXPECT_EQ(XAttr::all(copy(2)), attributesBefore);
    EXPECT_NE(CloneInfo::read(copy(2))->cloneID, CloneInfo::read(kept())->cloneID);

    // One started and one closing entry per copy, each with the copy's own outcome.
    auto closed = closing();
    EXPECT_EQ(closed.size(), 6u);
    EXPECT_EQ(closed[copy(2)].event, JournalEntry::Event::skipped);
    EXPECT_EQ(closed[copy(2)].detail, "contentDiffers");
    for (int i : {0, 1, 3}) {
        ASSERT_EQ(closed[copy(i)].event, JournalEntry::Event::replaced) << copy(i);
        ASSERT_TRUE(closed[copy(i)].after && closed[copy(i)].before) << copy(i);
        EXPECT_EQ(closed[copy(i)].after->status, closed[copy(i)].before->status) << copy(i);
        EXPECT_EQ(closed[copy(i)].freedBytes, size) << copy(i);
    }
    EXPECT_TRUE(journal_->interrupted().empty());
}

// A copy changed after it was looked at, while the rest of its group is still being looked at,
// is left alone; so is every copy when the kept file changes; the others are shared.
TEST_P(InPlaceGroupTest, ACopyOrKeptFileChangedBeforeTheCallIsLeftAlone) {
    constexpr int64_t size = 65536;
    test::writeRandomFile(kept(), size, 9);
    for (int i = 0; i < 3; ++i) test::writeRandomFile(copy(i), size, 9);
    std::vector<CloneEngine::Replacement> batch;
    for (int i = 0; i < 3; ++i) batch.push_back(replacementOf(copy(i)));
    int checked = 0;
    const std::string changed = test::randomBytes(size, 77);
    engine_.fault = [&](Step step, const std::string&) {
        // When the last copy is checked, the first has been looked at long before: a program
        // writes new bytes into it now.
        if (step == Step::checked && ++checked == 3) test::writeFile(copy(0), changed);
    };
    Outcomes outcomes = run(batch);
    EXPECT_EQ(outcomes.refused[copy(0)], "changedSinceScan");
    EXPECT_EQ(test::readFile(copy(0)), changed);
    EXPECT_EQ(outcomes.freed.count(copy(1)), 1u);
    EXPECT_EQ(outcomes.freed.count(copy(2)), 1u);

    // The kept file is rewritten (same bytes, so only its identity tells) after the copies were
    // looked at: none of them is shared with a kept file the scan did not see.
    for (int i = 0; i < 3; ++i) test::writeRandomFile(copy(i), size, 9);
    batch.clear();
    for (int i = 0; i < 3; ++i) batch.push_back(replacementOf(copy(i)));
    checked = 0;
    engine_.fault = [&](Step step, const std::string&) {
        if (step == Step::checked && ++checked == 3) test::writeRandomFile(kept(), size, 9);
    };
    outcomes = run(batch);
    EXPECT_TRUE(outcomes.freed.empty());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(outcomes.refused[copy(i)], "changedSinceScan") << copy(i);
    EXPECT_TRUE(journal_->interrupted().empty());
}

// Blocks shared behind the scan's back (the scan said the copy had its own) are shared again,
// which changes nothing about the copy.
TEST_P(InPlaceGroupTest, ACopySharedSinceTheScanIsSharedAgainUnharmed) {
    constexpr int64_t size = 200000;
    test::writeRandomFile(kept(), size, 3);
    test::writeRandomFile(copy(0), size, 3);
    auto replacement = replacementOf(copy(0));
    replacement.clones = CloneInfo::read(copy(0));
    replacement.keptClones = CloneInfo::read(kept());
    ASSERT_EQ(engine_.replace(copy(0), kept(), FileStatus::read(copy(0))), size);
    const auto status = FileStatus::read(copy(0));
    replacement.expected = status;
    Outcomes outcomes = run({replacement});
    EXPECT_EQ(outcomes.freed.count(copy(0)), 1u) << outcomes.refused[copy(0)];
    EXPECT_EQ(FileStatus::read(copy(0)), status);
    EXPECT_EQ(test::readFile(copy(0)), test::readFile(kept()));
    EXPECT_EQ(CloneInfo::read(copy(0))->cloneID, CloneInfo::read(kept())->cloneID);
}

// Killed in the middle of a group's call: every announced copy is either untouched or shares the
// kept file's blocks, never anything else, and the recovery closes every entry.
TEST_P(InPlaceGroupTest, AKilledBatchLeavesEveryCopyWholeAndRecovers) {
    constexpr int copies = 12;
    constexpr int64_t size = 100000;
    test::writeRandomFile(kept(), size, 11);
    std::vector<CloneEngine::Replacement> batch;
    for (int i = 0; i < copies; ++i) {
        test::writeRandomFile(copy(i), size, 11);
        batch.push_back(replacementOf(copy(i)));
    }
    std::vector<FileStatus> before;
    for (int i = 0; i < copies; ++i) before.push_back(FileStatus::read(copy(i)));
    pid_t child = ::fork();
    if (child == 0) {
        int shared = 0;
        engine_.fault = [&](Step step, const std::string&) {
            if (step == Step::cloned && ++shared == 2) ::_exit(9);
        };
        run(batch);
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 9);
    // Every copy was announced before the first was shared; the one finished before the kill is
    // closed, the rest are open.
    size_t started = 0;
    for (const auto& entry : journal_->entries()) started += entry.event == JournalEntry::Event::started;
    EXPECT_EQ(started, static_cast<size_t>(copies));
    EXPECT_EQ(journal_->interrupted().size() + closing().size(), static_cast<size_t>(copies));
    EXPECT_GE(journal_->interrupted().size(), static_cast<size_t>(copies - 1));
    auto recovery = journal_->recover([](const std::string& path) {
        ADD_FAILURE() << "nothing is left over when sharing in place: " << path;
        return std::string("kept");
    });
    EXPECT_TRUE(recovery.stuck.empty());
    EXPECT_TRUE(journal_->interrupted().empty());
    const std::string content = test::readFile(kept());
    for (int i = 0; i < copies; ++i) {
        EXPECT_EQ(test::readFile(copy(i)), content) << copy(i);
        EXPECT_EQ(FileStatus::read(copy(i)), before[i]) << copy(i);
    }
    // A new run finishes what the killed one did not.
    batch.clear();
    for (int i = 0; i < copies; ++i) batch.push_back(replacementOf(copy(i)));
    Outcomes outcomes = run(batch);
    for (int i = 0; i < copies; ++i) {
        EXPECT_EQ(CloneInfo::read(copy(i))->cloneID, CloneInfo::read(kept())->cloneID) << copy(i);
    }
    EXPECT_EQ(outcomes.freed.size() + outcomes.refused.size(), static_cast<size_t>(copies));
}

INSTANTIATE_TEST_SUITE_P(Volumes, InPlaceGroupTest, ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

}  // namespace
}  // namespace dedup
