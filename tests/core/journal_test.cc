#include "journal.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include "support/test_files.h"

namespace dedup {
namespace {

constexpr std::time_t march1st = 1740838075;  // 2025-03-01T14:07:55Z

// A started entry names the lock of a process long gone, as one left by a crash would.
JournalEntry entryWith(JournalEntry::Event event, const std::string& target, std::string id = makeUUID()) {
    JournalEntry entry = JournalEntry::make(event, target);
    entry.id = std::move(id);
    if (event == JournalEntry::Event::started) entry.owner = makeUUID();
    return entry;
}

// Every field set, with values that only survive a faithful encoding. Recovery reads it back.
JournalEntry fullEntry() {
    Snapshot before;
    before.status = {.device = 0xFFFFFFFF12ull, .inode = 1ull << 62, .size = 123456789012,
                     .modified = {1700000000, 999999999}, .changed = {-5, 1}, .mode = 0100640, .links = 1,
                     .uid = 1000, .gid = 4294967294u, .flags = FileFlags::systemImmutable | FileFlags::nodump};
    before.times = {{1600000000, 5}, {1700000000, 999999999}, {1700000001, 0}, std::nullopt};
    before.attributeNames = {"system.posix_acl_access", "user.tag"};
    before.acl = "user::rw-\nuser:1234:rw-\ngroup::r--\nmask::rw-\nother::---\n";
    Snapshot after = before;
    after.status.inode = 77;
    after.acl.reset();
    after.attributeNames.clear();

    JournalEntry entry = entryWith(JournalEntry::Event::replaced, "/home/ana/Pictures/IMG_0412 (1).jpg");
    entry.time = march1st;
    entry.source = "/home/ana/Pictures/2024/IMG_0412.jpg";
    entry.temporary = "/home/ana/Pictures/.IMG_0412 (1).jpg.dedup-0C7F4B52-7A6D-4E0F-9A43-6B2F1D3E5C87";
    entry.digest = std::string(64, 'a');
    entry.before = before;
    entry.after = after;
    entry.freedBytes = -(int64_t{1} << 40);
    entry.detail = "naïve \"quoted\" \\ tab\t";
    entry.owner = makeUUID();
    return entry;
}

TEST(JournalTest, EveryFieldSurvivesTheFileInTheAgreedForm) {
    test::TempDir dir;
    Journal journal(dir.path("journal.jsonl"));
    JournalEntry small = entryWith(JournalEntry::Event::skipped, "/x/y", "0C7F4B52-7A6D-4E0F-9A43-6B2F1D3E5C87");
    small.time = march1st;
    small.detail = "a/b";
    journal.append(small);
    // Sorted keys, no spaces, escaped solidus, whole-second UTC, absent optionals left out.
    EXPECT_EQ(test::readFile(journal.path()),
              "{\"detail\":\"a\\/b\",\"event\":\"skipped\",\"id\":\"0C7F4B52-7A6D-4E0F-9A43-6B2F1D3E5C87\","
              "\"target\":\"\\/x\\/y\",\"time\":\"2025-03-01T14:07:55Z\"}\n");

    EXPECT_EQ(journal.entries(), std::vector<JournalEntry>{small});
    // The full entry's after snapshot has no ACL: left out, not written as null.
    journal.append(fullEntry());
    EXPECT_EQ(test::readFile(journal.path()).find("null"), std::string::npos);

    // Other writers: a plain solidus, a lower-case id, null for absent, keys this one does not know.
    test::writeFile(journal.path(),
                    "{\"event\":\"started\",\"id\":\"0c7f4b52-7a6d-4e0f-9a43-6b2f1d3e5c87\",\"target\":\"/a/b\","
                    "\"time\":\"2025-03-01T14:07:55Z\",\"detail\":null,\"unknownKey\":1}\n");
    auto entries = journal.entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].id, "0C7F4B52-7A6D-4E0F-9A43-6B2F1D3E5C87");
    EXPECT_EQ(entries[0].target, "/a/b");
    EXPECT_FALSE(entries[0].detail);
}

TEST(JournalTest, DamagedLinesAreSkippedAndHideNothingElse) {
    test::TempDir dir;
    Journal journal(dir.path("journal.jsonl"));
    JournalEntry first = entryWith(JournalEntry::Event::started, "/first");
    journal.append(first);
    std::string good = test::readFile(journal.path());
    std::string line = good.substr(0, good.size() - 1);
    auto replaced = [&](const std::string& from, const std::string& to) {
        std::string copy = line;
        return copy.replace(copy.find(from), from.size(), to);
    };
    std::string damaged = good + "\n\n" +                                       // blank lines
                          "not json at all\n" +                                 // foreign
                          replaced(isoDate(first.time), "2025-03-01T14:07:55.250Z") + "\n" +  // fraction
                          replaced(isoDate(first.time), "2025-03-01T14:07:55+00:00") + "\n" +
                          replaced(isoDate(first.time), "2025-02-30T14:07:55Z") + "\n" +
                          replaced("\"started\"", "\"exploded\"") + "\n" +       // no such event
                          replaced(first.id, "not-a-uuid") + "\n" +
                          "[1,2,3]\n" +
                          line.substr(0, line.size() / 2);                       // cut by a crash
    test::writeFile(journal.path(), damaged);
    ASSERT_EQ(journal.entries(), std::vector<JournalEntry>{first});

    // The next entry after a cut line must not be glued onto it.
    JournalEntry next = entryWith(JournalEntry::Event::replaced, "/next");
    next.id = first.id;
    journal.append(next);
    EXPECT_EQ(journal.entries(), (std::vector<JournalEntry>{first, next}));
    EXPECT_TRUE(journal.interrupted().empty());
}

TEST(JournalTest, FreshJournalIsEmptyAndFailuresAreReported) {
    test::TempDir dir;
    Journal journal(dir.path("data/deeper/journal.jsonl"));
    EXPECT_EQ(test::readFile(journal.path()), "");
    EXPECT_TRUE(journal.interrupted().empty());
    // Names that are not UTF-8 (and backslashes) come back byte for byte, in lines that are UTF-8.
    JournalEntry odd = entryWith(JournalEntry::Event::failed, "/old disk/caf\xe9 \\x41.jpg");
    odd.source = "/old disk/\xff\xfe";
    odd.temporary = "/old disk/.caf\xe9.dedup-1";
    odd.detail = "open(/old disk/caf\xe9 \\x41.jpg): Permission denied";
    journal.append(odd);
    EXPECT_EQ(journal.entries(), std::vector<JournalEntry>{odd});
    EXPECT_TRUE(nlohmann::json::accept(test::readFile(journal.path())));
    EXPECT_NE(test::readFile(journal.path()).find("caf\\\\xe9"), std::string::npos);
    // An entry that cannot be written is an error, never silently lost.
    std::filesystem::remove(journal.path());
    std::filesystem::create_directory(journal.path());
    EXPECT_THROW(journal.append(entryWith(JournalEntry::Event::started, "/x")), SystemError);
}

TEST(JournalTest, StartedEntriesClosedAnywhereInTheFileAreNotInterrupted) {
    test::TempDir dir;
    Journal journal(dir.path("journal.jsonl"));
    JournalEntry open1 = entryWith(JournalEntry::Event::started, "/open1");
    JournalEntry closedLater = entryWith(JournalEntry::Event::started, "/closedLater");
    JournalEntry closedEarlier = entryWith(JournalEntry::Event::started, "/closedEarlier");
    JournalEntry open2 = entryWith(JournalEntry::Event::started, "/open2");

    journal.append(entryWith(JournalEntry::Event::trashed, "/closedEarlier", closedEarlier.id));
    journal.append(open1);
    journal.append(closedLater);
    journal.append(closedEarlier);
    journal.append(open2);
    // A skipped entry with an id of its own closes nothing else.
    journal.append(entryWith(JournalEntry::Event::skipped, "/open2"));
    journal.append(entryWith(JournalEntry::Event::failed, "/closedLater", closedLater.id));

    EXPECT_EQ(journal.interrupted(), (std::vector<JournalEntry>{open1, open2}));
}

TEST(JournalTest, RecoveryPutsEachInterruptedReplacementRightOnceAndPassesOverAStuckOne) {
    test::TempDir dir;
    Journal journal(dir.path("journal.jsonl"));
    test::writeFile(dir.path("leftover"), "clone");
    JournalEntry noTemporary = entryWith(JournalEntry::Event::started, dir.path("a"));
    JournalEntry withLeftover = fullEntry();
    withLeftover.event = JournalEntry::Event::started;
    withLeftover.temporary = dir.path("leftover");
    withLeftover.detail = "will be overwritten";
    JournalEntry leftoverGone = entryWith(JournalEntry::Event::started, dir.path("b"));
    leftoverGone.temporary = dir.path("gone");
    journal.append(std::vector<JournalEntry>{noTemporary, withLeftover, leftoverGone});

    // A leftover that cannot be put right is reported and stays open; the others are put right.
    auto failing = [](const std::string& path) -> std::string { throw SystemError("unlink", path, EACCES); };
    auto first = journal.recover(failing);
    ASSERT_EQ(first.stuck.size(), 1u);
    EXPECT_EQ(first.stuck[0].first, withLeftover);
    EXPECT_NE(first.stuck[0].second.find("unlink"), std::string::npos);
    ASSERT_EQ(first.recovered.size(), 2u);
    EXPECT_EQ(first.recovered[0].detail, "nothing left over");
    EXPECT_EQ(first.recovered[1].detail, "nothing left over");
    EXPECT_EQ(journal.interrupted(), std::vector<JournalEntry>{withLeftover});

    std::vector<std::string> handed;
    auto recoverLeftover = [&](const std::string& path) {
        handed.push_back(path);
        return std::string("removed");
    };
    auto recovered = journal.recoverInterrupted(recoverLeftover);
    EXPECT_EQ(handed, std::vector<std::string>{dir.path("leftover")});
    ASSERT_EQ(recovered.size(), 1u);
    // Everything but the time, the event and the detail is the started entry's.
    JournalEntry expected = withLeftover;
    expected.event = JournalEntry::Event::recovered;
    expected.detail = "removed";
    expected.time = recovered[0].time;
    EXPECT_EQ(recovered[0], expected);
    EXPECT_EQ(recovered[0].label(), "put right");

    auto all = journal.entries();
    ASSERT_EQ(all.size(), 6u);
    EXPECT_EQ(all[3].target, noTemporary.target);
    EXPECT_EQ(all.back(), recovered[0]);
    EXPECT_TRUE(journal.recoverInterrupted(recoverLeftover).empty());
    EXPECT_EQ(handed.size(), 1u);
}

// What another process is replacing right now looks interrupted in the file; only its lock, which
// the kernel drops when the process dies, tells the two apart.
TEST(JournalTest, ReplacementsOfALiveProcessAreLeftAloneUntilItDies) {
    test::TempDir dir;
    test::writeFile(dir.path("temporary"), "clone");
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t child = ::fork();
    if (child == 0) {
        Journal theirs(dir.path("journal.jsonl"));
        JournalEntry entry = JournalEntry::make(JournalEntry::Event::started, dir.path("copy"));
        entry.temporary = dir.path("temporary");
        theirs.append(entry);
        char byte = 1;
        if (::write(ready[1], &byte, 1) != 1) ::_exit(1);
        ::pause();
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    Journal journal(dir.path("journal.jsonl"));
    int handed = 0;
    auto recoverLeftover = [&](const std::string&) {
        ++handed;
        return std::string("removed");
    };
    EXPECT_TRUE(journal.interrupted().empty());
    EXPECT_EQ(journal.underway().size(), 1u);
    auto whileAlive = journal.recover(recoverLeftover);
    EXPECT_EQ(whileAlive.underway, 1u);
    EXPECT_TRUE(whileAlive.recovered.empty());
    EXPECT_EQ(handed, 0);

    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(ready[0]);
    ::close(ready[1]);
    EXPECT_EQ(journal.interrupted().size(), 1u);
    auto afterDeath = journal.recover(recoverLeftover);
    EXPECT_EQ(afterDeath.recovered.size(), 1u);
    EXPECT_EQ(handed, 1);
    // The dead process's lock file went with its last open entry.
    EXPECT_TRUE(std::filesystem::is_empty(dir.path("running")));
}

TEST(JournalTest, ConcurrentAppendsNeverInterleave) {
    test::TempDir dir;
    Journal journal(dir.path("journal.jsonl"));
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&journal, t] {
            for (int i = 0; i < 50; ++i) {
                JournalEntry entry = JournalEntry::make(JournalEntry::Event::started, "/w" + std::to_string(t));
                entry.detail = std::string(static_cast<size_t>(100 + i * 37), 'x');
                journal.append(entry);
            }
        });
    }
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(journal.entries().size(), 200u);
}

TEST(JournalTest, UnknownSkipReasonIsShownAsItIsAndDatesAreStrict) {
    JournalEntry skipped = JournalEntry::make(JournalEntry::Event::skipped, "/x");
    EXPECT_EQ(skipped.label(), "left alone: ");
    skipped.detail = "inUse";
    EXPECT_EQ(skipped.label(), "left alone: open in another app");
    skipped.detail = "the moon was full";  // a reason this version does not know is shown as it is
    EXPECT_EQ(skipped.label(), "left alone: the moon was full");

    for (std::time_t time : {std::time_t{-1}, std::time_t{951782400} /* 29 Feb 2000 */}) {
        EXPECT_EQ(parseIsoDate(isoDate(time)), time) << isoDate(time);
    }
    for (const char* bad :
         {"2025-03-01T14:07:55", "2025-03-01 14:07:55Z", "2025-04-31T14:07:55Z", "2025-03-01T24:00:00Z"}) {
        EXPECT_FALSE(parseIsoDate(bad)) << bad;
    }
}

}  // namespace
}  // namespace dedup
