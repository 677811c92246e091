// The safety net behind LoopVolume: whatever way a test process ends, the
// volumes it mounted must not outlive it, or they pile up on the machine and
// hold loop devices that later runs need.
//
// Three layers, because no single one covers every ending:
//  - the LoopVolume destructor, for the normal path;
//  - an exit hook and fatal-signal handlers, for exit() and crashes, which
//    detach this process's mounts through a fixed table of live mount points;
//  - a sweep at the first volume a process makes, which removes what killed
//    processes (SIGKILL, power loss) left behind.
//
// All state is process-wide. Every function may be called from any thread;
// only onFatalSignal-related work runs inside a signal handler, and it touches
// nothing but the fixed table and async-signal-safe system calls.
#pragma once

#include <string>

namespace dedup::test::volume_guard {

// Where every volume folder lives: /var/tmp, not /tmp, which may be a tmpfs
// that vanishes with the very mounts that should have been cleaned up.
const std::string& volumesRoot();

// Runs once per process however often it is called: sweeps stale volumes and
// installs the exit hook and the signal handlers.
void prepareProcess();

// Records in a freshly made volume folder which process owns it. The record
// holds the process start time as well as its id, because process ids are
// soon reused on a machine with a small pid_max.
void writeOwnerRecord(const std::string& folder);

// Puts `mountPoint` under the exit hook and the signal handlers until
// releaseSlot. Call it before mounting, so a crash during the mount is covered
// too. Throws std::runtime_error when too many volumes are alive at once.
int claimSlot(const std::string& folder, const std::string& mountPoint);
void releaseSlot(int slot);

// Unmounts everything below `folder` (plain unmount a few times, lazily as a
// last resort), detaches its loop devices, waits for them to let go and
// removes the folder. Tolerates any piece being gone already, so it may run
// twice. Never throws; returns what it could not do, empty when all went well.
std::string tearDown(const std::string& folder) noexcept;

// Tears down every folder under volumesRoot() whose owner process is gone.
void sweepStaleVolumes();

}  // namespace dedup::test::volume_guard
