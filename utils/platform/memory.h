// Virtual memory, NUMA placement, page locking and named shared memory.
//
// Address space is reserved and committed in two steps, as the page allocator expects:
// a reservation owns a range of addresses, and committing pages inside it gives them
// storage. Both sides keep the same rules, so that a caller behaves alike everywhere:
// - a reservation's base is a multiple of the allocation granularity, and a wanted base
//   is rounded down to it; a reservation at a chosen address fails when any of the range
//   is in use;
// - a commit or decommit must lie inside one reservation;
// - a release names the base of a reservation and frees all of it, and nothing else.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// Page size and allocation granularity in bytes.
struct MemoryInfo {
    uint32_t pageSize;
    uint32_t allocationGranularity;
};

// Bits of the `flags` argument of VirtualAllocate.
inline constexpr uint32_t kMemReserve = 1;
inline constexpr uint32_t kMemCommit = 2;
// "No NUMA preference" for VirtualAllocate.
inline constexpr uint32_t kNoNumaNode = 0xFFFFFFFFu;

// Fills `out` (GetSystemInfo); the granularity is 64 KiB everywhere.
void GetMemoryInfo(MemoryInfo* out) noexcept;

// The highest NUMA node number of the machine (GetNumaHighestNodeNumber); false when the
// question cannot be answered.
bool GetNumaHighestNode(uint32_t* highest) noexcept;

// Reserves and/or commits `bytes` (whole pages) at `address` or anywhere when null, with
// a preference for NUMA node `node` unless it is kNoNumaNode. Flags kMemCommit alone with
// a null address reserves as well. Null on failure; the error is in LastMemoryError.
void* VirtualAllocate(void* address, uint64_t bytes, uint32_t flags, uint32_t node) noexcept;

// Decommits the pages touching [address, address + bytes); with `bytes` 0, `address` must
// be a reservation base and the whole reservation is decommitted. `numa` picks the call
// that names the process (VirtualFreeEx) where the platform has one.
bool VirtualDecommit(void* address, uint64_t bytes, bool numa) noexcept;

// Releases the reservation whose base is `address`.
bool VirtualRelease(void* address, bool numa) noexcept;

// Locks committed pages into memory (VirtualLock).
bool LockPages(void* address, uint64_t bytes) noexcept;

// The error code of the last failing call of this header on the calling thread.
uint32_t LastMemoryError() noexcept;

// Opens the named shared region `name`, or creates it with `size` bytes, and maps all of
// it. On success returns the view and sets `handle` (never 0), `regionSize` (the mapped
// size in whole pages) and `alreadyExisted`. Null on failure, with nothing left open.
void* OpenSharedRegion(const char* name, uint32_t size, uint64_t* handle, uint64_t* regionSize,
                       bool* alreadyExisted) noexcept;

// Unmaps a view of OpenSharedRegion; false when `view` is not one.
bool UnmapSharedView(void* view) noexcept;

// Closes a handle of OpenSharedRegion. The region goes when its last handle is closed.
void CloseSharedHandle(uint64_t handle) noexcept;

}  // namespace TOLVEN::platform
