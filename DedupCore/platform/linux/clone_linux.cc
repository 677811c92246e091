// Sharing blocks in place (FIDEDUPERANGE), comparing open files, the Trash and write leases.
#include "../clone.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "statx_util.h"

namespace dedup::platform {

namespace {

constexpr int64_t maxDedupeCall = int64_t{1} << 30;

void prefetch(int fd, int64_t offset, int64_t length) {
    ::posix_fadvise(fd, offset, length, POSIX_FADV_WILLNEED);
}

}  // namespace

namespace {

bool unsupported(int code) { return code == EOPNOTSUPP || code == ENOTTY || code == EXDEV; }

// Shares `length` bytes of the source with every target, in aligned 1 GiB steps. Answers 0 with an
// answer per target, or the errno of a call the kernel refused as a whole.
int shareAll(const FileDescriptor& source, std::span<const FileDescriptor* const> targets, int64_t length,
             std::vector<ShareAnswer>& answers) {
    answers.assign(targets.size(), ShareAnswer{});
    if (targets.empty()) return 0;
    if (targets.size() > maxShareTargets) return EINVAL;
    std::vector<std::byte> buffer(sizeof(file_dedupe_range) + targets.size() * sizeof(file_dedupe_range_info));
    auto* range = reinterpret_cast<file_dedupe_range*>(buffer.data());
    std::vector<size_t> asked(targets.size());  // the request's slot -> the target it names
    for (int64_t offset = 0; offset < length;) {
        // The last call asks for the whole rest, so both files end at the same end of file and
        // their tail block is shared too.
        int64_t chunk = length - offset > maxDedupeCall ? maxDedupeCall : length - offset;
        std::fill(buffer.begin(), buffer.end(), std::byte{0});
        range->src_offset = static_cast<uint64_t>(offset);
        range->src_length = static_cast<uint64_t>(chunk);
        uint16_t count = 0;
        prefetch(source.get(), offset, chunk);
        for (size_t i = 0; i < targets.size(); ++i) {
            if (answers[i].outcome != ShareOutcome::shared || answers[i].error != 0) continue;
            prefetch(targets[i]->get(), offset, chunk);
            range->info[count].dest_fd = targets[i]->get();
            range->info[count].dest_offset = static_cast<uint64_t>(offset);
            asked[count++] = i;
        }
        if (count == 0) break;
        range->dest_count = count;
        int result;
        do {
            result = ::ioctl(source.get(), FIDEDUPERANGE, range);
        } while (result != 0 && errno == EINTR);
        if (result != 0) return errno;
        for (uint16_t k = 0; k < count; ++k) {
            const auto& info = range->info[k];
            ShareAnswer& answer = answers[asked[k]];
            if (info.status == FILE_DEDUPE_RANGE_DIFFERS) {
                answer.outcome = ShareOutcome::differs;
            } else if (info.status < 0) {
                if (unsupported(-info.status)) {
                    answer.outcome = ShareOutcome::notSupported;
                } else {
                    answer.error = -info.status;
                }
            } else if (info.bytes_deduped == 0) {
                // The kernel stops going through the copies when the process is being killed: a
                // copy it never reached says "same" with nothing done, and must not count as shared.
                answer.error = EINTR;
            }
        }
        offset += chunk;
    }
    return 0;
}

}  // namespace

ShareOutcome shareInPlace(const FileDescriptor& source, const FileDescriptor& target, int64_t length,
                          const std::string& targetPath) {
    const FileDescriptor* targets[] = {&target};
    std::vector<ShareAnswer> answers;
    int code = shareAll(source, targets, length, answers);
    if (code != 0) {
        if (unsupported(code)) return ShareOutcome::notSupported;
        throw SystemError("FIDEDUPERANGE", targetPath, code);
    }
    if (answers[0].error != 0) throw SystemError("FIDEDUPERANGE", targetPath, answers[0].error);
    return answers[0].outcome;
}

std::vector<ShareAnswer> shareInPlace(const FileDescriptor& source, std::span<const FileDescriptor* const> targets,
                                      int64_t length, const std::string& sourcePath) {
    std::vector<ShareAnswer> answers;
    int code = shareAll(source, targets, length, answers);
    if (code == 0) return answers;
    if (!unsupported(code)) throw SystemError("FIDEDUPERANGE", sourcePath, code);
    for (auto& answer : answers) answer = {ShareOutcome::notSupported, 0};
    return answers;
}

void removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0) throw SystemError("unlink", path, errno);
}

void renamePath(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) != 0) throw SystemError("rename", to, errno);
}

void moveToTrash(const std::string& path) {
    std::unique_ptr<GFile, decltype(&g_object_unref)> file(g_file_new_for_path(path.c_str()), g_object_unref);
    GError* error = nullptr;
    if (g_file_trash(file.get(), nullptr, &error)) return;
    int code = error && error->domain == G_IO_ERROR && error->code == G_IO_ERROR_NOT_SUPPORTED ? EOPNOTSUPP : EIO;
    std::string message = error ? error->message : "";
    if (error) g_error_free(error);
    (void)message;
    throw SystemError("trash", path, code);
}

FileStatus statusOf(const FileDescriptor& fd, const std::string& path) {
    struct statx sx {};
    if (::statx(fd.get(), "", AT_EMPTY_PATH, statusMask, &sx) != 0) throw SystemError("fstat", path, errno);
    return statusOf(sx);
}

bool sameContent(const FileDescriptor& a, const std::string& aPath, const FileDescriptor& b, const std::string& bPath) {
    constexpr size_t chunk = 1 << 20;
    std::vector<char> ba(chunk), bb(chunk);
    for (off_t offset = 0;;) {
        auto fill = [&](const FileDescriptor& fd, const std::string& path, std::vector<char>& buffer) {
            size_t total = 0;
            while (total < chunk) {
                ssize_t n = ::pread(fd.get(), buffer.data() + total, chunk - total, offset + static_cast<off_t>(total));
                if (n < 0) {
                    if (errno == EINTR) continue;
                    throw SystemError("read", path, errno);
                }
                if (n == 0) break;
                total += static_cast<size_t>(n);
            }
            return total;
        };
        size_t na = fill(a, aPath, ba);
        size_t nb = fill(b, bPath, bb);
        if (na != nb || std::memcmp(ba.data(), bb.data(), na) != 0) return false;
        if (na == 0) return true;
        offset += static_cast<off_t>(na);
    }
}

namespace {
// The kernel announces a lease break with a signal; without a handler its default would end the
// process. The state of the lease itself is read back with F_GETLEASE.
constexpr int leaseSignal = SIGIO;
void ignoreLeaseSignal(int) {}
void installLeaseSignal() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_handler = ignoreLeaseSignal;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        sigaction(leaseSignal, &action, nullptr);
    });
}
}  // namespace

bool takeWriteLease(const FileDescriptor& fd, const std::string& path) {
    installLeaseSignal();
    if (::fcntl(fd.get(), F_SETSIG, leaseSignal) != 0) throw SystemError("fcntl", path, errno);
    if (::fcntl(fd.get(), F_SETLEASE, F_WRLCK) == 0) return true;
    if (errno == EAGAIN || errno == EBUSY) return false;
    throw SystemError("fcntl", path, errno);
}

bool leaseHeld(const FileDescriptor& fd) { return ::fcntl(fd.get(), F_GETLEASE) == F_WRLCK; }

void releaseLease(const FileDescriptor& fd) { ::fcntl(fd.get(), F_SETLEASE, F_UNLCK); }

std::optional<bool> openElsewhere(const FileDescriptor& fd) {
    installLeaseSignal();
    if (::fcntl(fd.get(), F_SETLEASE, F_WRLCK) == 0) {
        ::fcntl(fd.get(), F_SETLEASE, F_UNLCK);
        return false;
    }
    if (errno == EAGAIN || errno == EBUSY) return true;
    return std::nullopt;
}

}  // namespace dedup::platform
