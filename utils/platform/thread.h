// Thread identity, names, priorities, sleep and processor hints.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TOLVEN::platform {

// The operating system's 32-bit id of the calling thread (gettid, GetCurrentThreadId).
uint32_t CurrentThreadId() noexcept;

// An opaque handle of the calling thread, as the OS knows it.
void* CurrentThreadHandle() noexcept;

// Names the calling thread for debuggers and tools. The OS copy may be cut (15 characters
// on Linux); callers keep the full name themselves.
void SetCurrentThreadName(const char* name) noexcept;

// Copies the calling thread's name as the OS keeps it into `out` (always terminated).
// False when the OS keeps no name or cannot say (Windows before 10).
bool GetCurrentThreadName(char* out, size_t size) noexcept;

// Sets the scheduling priority of the thread with OS id `threadId`, on the Windows scale
// (-2, -1, 0, 1, 2, 15). False when the OS refuses, for instance for want of privilege.
bool SetThreadPriority(uint32_t threadId, int priority) noexcept;

// True when the thread with OS id `threadId` is known to have ended, even without running
// its own ending (Windows ends the other threads of a process before a library's exit
// handlers run). False while it runs, and on POSIX, where threads end only through their
// own code or with the whole process.
bool ThreadHasEnded(uint32_t threadId) noexcept;

// Sleeps for at least `ms` milliseconds.
void SleepMs(uint32_t ms) noexcept;

// Gives the processor to another ready thread.
void YieldThread() noexcept;

// The processor's spin-wait hint (`pause` on x86).
void CpuRelax() noexcept;

}  // namespace TOLVEN::platform
