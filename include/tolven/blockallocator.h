// The block allocator: blocks of one fixed size carved from page-granular runs of reserved
// address space, with an 8-byte header per block that catches a second release, and the
// statistics record every allocator reports to the allocator statistics manager.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "tolven/detail/critical_section.h"

namespace TOLVEN {

// Results of the block allocators; 0 is success.
enum [[nodiscard]] blockalloc_status : uint32_t{
    blockalloc_success = 0,              // done
    blockalloc_out_of_memory = 1,        // the limit is reached or the system gave no memory
    blockalloc_invalid_parameter = 2,    // a required value is 0 or a pointer is null
    blockalloc_invalid_block = 3,        // not initialised, or the pointer lies in no active run
    blockalloc_block_not_allocated = 4,  // the block's header says it is free already
};

// The value of `maxBlocks` that sets no limit.
inline constexpr uint64_t kBlockAllocNoLimit = 0xFFFFFFFFu;

// What BlockAllocator::Init takes. A default object carries the defaults of every field
// that has one. Not thread-safe.
struct _BLOCKALLOCATOR_INIT {
    uint64_t blockSize = 0;                   // usable bytes wanted; not 0
    uint64_t blocksPerAllocation = 0;         // blocks committed at a time; not 0
    uint64_t maxBlocks = kBlockAllocNoLimit;  // limit on all blocks; not 0
    bool threadSafe = true;                   // take the lock in GetBlock and ReleaseBlock
    uint64_t compactSeconds = 10;             // how long a wholly free run is kept
    uint64_t reservationFactor = 2;           // address space per run, in commit units; not 0
};

// One allocator's figures, as "show alloc" prints them. Not thread-safe.
struct _BLOCK_ALLOC_STATS {
    std::string Name;                    // the allocator's name
    uint64_t Id = UINT64_MAX;            // its id; all ones in the blank record
    uint64_t FreeMemory = 0;             // FreeBlocks x BlockSize
    uint64_t FreeBlocks = 0;             // free blocks in active runs
    uint64_t BlockSize = 0;              // usable bytes of a block
    uint64_t CommittedMemory = 0;        // committed bytes of the active runs
    uint64_t ReservedMemory = 0;         // reserved bytes of the active runs
    uint64_t UnusedCommittedMemory = 0;  // committed bytes of the idle runs
    uint64_t UnusedReservedMemory = 0;   // reserved bytes of the idle runs

    // Back to the blank record.
    void Reset() { *this = _BLOCK_ALLOC_STATS(); }
};

// What the allocator statistics manager knows of an allocator. Copying carries nothing.
// Safe for concurrent use without external locking: the interface holds no state, and each
// implementation guards its own.
class StatManagedBlockAllocator {
  public:
    StatManagedBlockAllocator() noexcept = default;
    StatManagedBlockAllocator(const StatManagedBlockAllocator&) noexcept {}
    StatManagedBlockAllocator& operator=(const StatManagedBlockAllocator&) noexcept {
        return *this;
    }
    virtual ~StatManagedBlockAllocator();
    // Fills `stats` with the allocator's figures; true when filled.
    virtual bool GetStats(_BLOCK_ALLOC_STATS& stats) = 0;
    // The allocator's process-wide id.
    virtual uint64_t GetBlockAllocatorId() const = 0;
};

// Link of a singly linked free list; it overlays the first word of a free block's payload.
// Not thread-safe.
struct _SLF_LIST_NODE {
    _SLF_LIST_NODE* next;
};

// One run of reserved address space and the blocks carved from it. Not thread-safe.
struct _DATA_BLOCK {
    uint64_t committed;        // bytes committed from the start of the run
    uint64_t reserved;         // bytes reserved from the start of the run
    char* base;                // start of the run
    uint64_t totalBlocks;      // blocks carved in this run
    uint64_t freeBlocks;       // of those, free now
    uint32_t idleSince;        // tick-counter milliseconds when the run went idle
    _SLF_LIST_NODE* freeList;  // the run's free blocks
};

// Hands out blocks of one fixed size. A block is `stride` bytes: an 8-byte header (bit 0
// set while the block is handed out) and the payload the caller gets, 8-byte aligned. The
// usable size is the request raised to a multiple of 8 strictly above it, at least 16.
//
// Memory comes in runs: a run reserves reservationFactor commit units of address space and
// commits one unit (blocksPerAllocation blocks, rounded up to whole 64 KiB granules) at a
// time; a run may grow in place behind its end. A run whose blocks are all free goes idle
// when other runs can serve, and an idle run goes back to the system once it has been idle
// longer than compactSeconds, checked at each release and by Compact.
//
// With threadSafe (the default) safe for concurrent use without external locking: one
// critical section guards everything. Without it, GetBlock, ReleaseBlock, IsValid and
// Compact must be serialised by the caller; Init and Term lock in any case.
class BlockAllocator : public StatManagedBlockAllocator {
  public:
    // A new allocator, registered with the statistics manager; `name` null is "unnamed".
    explicit BlockAllocator(const char* name);
    // Leaves the statistics manager, then gives all memory back.
    ~BlockAllocator() override;
    BlockAllocator(const BlockAllocator&) = delete;
    BlockAllocator& operator=(const BlockAllocator&) = delete;

    // Sets the allocator up after a Term, and carves one commit unit. Status 2 when a
    // required field is 0 (nothing changes), 1 when the limit or the system refuses (left
    // not initialised). Blocks still handed out are freed silently.
    blockalloc_status Init(const _BLOCKALLOCATOR_INIT* init);
    // Init with the fields given one by one.
    blockalloc_status Init(uint64_t size, uint64_t blocksPerAllocation, uint64_t maxBlocks,
                           bool threadSafe, uint64_t compactSeconds, uint64_t reservationFactor);
    // A block, or null when not initialised or out of memory.
    void* GetBlock();
    // Takes a block back: 3 for a pointer that is no block start of an active run, 4 for a
    // block that is free already; either leaves the state unchanged.
    blockalloc_status ReleaseBlock(void* block);
    // Gives back idle runs that have been idle longer than compactSeconds.
    blockalloc_status Compact();
    // Gives all memory back; the allocator can be initialised again.
    blockalloc_status Term();

    // True between Init and Term.
    bool IsInitialized() const;
    // True when `block` is a block start of an active run and is handed out.
    bool IsValid(void* block) const;
    // True when `pointer` lies in memory this allocator holds, active or idle.
    bool Owns(const void* pointer) const;

    // Usable bytes of a block (stride - 8), 0 when not initialised.
    uint64_t GetBlockSize() const;
    // Blocks committed at a time.
    uint64_t GetBlocksPerAllocation() const;
    // The limit on all blocks.
    uint64_t GetMaxBlocks() const;
    // The allocator's name.
    const char* GetName() const;
    // Stores the value under the lock, unchecked; it applies to the next commit.
    blockalloc_status SetBlocksPerAllocation(uint64_t blocksPerAllocation);
    // Stores the value under the lock, unchecked; it applies to the next commit.
    blockalloc_status SetMaxBlocks(uint64_t maxBlocks);

    // Enters the allocator's lock (house pattern) when threadSafe is on.
    void Lock() const;
    // Leaves the allocator's lock when threadSafe is on.
    void Unlock() const {
        if (threadSafe_.load(std::memory_order_relaxed)) cs_.Leave();
    }

    bool GetStats(_BLOCK_ALLOC_STATS& stats) override;
    uint64_t GetBlockAllocatorId() const override { return id_; }

  private:
    blockalloc_status AddNewDataBlock();
    blockalloc_status DataBlockCommit(_DATA_BLOCK& run);
    void* DoAllocateAndGetBlock();
    void CompactImpl();
    void ReleaseMemory(_DATA_BLOCK& run);
    void Clear();
    bool IsOutOfMemory() const;
    blockalloc_status TermLocked();
    // Pops the head block of `run`, marks it handed out, and gives its payload.
    void* PopFrom(_DATA_BLOCK& run);
    // The index of the active run holding a block whose payload starts at `pointer`, or
    // SIZE_MAX.
    size_t FindBlockRun(const void* pointer) const;
    bool AppendRun(std::vector<_DATA_BLOCK>& list, const _DATA_BLOCK& run, bool atFront);
    bool ReleaseStrayReservation(void* address);
    uint64_t UnitBytes() const;

    mutable detail::CriticalSection cs_;
    bool csInitialised_;
    std::string name_;
    uint64_t id_;
    bool initialized_;
    std::vector<_DATA_BLOCK> active_;
    std::vector<_DATA_BLOCK> idle_;
    uint64_t startingBlocks_;
    uint64_t chunkBytes_;
    uint64_t freeBlocks_;
    uint64_t totalBlocks_;
    uint64_t stride_;
    uint64_t blocksPerAllocation_;
    uint64_t compactSeconds_;
    uint64_t maxBlocks_;
    std::atomic<bool> threadSafe_;
    uint64_t reservationFactor_;
    // Divisibility test by the stride: stride = odd << shift, `inverse` is odd's inverse
    // modulo 2^64 and `limit` the largest quotient, so that a multiple of the stride is
    // recognised with a multiplication instead of a division.
    uint32_t strideShift_;
    uint64_t strideInverse_;
    uint64_t strideLimit_;
};

}  // namespace TOLVEN
