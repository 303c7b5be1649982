// BlobPools: the process-wide pools that serve every blob's handle, index and buffer.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <vector>

#include "blob/blob_internal.h"
#include "platform/thread.h"
#include "threads/thread_hooks.h"
#include "tolven/fastblockallocator.h"

namespace TOLVEN {
namespace detail {
namespace {

// Largest request a pool serves; above it malloc does.
constexpr uint64_t kLargestPoolBlock = 2048;

// A list of pools in ascending block size, with a table from a request size (in 8-byte
// steps) to the first pool that holds it. Built once, never torn down: blocks handed out
// may outlive every static object. Safe for concurrent use without external locking.
class BlobPools {
  public:
    BlobPools() {
        Add(56, 2000);
        Add(72, 2000);
        Add(768, 2000);
        Add(64, 500);
        Add(256, 500);
        Add(384, 250);
        Add(512, 250);
        Add(768, 125);  // present already: the first 768 stays
        Add(1024, 125);
        Add(2048, 40);
        std::sort(pools_.begin(), pools_.end(),
                  [](const Pool& a, const Pool& b) { return a.size < b.size; });
        size_t p = 0;
        for (uint64_t step = 0; step <= kLargestPoolBlock / 8; ++step) {
            while (pools_[p].size < step * 8)
                ++p;
            bySize_[step] = static_cast<uint8_t>(p);
        }
        // A pool whose Init failed answers null, which the callers report as out of memory.
        for (Pool& pool : pools_)
            (void)pool.allocator->Init(pool.size, pool.perAllocation, 0xFFFFFFFFu);
    }

    // The pool for a request of `n` bytes, n <= kLargestPoolBlock.
    struct Pool {
        uint64_t size;
        uint64_t perAllocation;
        FastBlockAllocator* allocator;
    };
    Pool& For(uint64_t n) noexcept { return pools_[bySize_[(n + 7) / 8]]; }

  private:
    void Add(uint64_t size, uint64_t perAllocation) {
        for (const Pool& p : pools_)
            if (p.size == size) return;
        pools_.push_back(Pool{size, perAllocation, new FastBlockAllocator("Blob alloc")});
    }

    std::vector<Pool> pools_;
    uint8_t bySize_[kLargestPoolBlock / 8 + 1] = {};
};

std::atomic<BlobPools*> g_pools{nullptr};
std::atomic<int> g_building{0};
std::atomic<void (*)()> g_outOfMemory{nullptr};

BlobPools* BuildPools() noexcept {
    for (;;) {
        if (BlobPools* p = g_pools.load(std::memory_order_acquire)) return p;
        int expected = 0;
        if (g_building.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
            if (g_pools.load(std::memory_order_acquire) == nullptr)
                g_pools.store(new BlobPools, std::memory_order_release);
            return g_pools.load(std::memory_order_acquire);
        }
        platform::SleepMs(100);
    }
}

inline BlobPools& Pools() noexcept {
    BlobPools* p = g_pools.load(std::memory_order_acquire);
    return p != nullptr ? *p : *BuildPools();
}

}  // namespace

void EnsureBlobPools() noexcept {
    (void)Pools();
}

void* BlobAlloc(uint64_t size, uint64_t* capacity) noexcept {
    void* block;
    if (size <= kLargestPoolBlock) {
        BlobPools::Pool& pool = Pools().For(size);
        block = pool.allocator->GetBlock();
        *capacity = pool.size;
    } else {
        block = size <= SIZE_MAX ? std::malloc(static_cast<size_t>(size)) : nullptr;
        *capacity = size;
    }
    if (block == nullptr) {
        *capacity = 0;
        if (void (*handler)() = g_outOfMemory.load(std::memory_order_acquire)) handler();
    }
    return block;
}

void BlobFree(void* block, uint64_t capacity) noexcept {
    if (block == nullptr) return;
    if (capacity <= kLargestPoolBlock)
        (void)Pools().For(capacity).allocator->ReleaseBlock(block);
    else
        std::free(block);
}

// The main thread's configuration builds the pools, so the first blob on a hot path does
// not pay for them.
void OnMainThreadConfigured() {
    EnsureBlobPools();
}

}  // namespace detail

void SetBlobOutOfMemoryHandler(void (*handler)()) {
    detail::EnsureBlobPools();
    detail::g_outOfMemory.store(handler, std::memory_order_release);
}

}  // namespace TOLVEN
