// Block allocators keyed by block size behind one handle: BlockAllocList, the unlocked and
// reference-counted store under fast_allocator, and SharedBlockAllocList, the locked and
// process-wide one.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "tolven/blockallocator.h"
#include "tolven/detail/critical_section.h"
#include "tolven/refobj.h"

namespace TOLVEN {

// One BlockAllocator per block size, made on the first request of that size and named with
// the list's name. Sizes are matched exactly. The allocators run without their lock.
// Not thread-safe: two threads must never be in one list at once (its users hold a lock of
// their own). The reference count alone is atomic.
class BlockAllocList : public ReferencedObj {
  public:
    // A new list with one reference, or null when memory is short. `name` is kept by
    // address, not copied: it must outlive the list.
    static BlockAllocList* CreateObject(uint64_t blocksPerAllocation, const char* const name,
                                        bool enabled);

    // A block of exactly `size` bytes' allocator, or null (no exception) when memory is
    // short or `size` does not fit in 32 bits.
    void* GetBlock(uint64_t size);
    // Gives `block` back to the allocator of exactly `size`; false when there is none or it
    // refuses the block.
    bool ReleaseBlock(void* block, uint64_t size);
    // True when `block` is a live block of an allocator whose size is at least `size`.
    bool IsValid(void* block, uint64_t size);
    // True when `pointer` lies in memory held by any allocator of the list.
    bool Owns(const void* pointer) const;

    // The flag given at creation, or true after SetEnabled. Nothing in the list tests it.
    bool IsEnabled() const { return enabled_; }
    // Sets the flag.
    void SetEnabled() { enabled_ = true; }

  protected:
    ~BlockAllocList() override;

  private:
    BlockAllocList(uint64_t blocksPerAllocation, const char* name, bool enabled) noexcept;

    const char* name_;
    std::vector<std::pair<BlockAllocator*, uint64_t>> allocators_;
    uint64_t blocksPerAllocation_;
    bool enabled_;
};

// One BlockAllocator per block size, named "shared_allocator<key>", each reserving room
// for 10000 blocks at first use. GetAllocList gives one object per key for the life of the
// process. Safe for concurrent use without external locking: each object has its own
// critical section (spin count 1000), and the process-wide map its own lock, never held
// together.
class SharedBlockAllocList {
  public:
    // A list for `key`; GetAllocList is the usual way to one.
    explicit SharedBlockAllocList(uint64_t key = 0);
    // Destroys the allocators of the list.
    virtual ~SharedBlockAllocList();
    SharedBlockAllocList(const SharedBlockAllocList&) = delete;
    SharedBlockAllocList& operator=(const SharedBlockAllocList&) = delete;

    // The process-wide list of `key`, made on first request and never removed; null only
    // when memory is short.
    static SharedBlockAllocList* GetAllocList(uint64_t key);

    // A block of exactly `size` bytes' allocator, or null. `name` is not used.
    void* GetBlock(uint64_t size, const char* name);
    // Gives `block` back to the allocator of exactly `size`; false when there is none or it
    // refuses the block.
    bool ReleaseBlock(void* block, uint64_t size);
    // True when `block` is a live block of any allocator of the list, whatever `size` says.
    bool IsValid(void* block, uint64_t size) const;

  private:
    uint64_t key_;
    mutable detail::CriticalSection cs_;
    std::vector<std::pair<BlockAllocator*, uint64_t>> allocators_;
};

}  // namespace TOLVEN
