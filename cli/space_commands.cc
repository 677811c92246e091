// true-size, holders and show: where the space of a disk really is once files share blocks.
#include "command.h"

namespace dedup::cli {

void addSpaceCommands(CLI::App&, Commands&) {}

}  // namespace dedup::cli
