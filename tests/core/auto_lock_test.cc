#include "auto_lock.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "file_records.h"
#include "support/test_files.h"

namespace dedup {
namespace {

bool holds(const std::variant<AutoLock, AutoLock::Holder>& answer) {
    return std::holds_alternative<AutoLock>(answer);
}

// Another process taking the lock as `dedup auto` and keeping it until it is killed. `answer` is
// what it said once it tried: 'y' it holds the lock, 'n' it was refused, 'x' taking it failed.
struct ForkedHolder {
    pid_t pid = -1;
    char answer = 0;
};

ForkedHolder forkHolder(const std::string& folder, void (*prepare)() = nullptr) {
    int ready[2];
    if (::pipe(ready) != 0) return {};
    const pid_t child = ::fork();
    if (child == 0) {
        if (prepare) prepare();
        char byte = 'x';
        try {
            auto lock = AutoLock::acquire(folder, "dedup auto");
            byte = holds(lock) ? 'y' : 'n';
            if (::write(ready[1], &byte, 1) != 1) ::_exit(1);
            for (;;) ::pause();
        } catch (...) {
        }
        if (::write(ready[1], &byte, 1) != 1) ::_exit(1);
        ::_exit(0);
    }
    ::close(ready[1]);
    ForkedHolder holder{child, 0};
    if (::read(ready[0], &holder.answer, 1) != 1) holder.answer = 0;
    ::close(ready[0]);
    return holder;
}

TEST(AutoLockTest, SecondTakerLearnsWhoHoldsItUntilTheHolderLetsGo) {
    test::TempDir data;
    const std::string folder = data.path("not yet made");
    auto first = AutoLock::acquire(folder, "the desktop application");
    ASSERT_TRUE(holds(first));

    auto second = AutoLock::acquire(folder, "dedup auto");
    ASSERT_FALSE(holds(second));
    const auto holder = std::get<AutoLock::Holder>(second);
    EXPECT_EQ(holder, (AutoLock::Holder{static_cast<long>(::getpid()), "the desktop application"}));
    EXPECT_EQ(describe(holder), "the desktop application (process " + std::to_string(::getpid()) + ")");

    // Moving the lock keeps it held; only its last owner lets go.
    std::optional<AutoLock> moved(std::move(std::get<AutoLock>(first)));
    first = AutoLock::Holder{};
    EXPECT_FALSE(holds(AutoLock::acquire(folder, "dedup auto")));
    moved.reset();
    auto third = AutoLock::acquire(folder, "dedup auto");
    EXPECT_TRUE(holds(third));

    EXPECT_EQ(describe({0, ""}), "another program");
    EXPECT_EQ(describe({42, ""}), "process 42");
}

TEST(AutoLockTest, KernelLetsGoWhenTheHolderIsKilled) {
    test::TempDir data;
    const ForkedHolder child = forkHolder(data.path());
    ASSERT_GT(child.pid, 0);
    ASSERT_EQ(child.answer, 'y');

    auto refused = AutoLock::acquire(data.path(), "the desktop application");
    ASSERT_FALSE(holds(refused));
    EXPECT_EQ(std::get<AutoLock::Holder>(refused).pid, child.pid);
    EXPECT_EQ(std::get<AutoLock::Holder>(refused).program, "dedup auto");

    ::kill(child.pid, SIGKILL);  // no destructor runs: only the kernel can let go
    ::waitpid(child.pid, nullptr, 0);
    EXPECT_TRUE(holds(AutoLock::acquire(data.path(), "the desktop application")));
}

TEST(AutoLockTest, HolderThatCannotWriteItsNameStillHoldsIt) {
    // A full disk is when reclaiming is wanted most. A file size limit makes every write fail as
    // a full disk would, in the child only, so the test's own files are not hit.
    test::TempDir data;
    const ForkedHolder child = forkHolder(data.path(), [] {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit none = {0, 0};
        ::setrlimit(RLIMIT_FSIZE, &none);
    });
    ASSERT_GT(child.pid, 0);
    EXPECT_EQ(child.answer, 'y');
    EXPECT_FALSE(holds(AutoLock::acquire(data.path(), "the desktop application")));
    ::kill(child.pid, SIGKILL);
    ::waitpid(child.pid, nullptr, 0);
}

TEST(AutoLockTest, LinkPlantedAsTheLockFileIsRefusedAndItsTargetLeftAlone) {
    test::TempDir data;
    const std::string victim = data.path("victim");
    test::writeFile(victim, "precious\n");
    std::filesystem::create_directories(data.path("dir"));
    std::filesystem::create_symlink(victim, data.path("dir/auto.lock"));
    EXPECT_THROW(AutoLock::acquire(data.path("dir"), "dedup auto"), SystemError);
    EXPECT_EQ(test::readFile(victim), "precious\n");

    // A FIFO would hang a plain open; it is refused at once.
    std::filesystem::create_directories(data.path("fifo"));
    ASSERT_EQ(::mkfifo(data.path("fifo/auto.lock").c_str(), 0600), 0);
    EXPECT_THROW(AutoLock::acquire(data.path("fifo"), "dedup auto"), SystemError);
}

}  // namespace
}  // namespace dedup
