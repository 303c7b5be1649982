// Seams of the block allocators for tests and benchmarks: the page calls and the clock.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// Replacements for the page calls and the millisecond clock of every block allocator. A
// null member keeps the real one (AllocateEx, FreeAllocationEx, the tick counter).
struct BlockAllocatorTestOps {
    void* (*allocateEx)(void* address, uint64_t size, uint64_t* actualSize, bool lockPages,
                        uint32_t flags) = nullptr;
    bool (*freeAllocationEx)(void* address, uint64_t size, uint32_t flags) = nullptr;
    uint32_t (*ticks)() = nullptr;
};

// Installs `ops` (which must outlive its use; null restores the real calls) and returns the
// ones it replaces. Not for use while allocators are busy on other threads.
const BlockAllocatorTestOps* SetBlockAllocatorOpsForTest(const BlockAllocatorTestOps* ops);

}  // namespace TOLVEN::detail
