// What the command needs of its own process: interruption by the user and the terminal it draws on.
#pragma once

#include <string>

namespace dedup::platform {

// SIGINT and SIGTERM only set a flag, so long work can stop between files and report what it has.
// A second SIGINT while the first is still being honoured ends the process at once.
void installInterruptHandlers();
bool interrupted();

// For commands that only wait for the end: SIGINT and SIGTERM are blocked in the calling thread and
// every thread it starts later, and waitForTermination() returns once either arrives.
void blockTerminationSignals();
void waitForTermination();

// Names the calling thread, as ps, top and debuggers show it (at most 15 characters are kept).
void nameThread(const std::string& name);

// Puts the calling thread, and every thread it starts later, at idle CPU and I/O priority: it runs
// and reads only when nothing else wants the processor or the disk. Best effort.
void useIdlePriority();

// Hands the memory the allocator keeps free back to the system, for a process that waits long
// between bursts of work. Best effort.
void releaseFreeMemory();

bool isTerminal(int fd);
// Columns of the terminal on `fd`; 0 when unknown.
int terminalWidth(int fd);

}  // namespace dedup::platform
