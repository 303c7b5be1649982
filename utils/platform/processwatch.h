// Other processes of the machine: whether one still runs, and handles that keep watching one
// even after its id is reused.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// A stamp of when process `pid` started (the low 32 bits of its start time), so that a
// reused id can be told from the process that had it. False when no such process runs.
bool ProcessStartStamp(uint64_t pid, uint32_t* stamp) noexcept;

// True while process `pid` runs (an ended process waiting to be reaped does not). With a
// `stamp` other than 0, the process must also have that start stamp.
bool ProcessIsAlive(uint64_t pid, uint32_t stamp) noexcept;

// Opens a handle on process `pid` that tells whether it has ended (pidfd_open, OpenProcess
// with SYNCHRONIZE). 0 when it cannot be opened, for instance because no such process runs.
uint64_t OpenProcessWatch(uint64_t pid) noexcept;

// True while the process of `watch` runs; false for handle 0 and once the process ended.
bool ProcessWatchRunning(uint64_t watch) noexcept;

// Closes a handle of OpenProcessWatch; 0 is ignored.
void CloseProcessWatch(uint64_t watch) noexcept;

}  // namespace TOLVEN::platform
