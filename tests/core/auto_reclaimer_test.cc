// The automatic reclaimer on a real Btrfs volume, with time moved by hand, so that "quiet for the
// quiet period" is decided by the test and not by how busy the machine is.
#include "auto_reclaimer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "journal.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

bool shareBlocks(const std::string& a, const std::string& b) {
    auto x = CloneInfo::read(a), y = CloneInfo::read(b);
    return x && y && x->cloneID == y->cloneID;
}

class AutoReclaimerTest : public ::testing::Test {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(test::LoopVolume::Kind::btrfs);
        dir_ = test::freshFolder(test::sharedVolume(test::LoopVolume::Kind::btrfs), "auto");
        journal_ = std::make_unique<Journal>(data_.path("journal.jsonl"));
    }

    std::unique_ptr<AutoReclaimer> make(std::vector<std::string> roots, double quietPeriod,
                                        std::function<bool()> mayRun = [] { return true; }) {
        DuplicateFinder finder;
        finder.options.minimumSize = 1;
        Reclaimer reclaimer;
        reclaimer.engine.journal = journal_.get();
        auto automatic = std::make_unique<AutoReclaimer>(
            std::move(roots), std::move(finder), std::move(reclaimer), [] { return Selection{}; }, quietPeriod,
            std::move(mayRun), [this](const ReclaimSummary& summary) {
                std::lock_guard lock(mutex_);
                summaries_.push_back(summary);
            });
        automatic->now = [this] { return start_ + std::chrono::nanoseconds(elapsed_.load()); };
        return automatic;
    }
    void advance(std::chrono::seconds by) { elapsed_ += std::chrono::nanoseconds(by).count(); }
    std::vector<ReclaimSummary> summaries() {
        std::lock_guard lock(mutex_);
        return summaries_;
    }

    test::TempDir data_;
    std::string dir_;
    std::unique_ptr<Journal> journal_;
    const AutoReclaimer::Clock::time_point start_ = AutoReclaimer::Clock::now();
    std::atomic<int64_t> elapsed_{0};
    std::mutex mutex_;
    std::vector<ReclaimSummary> summaries_;
};

TEST_F(AutoReclaimerTest, NewCopyWaitsUntilItsFolderIsQuietAndWritesRestartTheWait) {
    test::writeRandomFile(dir_ + "/a.jpg", 200000, 1);
    auto automatic = make({dir_}, 100);
    automatic->start();
    automatic->tickNow();  // the first pass: nothing to reclaim, so nothing is reported
    EXPECT_TRUE(summaries().empty());

    test::writeRandomFile(dir_ + "/b.jpg", 200000, 1);
    // Asking for the pending folders takes in the events queued so far, at the clock's present time.
    EXPECT_EQ(automatic->pendingFolders(), std::vector<std::string>{dir_});
    advance(60s);
    automatic->tickNow();
    EXPECT_FALSE(shareBlocks(dir_ + "/a.jpg", dir_ + "/b.jpg"));

    // Written again 60 s in: the 100 s start over from here.
    test::writeRandomFile(dir_ + "/b.jpg", 200000, 1);
    automatic->pendingFolders();
    advance(60s);
    automatic->tickNow();
    EXPECT_FALSE(shareBlocks(dir_ + "/a.jpg", dir_ + "/b.jpg"));

    // The engine's own temporary names wake nothing.
    test::writeFile(dir_ + "/.b.jpg.dedup-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0", "x");
    fs::remove(dir_ + "/.b.jpg.dedup-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0");
    EXPECT_EQ(automatic->pendingFolders(), std::vector<std::string>{dir_});

    advance(41s);
    automatic->tickNow();
    EXPECT_TRUE(shareBlocks(dir_ + "/a.jpg", dir_ + "/b.jpg"));
    ASSERT_EQ(summaries().size(), 1u);
    EXPECT_EQ(summaries()[0].replaced, 1);
    EXPECT_EQ(summaries()[0].freedBytes, 200000);
    EXPECT_TRUE(automatic->pendingFolders().empty());

    // Reclaiming made no work of its own: a later pass finds nothing and says nothing.
    advance(200s);
    automatic->tickNow();
    EXPECT_EQ(summaries().size(), 1u);
}

TEST_F(AutoReclaimerTest, CancelledStartIndexesNothingAndRunsNoPass) {
    // What a request to stop during a long first index comes to: the index is left where it is and
    // no pass follows, so start() returns without reading the rest of the tree.
    test::writeRandomFile(dir_ + "/a.jpg", 200000, 4);
    test::writeRandomFile(dir_ + "/b.jpg", 200000, 4);
    auto automatic = make({dir_}, 100);
    automatic->cancel();
    automatic->start();
    EXPECT_EQ(automatic->indexedFiles(), 0u);
    automatic->tickNow();
    EXPECT_TRUE(summaries().empty());
    EXPECT_FALSE(shareBlocks(dir_ + "/a.jpg", dir_ + "/b.jpg"));
}

TEST_F(AutoReclaimerTest, ChangesWaitForMayRunAndComeBackInTheUsersSpelling) {
    // Already there before the start: the first allowed pass takes them.
    test::writeRandomFile(dir_ + "/old-1.jpg", 100000, 2);
    test::writeRandomFile(dir_ + "/old-2.jpg", 100000, 2);
    fs::create_directories(dir_ + "/sub");
    test::writeRandomFile(dir_ + "/sub/a.jpg", 150000, 3);
    // The user names the folder through a link; the kernel reports where it really is.
    // The link is another user's: a root-run engine never follows such a link on its own.
    const std::string link = data_.path("photos");
    fs::create_directory_symlink(dir_, link);
    ASSERT_EQ(::lchown(link.c_str(), 65534, 65534), 0);

    std::atomic<bool> allowed{false};
    auto automatic = make({link}, 10, [&] { return allowed.load(); });
    automatic->start();
    EXPECT_EQ(automatic->indexedFiles(), 3u);

    test::writeRandomFile(dir_ + "/sub/b.jpg", 150000, 3);
    fs::create_directories(dir_ + "/new");
    test::writeRandomFile(dir_ + "/new/c.jpg", 150000, 3);  // a folder made after the start is watched too
    test::writeFile(dir_ + "/gone.txt", "brief");
    fs::remove(dir_ + "/gone.txt");  // names nothing that exists: its folder is what changed
    EXPECT_EQ(automatic->pendingFolders(), (std::vector<std::string>{link, link + "/new", link + "/sub"}));

    advance(20s);
    automatic->tickNow();
    EXPECT_FALSE(shareBlocks(dir_ + "/sub/a.jpg", dir_ + "/sub/b.jpg"));
    EXPECT_FALSE(shareBlocks(dir_ + "/old-1.jpg", dir_ + "/old-2.jpg"));
    EXPECT_EQ(automatic->pendingFolders().size(), 3u);

    allowed = true;
    automatic->tickNow();
    EXPECT_TRUE(shareBlocks(dir_ + "/sub/a.jpg", dir_ + "/sub/b.jpg"));
    EXPECT_TRUE(shareBlocks(dir_ + "/sub/a.jpg", dir_ + "/new/c.jpg"));
    EXPECT_TRUE(shareBlocks(dir_ + "/old-1.jpg", dir_ + "/old-2.jpg"));
    EXPECT_TRUE(automatic->pendingFolders().empty());
    EXPECT_EQ(automatic->indexedFiles(), 5u);
    ASSERT_EQ(summaries().size(), 1u);
    EXPECT_EQ(summaries()[0].replaced, 3);

    // The journal names the files where they are, as a manual reclaim of the same root does.
    for (const auto& entry : journal_->entries()) {
        EXPECT_TRUE(entry.target.starts_with(dir_ + "/")) << entry.target;
        EXPECT_NE(entry.event, JournalEntry::Event::failed) << entry.detail.value_or("");
    }

    // A removed folder leaves the index with its files.
    fs::remove_all(dir_ + "/new");
    automatic->pendingFolders();
    advance(20s);
    automatic->tickNow();
    EXPECT_EQ(automatic->indexedFiles(), 4u);
}

TEST_F(AutoReclaimerTest, SingleFileRootIsWatchedThroughItsFolderAndAloneThere) {
    fs::create_directories(dir_ + "/single");
    fs::create_directories(dir_ + "/album");
    test::writeRandomFile(dir_ + "/single/photo.jpg", 120000, 7);
    test::writeRandomFile(dir_ + "/single/other.jpg", 120000, 8);
    test::writeRandomFile(dir_ + "/album/copy.jpg", 120000, 5);
    test::writeRandomFile(dir_ + "/album/x.jpg", 120000, 6);
    auto automatic = make({dir_ + "/single/photo.jpg", dir_ + "/album"}, 10);
    automatic->start();
    automatic->tickNow();
    EXPECT_TRUE(summaries().empty());

    // Saved over the way editors save: a new file renamed onto the old name.
    test::writeRandomFile(dir_ + "/single/.photo.jpg.saving", 120000, 5);
    fs::rename(dir_ + "/single/.photo.jpg.saving", dir_ + "/single/photo.jpg");
    // Its neighbour is not a root: what happens to it is none of this reclaimer's business.
    test::writeRandomFile(dir_ + "/single/other.jpg", 120000, 6);
    EXPECT_EQ(automatic->pendingFolders(), std::vector<std::string>{dir_ + "/single/photo.jpg"});

    advance(20s);
    automatic->tickNow();
    EXPECT_TRUE(shareBlocks(dir_ + "/single/photo.jpg", dir_ + "/album/copy.jpg"));
    EXPECT_FALSE(shareBlocks(dir_ + "/single/other.jpg", dir_ + "/album/x.jpg"));
    EXPECT_EQ(automatic->indexedFiles(), 3u);
    EXPECT_TRUE(automatic->pendingFolders().empty());
}

TEST(AutoReclaimerWatchTest, FolderTheKernelWillNotWatchIsNamed) {
    // Only a user other than root can be refused a watch: the reclaimer runs in a child that
    // becomes nobody, over a tree that nobody owns, with one folder nobody may read.
    constexpr uid_t nobody = 65534;
    test::TempDir dir;
    const std::string root = dir.path("root");
    fs::create_directories(root + "/secret");
    fs::create_directories(root + "/open");
    for (const auto& path : {dir.path(), root, root + "/secret", root + "/open"}) {
        ASSERT_EQ(::chown(path.c_str(), nobody, nobody), 0) << path;
    }
    ASSERT_EQ(::chmod((root + "/secret").c_str(), 0300), 0);
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(pipe[0]);
        if (::setgid(nobody) != 0 || ::setuid(nobody) != 0) ::_exit(2);
        std::string said;
        {
            AutoReclaimer automatic({root}, DuplicateFinder{}, Reclaimer{}, [] { return Selection{}; }, 10,
                                    [] { return true; }, [](const ReclaimSummary&) {});
            automatic.onWarning = [&](const std::string& warning) { said += warning + "\n"; };
            automatic.start();
            automatic.stop();
        }
        ssize_t written = ::write(pipe[1], said.data(), said.size());
        ::_exit(written == static_cast<ssize_t>(said.size()) ? 0 : 1);
    }
    ::close(pipe[1]);
    std::string said;
    char buffer[4096];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) > 0;) said.append(buffer, static_cast<size_t>(n));
    ::close(pipe[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::chmod((root + "/secret").c_str(), 0700);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(said, root + "/secret is not watched (inotify_add_watch: Permission denied); changes there are found "
                           "by a full pass every 30 minutes.\n");
}

}  // namespace
}  // namespace dedup
