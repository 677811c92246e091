// The user's saved choice of files to leave out, as an unattended pass reads it. A file that
// exists but cannot be read stands for choices the user made and we cannot see: rather than
// reclaim the copies they kept apart, such a pass leaves out everything, and the automatic
// reclaimer does not even start one. Any thread.
#pragma once

#include <string>

#include "reclaim_plan.h"

namespace dedup::app::SavedSelection {

// False when the file exists and cannot be read or decoded; a missing file is an empty choice.
bool readable(const std::string& path);
// The saved selection; nothing left out when there is no file; everything left out when it
// cannot be read.
Selection forPass(const std::string& path);

}  // namespace dedup::app::SavedSelection
