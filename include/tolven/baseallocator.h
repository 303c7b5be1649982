// Whole pages from the operating system: reserve, commit, lock, release, and named
// shared memory. The block allocators take all their memory through these functions.
//
// All functions are safe for concurrent use without external locking.
//
// Address space comes in two steps. A reservation owns a range of addresses; committing
// pages inside it gives them storage, which reads as zeros until written. The rules are
// the same on every platform:
// - a reservation begins on a multiple of GetAllocationGranularity() (64 KiB), and a
//   wanted address is rounded down to one; asking for a reservation at an address that is
//   partly in use fails, and never disturbs what is there;
// - a commit keeps the address it is given and must lie inside one reservation;
// - a release names a reservation's base and frees the whole reservation;
// - sizes are rounded up to whole pages of the operating system.
#pragma once

#include <cstdint>

namespace TOLVEN {

// AllocateEx flags.
inline constexpr uint32_t kAllocReserve = 1;  // reserve address space
inline constexpr uint32_t kAllocCommit = 2;   // commit pages
// FreeAllocationEx flags.
inline constexpr uint32_t kFreeRelease = 1;   // release the reservation at `address`
inline constexpr uint32_t kFreeDecommit = 2;  // decommit `size` bytes from `address`

// Reserves and commits `size` bytes with the lock-pages default:
// AllocateEx(nullptr, size, actualSize, IsDefaultLockPages(), 3).
void* Allocate(uint64_t size, uint64_t* actualSize);

// Reserves and/or commits whole pages, at `address` or anywhere when null. `actualSize`
// (may be null) receives the rounded size, or 0 on failure; a size of 0 gives one page.
// Flags: kAllocReserve, kAllocCommit or both; none gives null. With `lockPages` and
// kAllocCommit the pages are locked in memory if the system allows; a refusal does not
// fail the call, and the first refusal in the process is logged once at level 32.
// Pages are placed on get_default_numanode() on machines with more than one node.
void* AllocateEx(void* address, uint64_t size, uint64_t* actualSize, bool lockPages,
                 uint32_t flags);

// Opens the named shared region `name`, or creates it with the low 32 bits of `size`
// bytes, and maps all of it. `handle` is required and receives the mapping's handle;
// `actualSize` (the region's size in whole pages) and `alreadyExisted` may be null. An
// existing region keeps the size it was created with. The region lives while a handle is
// open; unmap views before closing the last handle. Null on failure.
void* AllocateSM(const char* name, uint64_t size, uint64_t* handle, uint64_t* actualSize,
                 bool* alreadyExisted);

// Decommits and releases the reservation at `address`; false for null or on failure.
bool FreeAllocation(void* address);

// kFreeDecommit decommits `size` bytes at `address` (0: the whole reservation, `address`
// being its base); then kFreeRelease releases the reservation at `address`. False for a
// null address, no flag, or when a step fails; a failed decommit skips the release.
bool FreeAllocationEx(void* address, uint64_t size, uint32_t flags);

// Unmaps `view` when not null and closes `handle` when not 0.
void FreeAllocationSM(void* view, uint64_t handle);

// The allocation granularity in bytes: 64 KiB on every platform.
uint32_t GetAllocationGranularity();

// Sets the process-wide lock-pages default; always true.
bool SetDefaultLockPages(bool lock);

// True when the lock-pages default is on.
bool IsDefaultLockPages();

// The process's NUMA node for new pages; 0 until the thread file sets it.
uint32_t get_default_numanode();

// Sets the process's NUMA node for new pages (used by the thread file).
void set_default_numanode(uint32_t node);

// True: this platform splits reserving from committing.
bool CanReserveMemory();

}  // namespace TOLVEN
