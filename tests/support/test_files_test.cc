// Proves the file and command helpers the other tests build on.
#include "support/test_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace dedup::test {
namespace {

TEST(TestFilesTest, RandomBytesAreReproduciblePrefixStableAndSeedDependent) {
  EXPECT_EQ(randomBytes(1000, 1), randomBytes(1000, 1));
  EXPECT_NE(randomBytes(8, 1), randomBytes(8, 2));
  EXPECT_EQ(randomBytes(1000, 7).substr(0, 13), randomBytes(13, 7));
  EXPECT_TRUE(randomBytes(0, 7).empty());

  // Spans several of the pieces writeRandomFile writes in, with an odd tail.
  TempDir dir;
  const int64_t size = (3 << 20) + 5;
  writeRandomFile(dir.path("random"), size, 9);
  EXPECT_EQ(readFile(dir.path("random")), randomBytes(size, 9));

  writeFile(dir.path("text"), "hello");
  EXPECT_EQ(readFile(dir.path("text")), "hello");
  writeFile(dir.path("text"), "");
  EXPECT_EQ(readFile(dir.path("text")), "");
  EXPECT_THROW(readFile(dir.path("missing")), std::system_error);
}

TEST(TestFilesTest, TempDirHonoursTmpdirAndRemovesEvenImmutableFiles) {
  TempDir outer("outer");
  const char* saved = std::getenv("TMPDIR");
  std::string savedValue = saved ? saved : "";
  ::setenv("TMPDIR", outer.path().c_str(), 1);
  std::string innerPath;
  bool immutableSet = false;
  {
    TempDir inner("inner");
    innerPath = inner.path();
    EXPECT_EQ(inner.path().rfind(outer.path() + "/inner-", 0), 0u) << inner.path();
    std::filesystem::create_directories(inner.path("a/b"));
    writeFile(inner.path("a/b/locked"), "x");
    int fd = ::open(inner.path("a/b/locked").c_str(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    if (fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
      flags |= FS_IMMUTABLE_FL;
      immutableSet = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;  // root only
    }
    if (fd >= 0) ::close(fd);
    TempDir moved(std::move(inner));
    EXPECT_EQ(moved.path(), innerPath);
  }
  if (saved) {
    ::setenv("TMPDIR", savedValue.c_str(), 1);
  } else {
    ::unsetenv("TMPDIR");
  }
  EXPECT_FALSE(std::filesystem::exists(innerPath))
      << (immutableSet ? "with" : "without") << " an immutable file inside";
}

TEST(TestFilesTest, RunCommandCapturesBothStreamsAndHowItEnded) {
  CommandResult result = runCommand({"sh", "-c", "echo out; echo err >&2; exit 3"});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.stdoutText, "out\n");
  EXPECT_EQ(result.stderrText, "err\n");

  EXPECT_EQ(runCommand({"sh", "-c", "kill -TERM $$"}).exitCode, 128 + 15);
  EXPECT_EQ(runCommand({"sh", "-c", "read x; echo \"[$x]\""}).stdoutText, "[]\n")
      << "stdin must be empty, not the test's own";

  // More than a pipe holds on both streams at once: must not deadlock.
  result = runCommand({"sh", "-c", "head -c 300000 /dev/zero; head -c 400000 /dev/zero >&2"});
  EXPECT_EQ(result.stdoutText.size(), 300000u);
  EXPECT_EQ(result.stderrText.size(), 400000u);

  EXPECT_THROW(runCommand({"/nonexistent/program"}), std::system_error);
  try {
    runCommandChecked({"sh", "-c", "echo 'it broke' >&2; exit 1"});
    ADD_FAILURE() << "a failing command must throw";
  } catch (const std::runtime_error& e) {
    std::string message = e.what();
    EXPECT_NE(message.find("sh -c"), std::string::npos) << message;
    EXPECT_NE(message.find("it broke"), std::string::npos) << message;
  }
  EXPECT_FALSE(findProgram("sh").empty());
  EXPECT_TRUE(findProgram("no-such-program-here").empty());
}

}  // namespace
}  // namespace dedup::test
