// The block allocator behind each blob pool: a named allocator of fixed-size blocks with
// Init(blockSize, blocksPerAllocation, maxBlocks), GetBlock and ReleaseBlock.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "platform/thread.h"

namespace TOLVEN::detail {

// A free list of fixed-size blocks carved from runs of `blocksPerAllocation`, guarded by a
// one-word spin lock. Runs are never returned. Safe for concurrent use without external
// locking.
class PoolBlockAllocator {
  public:
    explicit PoolBlockAllocator(const char* name) noexcept : name_(name) {}
    PoolBlockAllocator(const PoolBlockAllocator&) = delete;
    PoolBlockAllocator& operator=(const PoolBlockAllocator&) = delete;

    // Sets the block size and run length and carves the first run. 0 on success.
    int Init(uint64_t blockSize, uint64_t blocksPerAllocation, uint64_t maxBlocks) noexcept {
        (void)maxBlocks;
        size_ = (blockSize + 15) & ~uint64_t{15};
        perRun_ = blocksPerAllocation == 0 ? 1 : blocksPerAllocation;
        Enter();
        const bool ok = Carve();
        Leave();
        return ok ? 0 : 1;
    }
    // A block, or null when memory is exhausted.
    void* GetBlock() noexcept {
        Enter();
        if (head_ == nullptr && !Carve()) {
            Leave();
            return nullptr;
        }
        Link* l = head_;
        head_ = l->next;
        Leave();
        return l;
    }
    // Takes a block back. 0 on success.
    int ReleaseBlock(void* block) noexcept {
        Link* l = static_cast<Link*>(block);
        Enter();
        l->next = head_;
        head_ = l;
        Leave();
        return 0;
    }
    // The allocator's name.
    const char* GetName() const noexcept { return name_; }

  private:
    struct Link {
        Link* next;
    };
    void Enter() noexcept {
        while (busy_.exchange(true, std::memory_order_acquire))
            while (busy_.load(std::memory_order_relaxed))
                platform::CpuRelax();
    }
    void Leave() noexcept { busy_.store(false, std::memory_order_release); }
    bool Carve() noexcept {
        auto* run = static_cast<unsigned char*>(std::malloc(size_ * perRun_));
        if (run == nullptr) return false;
        for (uint64_t i = perRun_; i-- > 0;) {
            Link* l = reinterpret_cast<Link*>(run + i * size_);
            l->next = head_;
            head_ = l;
        }
        return true;
    }

    const char* name_;
    std::atomic<bool> busy_{false};
    Link* head_ = nullptr;
    uint64_t size_ = 0;
    uint64_t perRun_ = 1;
};

}  // namespace TOLVEN::detail
