// Processor affinity, NUMA nodes, COM apartments and the error code of these calls.
//
// Masks are 64-bit words of processor numbers, bit n for processor n, as in one Windows
// processor group; processors beyond 63 are not addressed. Every call returns 0 on success
// and the platform's error code otherwise (errno, GetLastError).
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// The highest NUMA node number of the machine (0 on a machine without NUMA).
uint32_t NumaHighestNode(uint32_t* highest) noexcept;

// The processors of NUMA node `node`.
uint32_t NumaNodeMask(uint32_t node, uint64_t* mask) noexcept;

// The processors the process may run on. On Linux, where each thread has its own mask, the
// union of the masks of every thread of the process.
uint32_t GetProcessAffinity(uint64_t* mask) noexcept;

// Restricts the process to `mask`. On Linux every thread of the process takes the part of
// its own mask that lies in `mask`, or all of `mask` when nothing of its own lies there, so
// threads bound inside the new mask stay bound.
uint32_t SetProcessAffinity(uint64_t mask) noexcept;

// Binds thread `thread` (a handle from CurrentThreadHandle) to `mask`.
uint32_t SetThreadAffinity(void* thread, uint64_t mask) noexcept;

// Enters the calling thread into a COM apartment with `flags` (CoInitializeEx); nothing
// where there is no COM.
void ComInitialize(uint32_t flags) noexcept;

// Leaves the calling thread's COM apartment (CoUninitialize); nothing where there is no COM.
void ComUninitialize() noexcept;

// The error code of the calling thread's last failed platform call (errno, GetLastError).
uint32_t LastOsError() noexcept;

}  // namespace TOLVEN::platform
