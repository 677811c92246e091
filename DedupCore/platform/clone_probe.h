// Finding out by trying whether a file system can make one file share another's blocks: its name
// does not tell (XFS formatted without reflink, NFS 4.2 and SMB servers that may or may not).
#pragma once

#include <optional>
#include <string>

namespace dedup::platform {

// Makes two small files in `folder`, asks the kernel to clone one onto the other (FICLONE), and
// removes them. The files are unnamed where the file system allows (O_TMPFILE), else named as the
// engine's temporary files and unlinked as soon as they are open, so nothing is left behind and
// nothing watching the folder takes them for the user's. True when the clone was made, false when
// the file system refused it; absent when nothing could be created in the folder (read-only, not
// ours) or the answer was some other failure. Never throws.
std::optional<bool> cloneWorksIn(const std::string& folder);

}  // namespace dedup::platform
