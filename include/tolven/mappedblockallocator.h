// Blocks of one fixed size in memory-mapped files, so that blocks outlive the process: the
// next run maps the same files and hands the blocks that were in use back one by one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tolven/blockallocator.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN {

// Results of the mapped block allocator; 0 is success.
enum [[nodiscard]] mappedblocalloc_status : uint32_t{
    mba_success = 0,              // done
    mba_invalid_parameter = 1,    // a required Init argument is 0 or null
    mba_no_file = 2,              // an extent file is not there (internal to extent opening)
    mba_io_error = 3,             // a file or mapping operation failed
    mba_bad_file = 4,             // the file's word size or stride differs
    mba_invalid_block = 5,        // the pointer is no block of an extent, or there is no extent
    mba_block_not_allocated = 6,  // the block is free already
    mba_flush_failed = 7,         // Flush failed
};

// Hands out fixed-size blocks from the extent files "<directory>/<name>.<n>.mba", n = 0, 1,
// 2 ... An extent file holds a 16-byte header (word size 8, then the stride) and
// blocksPerExtent blocks of `stride` bytes: a 32-bit state (1 while handed out), an 8-byte
// list link, and the payload the caller gets, which lies at 4 modulo 8: copy structures in
// and out with memcpy rather than casting the pointer. The state is the only record kept;
// Init walks every extent and collects the blocks found handed out, which GetAllocatedBlock
// then gives back, highest address of the last extent first. A block whose GetBlock or
// ReleaseBlock returned is recovered as such after a crash of the process; payload bytes are
// as current as the system's page writer or the last Flush made them.
//
// The files are held exclusively while open, unless the share mode of Init admits others.
// With threadSafe, safe for concurrent use without external locking: one critical section
// guards everything. Without it the caller serialises GetBlock, ReleaseBlock,
// HasAllocatedBlocks and GetAllocatedBlock; Init, Flush and Term lock in any case.
class MappedBlockAllocator : public StatManagedBlockAllocator {
  public:
    // Desired-access bits of Init: read, write.
    static constexpr unsigned long kGenericRead = 0x80000000ul;
    static constexpr unsigned long kGenericWrite = 0x40000000ul;

    // The node of a run-time list, lying in a block's list link. Not thread-safe.
    struct ListNode {
        ListNode* next;
    };

    // One open extent file. Not thread-safe.
    struct Extent {
        uint64_t index = 0;          // the n of its file name
        uint64_t file = ~0ull;       // the open file
        uint64_t mapping = 0;        // what unmapping needs besides the view
        char* view = nullptr;        // the mapped file
        char* firstBlock = nullptr;  // view + 16
        uint64_t nextUnused = 0;     // offset of the next block never handed out; 0 when none
        uint64_t available = 0;      // blocks that can still be handed out
        uint64_t freeCount = 0;      // blocks on the free list
        char* freeList = nullptr;    // the first free block, linked through the list links
    };

    // A new allocator, registered with the statistics manager (no memory-file look-up).
    MappedBlockAllocator();
    // Leaves the statistics manager, then Term.
    ~MappedBlockAllocator() override;
    MappedBlockAllocator(const MappedBlockAllocator&) = delete;
    MappedBlockAllocator& operator=(const MappedBlockAllocator&) = delete;

    // Opens (or on a first run creates) the extents of `name` in `directory` and collects
    // the blocks found handed out. Status 1 for a missing argument; success without change
    // when already initialised. A failure leaves the allocator unusable: destroy it.
    mappedblocalloc_status Init(uint64_t blockSize, uint64_t blocksPerExtent, const char* directory,
                                const char* name, bool threadSafe);
    // Init with a share mode (1 others may read, 2 others may write) and a desired access
    // (kGenericRead, kGenericWrite): without write access nothing is written to the files,
    // and no new block is handed out from existing extents.
    mappedblocalloc_status Init(unsigned long shareMode, unsigned long desiredAccess,
                                uint64_t blockSize, uint64_t blocksPerExtent, const char* directory,
                                const char* name, bool threadSafe);

    // A block's payload, or null when not initialised or no file could be added.
    void* GetBlock();
    // Gives a block back: 5 for a pointer that is no block of an open extent, 6 for a block
    // that is free already.
    mappedblocalloc_status ReleaseBlock(void* block);

    // True while blocks found handed out at Init remain to be collected.
    bool HasAllocatedBlocks();
    // The next block found handed out at Init, or null. It stays handed out: release it
    // when done.
    void* GetAllocatedBlock();
    // True when the block's state says handed out. Nothing else of the pointer is checked.
    bool IsValid(void* block) const;

    // Writes every view to its file and the files to the device; 7 at the first failure.
    mappedblocalloc_status Flush();
    // Unmaps and closes every extent and forgets the blocks not yet collected; the data
    // stays in the files, and Init reads it again.
    mappedblocalloc_status Term();

    // The name given to Init; empty before.
    const char* GetName() const { return name_.c_str(); }
    // Payload bytes asked for, 0 before Init.
    uint64_t GetBlockSize() const { return blockSize_; }
    // Bytes per block, header included.
    uint64_t GetStride() const { return stride_; }
    // Blocks per extent, as raised to fill whole pages.
    uint64_t GetBlocksPerExtent() const { return blocksPerExtent_; }
    // Bytes of the blocks of one extent.
    uint64_t GetExtentBytes() const { return extentBytes_; }
    // Bytes skipped at a page's end so that no block straddles a page.
    uint64_t GetPageWaste() const { return pageWaste_; }
    // Bytes of an extent file that are used: the header and the blocks.
    uint64_t GetFileSize() const { return fileSize_; }

    bool GetStats(_BLOCK_ALLOC_STATS& stats) override;
    uint64_t GetBlockAllocatorId() const override { return id_; }

  private:
    mappedblocalloc_status AddExtent();
    mappedblocalloc_status InitExtents();
    mappedblocalloc_status OpenMappedMem(Extent& extent, bool create);
    mappedblocalloc_status GetMemBlock(Extent& extent, char** block);
    void CloseExtent(Extent& extent);
    // The offset of the block after the one at `offset`, by the page-waste rule.
    uint64_t Step(uint64_t offset) const;
    // True when `offset` (from the view) is the start of a block of an extent.
    bool IsBlockStart(uint64_t offset) const;
    // `x` / stride into `quotient` when the stride divides `x`; false otherwise.
    bool DivideByStride(uint64_t x, uint64_t* quotient) const;
    void LinkAllocatedNode(char* block);
    void LinkFreeSpaceNode(Extent& extent, char* block);
    char* UnlinkFreeSpaceNode(Extent& extent);
    bool Writable() const { return (desiredAccess_ & kGenericWrite) != 0; }
    void Lock() const;
    void Unlock() const;

    bool initialized_;
    uint64_t id_;
    bool threadSafe_;
    uint64_t pageSize_;
    uint64_t blockSize_;
    uint64_t stride_;
    uint64_t blocksPerExtent_;
    uint64_t extentBytes_;
    uint64_t fileSize_;
    uint64_t pageWaste_;
    uint64_t freeBlocks_;
    uint64_t extentCount_;
    std::string directory_;
    std::string name_;
    unsigned long desiredAccess_;
    unsigned long shareMode_;
    mutable detail::CriticalSection cs_;
    // Where the layout changes from packed blocks to whole pages of blocks: the offset of
    // the first page-aligned block reached by a skip, and the blocks before it (all of them
    // when no skip is ever reached).
    uint64_t firstAlignedOffset_;
    uint64_t blocksBeforeAligned_;
    // Exact division by the stride without a divide: stride = odd << shift, `inverse` is
    // odd's inverse modulo 2^64 and `limit` the largest quotient of a multiple.
    uint32_t strideShift_;
    uint64_t strideInverse_;
    uint64_t strideLimit_;
    uint32_t pageShift_;
    uint64_t perPage_;  // blocks a page holds after the first skip
    std::vector<Extent> extents_;
    char* allocatedList_;
    uint64_t allocatedCount_;
    std::vector<ListNode*> allocatedNodes_;
};

}  // namespace TOLVEN
