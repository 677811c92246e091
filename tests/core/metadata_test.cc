#include "metadata.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <initializer_list>

#include "hasher.h"
#include "journal.h"
#include "skip_reason.h"
#include "support/test_files.h"
#include "volumes.h"

namespace dedup {
namespace {

using test::LoopVolume;

void run(const std::vector<std::string>& argv) { test::runCommandChecked(argv); }

void setAttribute(const std::string& path, const std::string& name, const std::string& value) {
    run({"setfattr", "-n", name, "-v", value, path});
}

// Runs `action` in a child process whose effective capabilities lack `dropped`, as an unprivileged
// process would, and answers which Skip it threw: 0 for none, 1 + the reason otherwise. The child
// leaves with _exit so that it never runs the parent's destructors (they unmount the volumes).
int skipWithout(std::initializer_list<int> dropped, const std::function<void()>& action) {
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2]{};
        if (::syscall(SYS_capget, &header, data) != 0) ::_exit(90);
        for (int cap : dropped) data[cap / 32].effective &= ~(1u << (cap % 32));
        if (::syscall(SYS_capset, &header, data) != 0) ::_exit(91);
        int code = 0;
        try {
            action();
        } catch (const Skip& skip) {
            code = 1 + static_cast<int>(skip.reason);
        } catch (...) {
            code = 92;
        }
        ::_exit(code);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class MetadataOnVolume : public ::testing::TestWithParam<LoopVolume::Kind> {
protected:
    void SetUp() override {
        DEDUP_REQUIRE_VOLUME(GetParam());
        dir_ = test::freshFolder(test::sharedVolume(GetParam()), "metadata");
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    // A clone of `kept` as the engine finds it before copying metadata: FICLONE passes on only the
    // data, so it is given leftovers of another file to show that none of them survive.
    std::string cloneWithLeftovers(const std::string& kept, const std::string& name) {
        std::string clone = path(name);
        test::reflinkCopy(kept, clone);
        setAttribute(clone, "user.kept", "from the kept copy");
        setAttribute(clone, "user.same", "differs");
        run({"setfacl", "-m", "u:9999:r", clone});
        ::chmod(clone.c_str(), 0444);
        // No-atime is no flag the engine manages: it must survive, while immutable must not.
        run({"chattr", "+i", "+A", clone});
        return clone;
    }

    std::string dir_;
};

TEST_P(MetadataOnVolume, CloneEndsWithEveryPieceOfTheTargetsMetadataAndNothingElse) {
    std::string kept = path("kept"), target = path("target");
    test::writeRandomFile(kept, 200000, 7);
    test::writeRandomFile(target, 200000, 7);
    run({"chattr", "+i", kept});
    setAttribute(target, "user.tag", "blue");
    setAttribute(target, "user.same", "same");
    setAttribute(target, "trusted.note", "only root sees this");
    run({"setfacl", "-m", "u:4321:rw", target});
    ASSERT_EQ(::chown(target.c_str(), 1001, 1002), 0);
    ASSERT_EQ(::chmod(target.c_str(), 04660), 0);
    run({"chattr", "+a", "+d", target});
    std::string clone = cloneWithLeftovers(kept, ".clone.dedup-1");

    Attributes wanted = XAttr::all(target);
    EXPECT_TRUE(wanted.contains("system.posix_acl_access"));
    EXPECT_TRUE(wanted.contains("trusted.note"));
    FileStatus targetStatus = FileStatus::read(target);
    copyMetadata(clone, targetStatus, wanted);

    EXPECT_EQ(XAttr::all(clone), wanted);
    Snapshot cloneSnapshot = Snapshot::take(clone), targetSnapshot = Snapshot::take(target);
    ASSERT_TRUE(targetSnapshot.acl);
    EXPECT_NE(targetSnapshot.acl->find("user:4321:rw-"), std::string::npos) << *targetSnapshot.acl;
    EXPECT_EQ(cloneSnapshot.acl, targetSnapshot.acl);
    EXPECT_EQ(cloneSnapshot.attributeNames, targetSnapshot.attributeNames);
    EXPECT_TRUE(std::is_sorted(cloneSnapshot.attributeNames.begin(), cloneSnapshot.attributeNames.end()));
    EXPECT_EQ(cloneSnapshot.status.mode, 0104660u);  // the set-user-id bit survives the change of owner
    EXPECT_EQ(cloneSnapshot.status.uid, 1001u);
    EXPECT_EQ(cloneSnapshot.status.gid, 1002u);
    EXPECT_EQ(cloneSnapshot.status.flags, FileFlags::systemAppend | FileFlags::nodump);
    std::string letters = test::runCommandChecked({"lsattr", "-d", clone}).stdoutText;
    EXPECT_NE(letters.substr(0, letters.find(' ')).find('A'), std::string::npos) << letters;
    EXPECT_TRUE(sameContent(kept, clone));

    // A target without an ACL gives a clone without one, and without the leftover attributes and flags.
    std::string plain = path("plain");
    test::writeRandomFile(plain, 200000, 7);
    setAttribute(plain, "user.same", "same");
    ASSERT_EQ(::chmod(plain.c_str(), 0640), 0);
    clone = cloneWithLeftovers(kept, ".clone.dedup-2");
    ASSERT_TRUE(ACL::text(clone));
    copyMetadata(clone, FileStatus::read(plain), XAttr::all(plain));
    EXPECT_FALSE(ACL::text(clone));
    EXPECT_EQ(XAttr::all(clone), (Attributes{{"user.same", "same"}}));
    EXPECT_EQ(FileStatus::read(clone).mode, 0100640u);
    EXPECT_EQ(FileStatus::read(clone).flags, 0u);
}

TEST_P(MetadataOnVolume, AttributesAreMadeExactWithoutRewritesAndNeverThroughALink) {
    std::string file = path("file"), link = path("link");
    test::writeFile(file, "x");
    setAttribute(file, "user.a", "1");
    run({"setfacl", "-m", "u:4321:rw", file});
    std::filesystem::create_symlink(file, link);
    ::usleep(20000);  // so that any write from here on shows in the change time
    auto names = XAttr::names(file);
    EXPECT_NE(std::find(names.begin(), names.end(), "system.posix_acl_access"), names.end());
    // XFS lists its private copies of the ACL to root; they must never be copied or compared.
    EXPECT_EQ(std::find(names.begin(), names.end(), "trusted.SGI_ACL_FILE"), names.end());

    // Nothing is read or written through a link.
    EXPECT_TRUE(XAttr::names(link).empty());
    EXPECT_FALSE(ACL::text(link));
    Snapshot snapshot = Snapshot::take(link);
    EXPECT_TRUE(snapshot.status.isSymbolicLink());
    EXPECT_TRUE(snapshot.attributeNames.empty());
    FileStatus before = FileStatus::read(file), other = before;
    other.mode = 0100777;
    other.flags = FileFlags::systemImmutable;
    EXPECT_THROW(copyMetadata(link, other, {}), SystemError);
    EXPECT_EQ(FileStatus::read(file), before);

    // Attributes equal to those wanted are not written again; the others are made exact.
    Attributes present = XAttr::all(file);
    XAttr::replaceAll(file, present);
    applyAttributes(present, file);
    EXPECT_EQ(FileStatus::read(file).changed, before.changed) << "an equal attribute was written again";
    Attributes wanted = {{"user.a", "changed"}, {"user.c", std::string("\0bin\xff", 5)}, {"user.empty", ""}};
    XAttr::replaceAll(file, wanted);
    EXPECT_EQ(XAttr::all(file), wanted);
    EXPECT_FALSE(ACL::text(file));
    EXPECT_NE(FileStatus::read(file).changed, before.changed);
}

TEST_P(MetadataOnVolume, RefusalsBecomeSkipsOnlyWhenTheCopyWouldDiffer) {
    std::string file = path("file");
    test::writeFile(file, "x");
    setAttribute(file, "user.a", "1");

    // A name no file system knows is an error of the call, not a reason to leave a copy alone.
    try {
        applyAttributes({{"user.a", "1"}, {"nosuchnamespace.x", "1"}}, file);
        FAIL();
    } catch (const SystemError& error) {
        EXPECT_EQ(error.call, "lsetxattr");
        EXPECT_NE(error.code, EPERM);
    }

    // Without CAP_SYS_ADMIN a trusted.* attribute cannot be written: the label the user's copy had
    // cannot be kept.
    Attributes wanted = {{"user.a", "1"}, {"trusted.label", "secret"}};
    EXPECT_EQ(skipWithout({CAP_SYS_ADMIN}, [&] { applyAttributes(wanted, file); }),
              1 + static_cast<int>(SkipReason::quarantineCannotBeKept));
    EXPECT_FALSE(XAttr::all(file).contains("trusted.label"));

    // Without CAP_CHOWN the clone cannot be given another user's ownership.
    FileStatus status = FileStatus::read(file);
    status.uid = 1001;
    EXPECT_EQ(skipWithout({CAP_CHOWN}, [&] { copyMetadata(file, status, {}); }),
              1 + static_cast<int>(SkipReason::notOwned));
}

INSTANTIATE_TEST_SUITE_P(Metadata, MetadataOnVolume, ::testing::Values(LoopVolume::Kind::btrfs, LoopVolume::Kind::xfs),
                         [](const auto& info) { return std::string(LoopVolume::kindName(info.param)); });

}  // namespace
}  // namespace dedup
