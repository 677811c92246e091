#include "replaceability.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "path_names.h"
#include "platform/file_io.h"
#include "platform/system.h"

namespace dedup {

namespace {
constexpr int readAccess = 4;
}  // namespace

std::optional<SkipReason> neverReplaceable(const std::string& path, const FileStatus& status) {
    if (!status.isRegularFile()) return SkipReason::notARegularFile;
    if (status.links != 1) return SkipReason::hardLinked;
    if (status.flags & FileFlags::anyImmutable) return SkipReason::locked;
    if (status.flags & FileFlags::anyAppend) return SkipReason::appendOnly;
    if (status.uid != platform::effectiveUser()) return SkipReason::notOwned;
    // The folder's write right is what lets the owner remove or exchange a file on Linux; there is
    // no separate deletion right to test after it.
    if (!platform::canAccess(parentOf(path), platform::writeAccess)) return SkipReason::folderNotWritable;
    return std::nullopt;
}

void checkReplaceable(const std::string& target, const FileStatus& targetStatus, const std::string& folder,
                      const std::string& source, const FileStatus& expected) {
    (void)folder;
    FileStatus sourceStatus = FileStatus::read(source);
    if (!targetStatus.isRegularFile() || !sourceStatus.isRegularFile()) throw Skip(SkipReason::notARegularFile);
    if (targetStatus.device != sourceStatus.device) throw Skip(SkipReason::differentVolume);
    if (!targetStatus.isSameVersion(expected)) throw Skip(SkipReason::changedSinceScan);
    if (targetStatus.size != sourceStatus.size) throw Skip(SkipReason::contentDiffers);
    if (auto reason = neverReplaceable(target, targetStatus)) throw Skip(*reason);
    if ((targetStatus.flags | sourceStatus.flags) & FileFlags::dataless) throw Skip(SkipReason::onlyInCloud);
    if (!platform::canAccess(target, readAccess)) throw Skip(SkipReason::unreadable);
}

XMPStatus XMPStatus::inspect(const std::string& path) {
    XMPStatus status;
    std::string name = path.substr(path.find_last_of('/') + 1);
    auto dot = name.find_last_of('.');
    std::string stem = dot == std::string::npos || dot == 0 ? path : path.substr(0, path.size() - (name.size() - dot));
    for (const auto& candidate : {stem + ".xmp", stem + ".XMP", path + ".xmp", path + ".XMP"}) {
        if (candidate != path && platform::pathExists(candidate)) {
            status.sidecar = candidate;
            break;
        }
    }
    std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot + 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    static constexpr std::array<std::string_view, 9> packetFormats = {"dng", "jpg",  "jpeg", "tif", "tiff",
                                                                      "cr2", "cr3", "nef",  "arw"};
    if (std::find(packetFormats.begin(), packetFormats.end(), ext) != packetFormats.end()) {
        status.hasEdits = hasEmbeddedEdits(path);
    }
    return status;
}

bool XMPStatus::hasEmbeddedEdits(const std::string& path) {
    std::string head;
    try {
        platform::FileDescriptor fd = platform::openForReading(path);
        head.resize(8 << 20);
        size_t total = 0;
        while (total < head.size()) {
            size_t got = platform::readSome(fd, path, std::as_writable_bytes(std::span(head)).subspan(total));
            if (got == 0) break;
            total += got;
        }
        head.resize(total);
    } catch (const std::exception&) {
        return false;
    }
    auto start = head.find("<x:xmpmeta");
    if (start == std::string::npos) return false;
    auto end = head.find("</x:xmpmeta>", start);
    if (end == std::string::npos) return false;
    std::string_view packet(head.data() + start, end + 12 - start);
    if (packet.find("crs:HasSettings=\"True\"") != std::string_view::npos) return true;
    if (packet.find("<crs:") != std::string_view::npos) return true;
    if (packet.find("<xmpMM:History>") != std::string_view::npos &&
        packet.find("<xmpMM:History>\n</xmpMM:History>") == std::string_view::npos) {
        return packet.find("<xmpMM:History/>") == std::string_view::npos;
    }
    return false;
}

}  // namespace dedup
