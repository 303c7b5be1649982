#include "tolven/blockallocator.h"

#include <algorithm>
#include <new>

#include "memory/BlockAllocatorHooks.h"
#include "tolven/baseallocator.h"
#include "tolven/blockallocstatmngr.h"
#include "tolven/quicklock.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {
namespace {

constexpr uint64_t kHeaderBytes = 8;
constexpr uint64_t kHandedOut = 1;
// No request may come near the top of the address space; beyond this, arithmetic on sizes
// could wrap.
constexpr uint64_t kLargestRequest = uint64_t{1} << 46;
constexpr size_t kNoRun = SIZE_MAX;

std::atomic<const detail::BlockAllocatorTestOps*> g_ops{nullptr};

void* PageAllocate(void* address, uint64_t size, uint32_t flags) {
    const detail::BlockAllocatorTestOps* ops = g_ops.load(std::memory_order_acquire);
    if (ops != nullptr && ops->allocateEx != nullptr)
        return ops->allocateEx(address, size, nullptr, IsDefaultLockPages(), flags);
    return AllocateEx(address, size, nullptr, IsDefaultLockPages(), flags);
}

bool PageFree(void* address, uint64_t size, uint32_t flags) {
    const detail::BlockAllocatorTestOps* ops = g_ops.load(std::memory_order_acquire);
    if (ops != nullptr && ops->freeAllocationEx != nullptr)
        return ops->freeAllocationEx(address, size, flags);
    return FreeAllocationEx(address, size, flags);
}

uint32_t NowMs() {
    const detail::BlockAllocatorTestOps* ops = g_ops.load(std::memory_order_acquire);
    if (ops != nullptr && ops->ticks != nullptr) return ops->ticks();
    return OrrelTickCounter::Instance()->GetTicks();
}

uint64_t* HeaderOf(void* payload) {
    return reinterpret_cast<uint64_t*>(static_cast<char*>(payload) - kHeaderBytes);
}

}  // namespace

namespace detail {
const BlockAllocatorTestOps* SetBlockAllocatorOpsForTest(const BlockAllocatorTestOps* ops) {
    return g_ops.exchange(ops, std::memory_order_acq_rel);
}
}  // namespace detail

StatManagedBlockAllocator::~StatManagedBlockAllocator() = default;

BlockAllocator::BlockAllocator(const char* name)
    : cs_(4000),
      csInitialised_(true),
      name_(name != nullptr ? name : "unnamed"),
      id_(BlockAllocatorStatMngr::GetNewInstanceId()),
      initialized_(false),
      startingBlocks_(0),
      chunkBytes_(0),
      freeBlocks_(0),
      totalBlocks_(0),
      stride_(0),
      blocksPerAllocation_(0),
      compactSeconds_(0),
      maxBlocks_(0),
      threadSafe_(true),
      reservationFactor_(0),
      strideShift_(0),
      strideInverse_(0),
      strideLimit_(0) {
    (void)BlockAllocatorStatMngr::Get().AddAllocator(this, &startingBlocks_);
}

BlockAllocator::~BlockAllocator() {
    BlockAllocatorStatMngr::Get().RemoveAllocator(this);
    (void)Term();
    csInitialised_ = false;
}

void BlockAllocator::Lock() const {
    if (threadSafe_.load(std::memory_order_relaxed)) detail::EnterHouse(cs_);
}

blockalloc_status BlockAllocator::Init(uint64_t size, uint64_t blocksPerAllocation,
                                       uint64_t maxBlocks, bool threadSafe, uint64_t compactSeconds,
                                       uint64_t reservationFactor) {
    _BLOCKALLOCATOR_INIT init;
    init.blockSize = size;
    init.blocksPerAllocation = blocksPerAllocation;
    init.maxBlocks = maxBlocks;
    init.threadSafe = threadSafe;
    init.compactSeconds = compactSeconds;
    init.reservationFactor = reservationFactor;
    return Init(&init);
}

blockalloc_status BlockAllocator::Init(const _BLOCKALLOCATOR_INIT* init) {
    if (init == nullptr || init->blockSize == 0 || init->blocksPerAllocation == 0 ||
        init->maxBlocks == 0 || init->reservationFactor == 0)
        return blockalloc_invalid_parameter;
    HouseLockGuard guard(cs_);
    (void)TermLocked();
    // Sizes the address space cannot hold are refused as the system would refuse them.
    if (init->blockSize > kLargestRequest || init->blocksPerAllocation > kLargestRequest ||
        init->reservationFactor > kLargestRequest)
        return blockalloc_out_of_memory;
    initialized_ = true;
    try {
        active_.reserve(10);
        idle_.reserve(10);
    } catch (const std::bad_alloc&) {
        (void)TermLocked();
        return blockalloc_out_of_memory;
    }
    threadSafe_.store(init->threadSafe, std::memory_order_relaxed);
    maxBlocks_ = init->maxBlocks;
    compactSeconds_ = init->compactSeconds;
    reservationFactor_ = init->reservationFactor;
    blocksPerAllocation_ = init->blocksPerAllocation;

    // The usable size is a multiple of 8 strictly above the request, at least 16.
    stride_ =
        (std::max<uint64_t>(init->blockSize + kHeaderBytes, 16) & ~uint64_t{7}) + kHeaderBytes;
    strideShift_ = static_cast<uint32_t>(__builtin_ctzll(stride_));
    const uint64_t odd = stride_ >> strideShift_;
    uint64_t inverse = odd;  // right in the low 3 bits; each step doubles that
    for (int i = 0; i < 5; ++i)
        inverse *= 2 - odd * inverse;
    strideInverse_ = inverse;
    strideLimit_ = UINT64_MAX / odd;

    const uint64_t unit = UnitBytes();
    if (unit == 0 || (CanReserveMemory() && unit > UINT64_MAX / reservationFactor_)) {
        (void)TermLocked();
        return blockalloc_out_of_memory;
    }
    chunkBytes_ = CanReserveMemory() ? reservationFactor_ * unit : unit;

    // Term above cleared startingBlocks, so this ends after its first pass: a new allocator
    // holds one run with one commit unit carved.
    blockalloc_status status;
    do {
        status = AddNewDataBlock();
        if (status != blockalloc_success) (void)TermLocked();
    } while (totalBlocks_ < startingBlocks_);
    return status;
}

uint64_t BlockAllocator::UnitBytes() const {
    const uint64_t granule = GetAllocationGranularity();
    if (blocksPerAllocation_ > kLargestRequest / stride_) return 0;
    const uint64_t bytes = stride_ * blocksPerAllocation_;
    const uint64_t granules = bytes / granule + (bytes % granule != 0 ? 1 : 0);
    return std::max<uint64_t>(granules, 1) * granule;
}

bool BlockAllocator::IsOutOfMemory() const {
    return maxBlocks_ != kBlockAllocNoLimit && blocksPerAllocation_ + totalBlocks_ > maxBlocks_;
}

blockalloc_status BlockAllocator::DataBlockCommit(_DATA_BLOCK& run) {
    if (IsOutOfMemory()) return blockalloc_out_of_memory;
    const uint64_t step = UnitBytes();
    const uint64_t take = std::min(run.reserved - run.committed, step);
    if (take == 0) return blockalloc_out_of_memory;
    // The bytes of a block that the previous commit's end cut in two.
    const uint64_t carry = run.committed % stride_;
    char* start = run.base + run.committed;
    if (CanReserveMemory() && PageAllocate(start, take, kAllocCommit) == nullptr)
        return blockalloc_out_of_memory;
    run.committed += take;

    // Carve in rising address order onto the list: the highest block goes out first.
    const uint64_t count = (take + carry) / stride_;
    char* block = start - carry;
    for (uint64_t i = 0; i < count; ++i, block += stride_) {
        *reinterpret_cast<uint64_t*>(block) = 0;
        auto* node = reinterpret_cast<_SLF_LIST_NODE*>(block + kHeaderBytes);
        node->next = run.freeList;
        run.freeList = node;
    }
    run.freeBlocks += count;
    run.totalBlocks += count;
    freeBlocks_ += count;
    totalBlocks_ += count;
    return blockalloc_success;
}

bool BlockAllocator::AppendRun(std::vector<_DATA_BLOCK>& list, const _DATA_BLOCK& run,
                               bool atFront) {
    try {
        if (atFront)
            list.insert(list.begin(), run);
        else
            list.push_back(run);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// The address handed over is one chunk past the reservation just made, because the run's
// `reserved` was raised before the commit. Nothing this allocator reserved starts there:
// whatever does belong to another owner, and a release by base would take it away from
// under them. So nothing is released and the answer is false, the answer the page layer
// gives for an address that is no reservation base. The reservation just made is not
// lost: `reserved` still counts it, and ReleaseMemory gives it back with the run.
bool BlockAllocator::ReleaseStrayReservation(void* address) {
    (void)address;
    return false;
}

blockalloc_status BlockAllocator::AddNewDataBlock() {
    // An idle run comes back before anything new is reserved; no limit applies to it.
    if (!idle_.empty()) {
        const _DATA_BLOCK run = idle_.back();
        if (!AppendRun(active_, run, false)) return blockalloc_out_of_memory;
        idle_.pop_back();
        freeBlocks_ += run.freeBlocks;
        return blockalloc_success;
    }
    if (IsOutOfMemory()) return blockalloc_out_of_memory;

    if (CanReserveMemory()) {
        // Grow a run in place, so that it stays contiguous.
        for (_DATA_BLOCK& run : active_) {
            char* behind = run.base + run.reserved;
            void* got = PageAllocate(behind, chunkBytes_, kAllocReserve);
            if (got == nullptr) continue;
            if (got != behind) {
                (void)PageFree(got, 0, kFreeRelease);
                continue;
            }
            run.reserved += chunkBytes_;
            if (DataBlockCommit(run) == blockalloc_success) return blockalloc_success;
            (void)ReleaseStrayReservation(run.base + run.reserved);
        }
    }

    const uint32_t flags = CanReserveMemory() ? kAllocReserve : kAllocReserve | kAllocCommit;
    void* base = PageAllocate(nullptr, chunkBytes_, flags);
    if (base == nullptr) return blockalloc_out_of_memory;
    _DATA_BLOCK run{};
    run.base = static_cast<char*>(base);
    run.reserved = chunkBytes_;
    const blockalloc_status status = DataBlockCommit(run);
    if (status != blockalloc_success) {
        (void)PageFree(base, 0, flags);
        return status;
    }
    if (!AppendRun(active_, run, true)) {
        freeBlocks_ -= run.freeBlocks;
        ReleaseMemory(run);
        return blockalloc_out_of_memory;
    }
    return blockalloc_success;
}

void* BlockAllocator::PopFrom(_DATA_BLOCK& run) {
    _SLF_LIST_NODE* node = run.freeList;
    run.freeList = node->next;
    --run.freeBlocks;
    --freeBlocks_;
    *HeaderOf(node) |= kHandedOut;
    return node;
}

void* BlockAllocator::GetBlock() {
    Lock();
    if (!initialized_) {
        Unlock();
        return nullptr;
    }
    for (_DATA_BLOCK& run : active_) {
        if (run.freeBlocks > 0) {
            void* block = PopFrom(run);
            Unlock();
            return block;
        }
    }
    void* block = DoAllocateAndGetBlock();
    Unlock();
    return block;
}

void* BlockAllocator::DoAllocateAndGetBlock() {
    if (CanReserveMemory()) {
        // Measured against one chunk, not the run's own reservation: a run grown in place
        // commits further only through AddNewDataBlock.
        for (_DATA_BLOCK& run : active_) {
            if (run.committed < chunkBytes_ && DataBlockCommit(run) == blockalloc_success &&
                run.freeBlocks > 0)
                return PopFrom(run);
        }
    }
    if (AddNewDataBlock() != blockalloc_success) return nullptr;
    for (_DATA_BLOCK& run : active_) {
        if (run.freeBlocks > 0) return PopFrom(run);
    }
    return nullptr;
}

size_t BlockAllocator::FindBlockRun(const void* pointer) const {
    const uintptr_t p = reinterpret_cast<uintptr_t>(pointer);
    for (size_t i = 0; i < active_.size(); ++i) {
        const _DATA_BLOCK& run = active_[i];
        // Offset of the payload from the run's start; a pointer below the run wraps high.
        const uint64_t offset = p - reinterpret_cast<uintptr_t>(run.base);
        if (offset < kHeaderBytes || offset > run.committed) continue;
        // A block start, wholly committed: anything else would have its header or its link
        // read or written outside the block.
        const uint64_t blockOffset = offset - kHeaderBytes;
        if (blockOffset + stride_ > run.committed) continue;
        if ((blockOffset & ((uint64_t{1} << strideShift_) - 1)) != 0) continue;
        if ((blockOffset >> strideShift_) * strideInverse_ > strideLimit_) continue;
        return i;
    }
    return kNoRun;
}

blockalloc_status BlockAllocator::ReleaseBlock(void* block) {
    Lock();
    if (!initialized_) {
        Unlock();
        return blockalloc_invalid_block;
    }
    const size_t index = FindBlockRun(block);
    if (index == kNoRun) {
        CompactImpl();
        Unlock();
        return blockalloc_invalid_block;
    }
    uint64_t* header = HeaderOf(block);
    if ((*header & kHandedOut) == 0) {
        Unlock();
        return blockalloc_block_not_allocated;
    }
    *header &= ~kHandedOut;
    _DATA_BLOCK& run = active_[index];
    auto* node = static_cast<_SLF_LIST_NODE*>(block);
    node->next = run.freeList;
    run.freeList = node;
    ++run.freeBlocks;
    ++freeBlocks_;

    // A wholly free run goes idle when the others can serve; the last one never does.
    if (active_.size() > 1 && run.freeBlocks == run.totalBlocks &&
        freeBlocks_ >= blocksPerAllocation_) {
        run.idleSince = NowMs();
        if (AppendRun(idle_, run, false)) {
            freeBlocks_ -= run.freeBlocks;
            active_.erase(active_.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }
    CompactImpl();
    Unlock();
    return blockalloc_success;
}

void BlockAllocator::CompactImpl() {
    if (idle_.empty()) return;
    const uint32_t now = NowMs();
    for (size_t i = 0; i < idle_.size();) {
        const uint32_t idleSeconds = static_cast<uint32_t>(now - idle_[i].idleSince) / 1000;
        if (idleSeconds > compactSeconds_) {
            ReleaseMemory(idle_[i]);
            idle_.erase(idle_.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            ++i;
        }
    }
}

blockalloc_status BlockAllocator::Compact() {
    Lock();
    if (initialized_) CompactImpl();
    Unlock();
    return blockalloc_success;
}

void BlockAllocator::ReleaseMemory(_DATA_BLOCK& run) {
    totalBlocks_ -= run.totalBlocks;
    // A run grown in place is several reservations of one chunk each.
    uint64_t remaining = run.committed;
    for (uint64_t offset = 0; offset < run.reserved && chunkBytes_ != 0; offset += chunkBytes_) {
        const uint64_t size = std::min(remaining, chunkBytes_);
        (void)PageFree(run.base + offset, size, kFreeDecommit | kFreeRelease);
        remaining -= size;
    }
    run.base = nullptr;
    run.reserved = 0;
}

void BlockAllocator::Clear() {
    active_.clear();
    idle_.clear();
    freeBlocks_ = totalBlocks_ = stride_ = blocksPerAllocation_ = maxBlocks_ = 0;
    chunkBytes_ = compactSeconds_ = startingBlocks_ = 0;
    initialized_ = false;
    threadSafe_.store(true, std::memory_order_relaxed);
}

blockalloc_status BlockAllocator::TermLocked() {
    if (initialized_) {
        for (_DATA_BLOCK& run : active_)
            ReleaseMemory(run);
        for (_DATA_BLOCK& run : idle_)
            ReleaseMemory(run);
    }
    Clear();
    strideShift_ = 0;
    strideInverse_ = strideLimit_ = 0;
    return blockalloc_success;
}

blockalloc_status BlockAllocator::Term() {
    HouseLockGuard guard(cs_);
    return TermLocked();
}

bool BlockAllocator::IsInitialized() const {
    Lock();
    const bool initialized = initialized_;
    Unlock();
    return initialized;
}

bool BlockAllocator::IsValid(void* block) const {
    Lock();
    bool valid = false;
    if (initialized_) {
        const size_t index = FindBlockRun(block);
        valid = index != kNoRun && (*HeaderOf(block) & kHandedOut) != 0;
    }
    Unlock();
    return valid;
}

bool BlockAllocator::Owns(const void* pointer) const {
    const uintptr_t p = reinterpret_cast<uintptr_t>(pointer);
    auto inside = [p](const _DATA_BLOCK& run) {
        return p - reinterpret_cast<uintptr_t>(run.base) < run.reserved;
    };
    Lock();
    const bool owned = std::any_of(active_.begin(), active_.end(), inside) ||
                       std::any_of(idle_.begin(), idle_.end(), inside);
    Unlock();
    return owned;
}

uint64_t BlockAllocator::GetBlockSize() const {
    return stride_ < 9 ? 0 : stride_ - kHeaderBytes;
}

uint64_t BlockAllocator::GetBlocksPerAllocation() const {
    return blocksPerAllocation_;
}

uint64_t BlockAllocator::GetMaxBlocks() const {
    return maxBlocks_;
}

const char* BlockAllocator::GetName() const {
    return name_.c_str();
}

blockalloc_status BlockAllocator::SetBlocksPerAllocation(uint64_t blocksPerAllocation) {
    Lock();
    blocksPerAllocation_ = blocksPerAllocation;
    Unlock();
    return blockalloc_success;
}

blockalloc_status BlockAllocator::SetMaxBlocks(uint64_t maxBlocks) {
    Lock();
    maxBlocks_ = maxBlocks;
    Unlock();
    return blockalloc_success;
}

bool BlockAllocator::GetStats(_BLOCK_ALLOC_STATS& stats) {
    stats.Reset();
    stats.Name = name_;  // fixed at construction
    Lock();
    stats.Id = id_;
    stats.BlockSize = GetBlockSize();
    stats.FreeBlocks = freeBlocks_;
    stats.FreeMemory = freeBlocks_ * stats.BlockSize;
    for (const _DATA_BLOCK& run : active_) {
        stats.CommittedMemory += run.committed;
        stats.ReservedMemory += run.reserved;
    }
    for (const _DATA_BLOCK& run : idle_) {
        stats.UnusedCommittedMemory += run.committed;
        stats.UnusedReservedMemory += run.reserved;
    }
    Unlock();
    return true;
}

}  // namespace TOLVEN
