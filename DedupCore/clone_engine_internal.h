// What the clone engine's replacement and its leftover recovery share. Not for other callers.
#pragma once

#include <string>

#include "platform/file_io.h"

namespace dedup {

// Renames `temporaryName` in `folder` to a free, clear name beside the copy `name` ("photo (other
// version).jpg"), never over an existing file, and answers its path. For a version that is not ours
// to remove and not ours to put at the copy's path.
std::string keepBeside(const platform::FileDescriptor& folder, const std::string& folderPath,
                       const std::string& temporaryName, const std::string& name);

}  // namespace dedup
