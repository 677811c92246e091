// What the command needs of its own process: interruption by the user and the terminal it draws on.
#pragma once

namespace dedup::platform {

// SIGINT and SIGTERM only set a flag, so long work can stop between files and report what it has.
// A second SIGINT while the first is still being honoured ends the process at once.
void installInterruptHandlers();
bool interrupted();

bool isTerminal(int fd);
// Columns of the terminal on `fd`; 0 when unknown.
int terminalWidth(int fd);

}  // namespace dedup::platform
