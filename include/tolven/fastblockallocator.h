// Fixed-size allocation for hot paths: FastBlockAllocator, a lock-free stack of ready blocks
// in front of a BlockAllocator; FastBlockAllocatorList, which lets users of one
// configuration share one; and fast_allocator, the standard allocator over BlockAllocList.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "tolven/blockallocator.h"
#include "tolven/blockalloclist.h"
#include "tolven/detail/critical_section.h"
#include "tolven/detail/race_annotations.h"
#include "tolven/refobj.h"

namespace TOLVEN {

// A BlockAllocator (same object, id and name) with a lock-free stack of handed-out blocks
// in front. The stack's head is one 64-bit word on its own cache line: the low 48 bits are
// the top block's address, the high 16 bits a tag that every push and pop increments, so
// that a pop working from a stale head fails. A free block's first word links it to the
// next one.
//
// Init pre-fills the stack with blocksPerAllocation blocks. GetBlock pops, or takes a block
// from the BlockAllocator when the stack is empty; ReleaseBlock pushes. A block on the
// stack counts as handed out for the BlockAllocator, and nothing goes back to it before
// Term: the pool keeps its high-water mark. A push does not look at the block, so a second
// release is not caught here. Should a block's address not fit in 48 bits, the allocator
// logs once and from then on releases straight to the BlockAllocator (the fallback).
//
// Safe for concurrent use without external locking for GetBlock and ReleaseBlock, which take
// no lock and make no system call while the stack holds blocks. Init and Term must not run
// alongside block traffic.
class FastBlockAllocator : public BlockAllocator {
  public:
    // A new allocator, registered with the statistics manager.
    explicit FastBlockAllocator(const char* name);
    // Term, then the BlockAllocator's destruction.
    ~FastBlockAllocator();

    // Term; then BlockAllocator::Init with the block size raised to at least 8 (the link),
    // and on success pre-fills the stack with blocksPerAllocation blocks.
    blockalloc_status Init(const _BLOCKALLOCATOR_INIT* init);
    // Init with threadSafe true, compactSeconds 10 and reservationFactor 2.
    blockalloc_status Init(uint64_t size, uint64_t blocksPerAllocation, uint64_t maxBlocks);

    // A block from the stack, else from the BlockAllocator; null when out of memory.
    void* GetBlock() {
        uint64_t head = fastHead_.load(std::memory_order_acquire);
        while ((head & kPointerMask) != 0) {
            auto* top = reinterpret_cast<uint64_t*>(head & kPointerMask);
            const uint64_t next = ReadLink(top);
            if (fastHead_.compare_exchange_weak(head, next | NextTag(head),
                                                std::memory_order_acquire,
                                                std::memory_order_acquire))
                return top;
        }
        return BlockAllocator::GetBlock();
    }

    // Pushes `block` on the stack; in fallback, or for null, BlockAllocator::ReleaseBlock
    // and its status.
    blockalloc_status ReleaseBlock(void* block) {
        const uint64_t address = reinterpret_cast<uintptr_t>(block);
        if (address == 0 || (address & ~kPointerMask) != 0 ||
            fallback_.load(std::memory_order_relaxed))
            return ReleaseSlow(block);
        Push(address);
        return blockalloc_success;
    }

    // Hands every block on the stack back to the BlockAllocator, then BlockAllocator::Term.
    blockalloc_status Term();

    // True once a block's address did not fit in 48 bits.
    bool IsFallback() const { return fallback_.load(std::memory_order_relaxed); }

  private:
    friend class FastBlockAllocatorList;

    static constexpr uint64_t kPointerMask = (uint64_t{1} << 48) - 1;
    static constexpr uint64_t kTagOne = uint64_t{1} << 48;

    // The tag of `head` plus one, wrapping at 16 bits, in place.
    static uint64_t NextTag(uint64_t head) { return (head + kTagOne) & ~kPointerMask; }

    // The link in a block's first word. The block may belong to another thread by now: the
    // read is atomic, its value is used only if the swap then finds the head unchanged,
    // and the tag makes sure it cannot.
    static uint64_t ReadLink(uint64_t* block) {
        TOLVEN_IGNORE_READS_BEGIN();
        const uint64_t link = std::atomic_ref<uint64_t>(*block).load(std::memory_order_relaxed);
        TOLVEN_IGNORE_READS_END();
        return link & kPointerMask;
    }

    void Push(uint64_t address) {
        __builtin_prefetch(&fastHead_, 1);
        auto* link = reinterpret_cast<uint64_t*>(address);
        uint64_t head = fastHead_.load(std::memory_order_relaxed);
        do {
            std::atomic_ref<uint64_t>(*link).store(head & kPointerMask, std::memory_order_relaxed);
        } while (!fastHead_.compare_exchange_weak(
            head, address | NextTag(head), std::memory_order_release, std::memory_order_relaxed));
    }

    // Null, an address beyond 48 bits (switches to fallback, logged once) and fallback.
    blockalloc_status ReleaseSlow(void* block);
    // Takes `blocks` blocks from the BlockAllocator and pushes them.
    void Warmup(uint64_t blocks);

    std::atomic<bool> fallback_;
    alignas(64) std::atomic<uint64_t> fastHead_;
};

// A registry of shared FastBlockAllocators: Init with a configuration equal, field by
// field, to one already made gives that allocator and counts one more user; Term gives it
// back, and the last Term destroys it. Names are not compared: the first user's stays.
// Safe for concurrent use without external locking.
class FastBlockAllocatorList {
  public:
    // One shared allocator, its configuration and its users.
    class Holder : public ReferencedObj {
      public:
        Holder(const _BLOCKALLOCATOR_INIT& init, FastBlockAllocator* allocator) noexcept
            : init_(init), allocator_(allocator) {}
        _BLOCKALLOCATOR_INIT init_;
        FastBlockAllocator* allocator_;
    };

    // The process-wide list, made on first use.
    static FastBlockAllocatorList& GetDefault();

    FastBlockAllocatorList();
    // Destroys the allocators still held.
    ~FastBlockAllocatorList();
    FastBlockAllocatorList(const FastBlockAllocatorList&) = delete;
    FastBlockAllocatorList& operator=(const FastBlockAllocatorList&) = delete;

    // Stores in `*allocator` the shared allocator for `init`, made and named `name` if need
    // be. Status 2 for a null `allocator`; a failed Init gives its status and null.
    blockalloc_status Init(const _BLOCKALLOCATOR_INIT& init, FastBlockAllocator** allocator,
                           const char* name);
    // Gives a user's allocator back; status 2 for one the list does not hold.
    blockalloc_status Term(FastBlockAllocator* allocator);

  private:
    detail::CriticalSection cs_;
    std::vector<Holder*> holders_;
};

namespace detail {

// The display name of a type: demangled where the compiler allows, kept for the life of
// the process. Safe for concurrent use.
const char* TypeDisplayName(const std::type_info& type);

// What fast_allocator throws when no block can be had.
class fast_bad_alloc : public std::bad_alloc {
  public:
    const char* what() const noexcept override { return "bad allocation"; }
};

}  // namespace detail

// A standard allocator that takes objects from a BlockAllocList, one BlockAllocator per
// object size, with `N` blocks per allocation; `flag` is the list's enabled flag. Copies
// and rebound copies share one list (made on first need) through its reference count.
// A failed allocation throws std::bad_alloc ("bad allocation"). Deallocation of a size the
// list has never seen goes to the heap's free. Blocks are 8-byte aligned: types needing
// more are refused at compile time.
// Not thread-safe: a list, and every allocator copied from it, must be used by one thread
// at a time.
template <class T, uint64_t N = 100, bool flag = true>
class fast_allocator {
    static_assert(alignof(T) <= 8, "fast_allocator blocks are 8-byte aligned");

  public:
    using value_type = T;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using propagate_on_container_copy_assignment = std::true_type;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;
    template <class U>
    struct rebind {
        using other = fast_allocator<U, N, flag>;
    };

    fast_allocator() noexcept = default;
    fast_allocator(const fast_allocator& other) : list_(other.Shared()) { Hold(); }
    template <class U>
    fast_allocator(const fast_allocator<U, N, flag>& other) : list_(other.Shared()) {
        Hold();
    }
    fast_allocator& operator=(const fast_allocator& other) {
        if (this != &other) {
            BlockAllocList* list = other.Shared();
            if (list != nullptr) list->AddRef();
            Drop();
            list_ = list;
        }
        return *this;
    }
    ~fast_allocator() { Drop(); }

    // Room for `n` objects.
    T* allocate(size_type n) {
        if (n > UINT64_MAX / sizeof(T)) throw detail::fast_bad_alloc();
        void* block = Shared() != nullptr ? list_->GetBlock(n * sizeof(T)) : nullptr;
        if (block == nullptr) throw detail::fast_bad_alloc();
        return static_cast<T*>(block);
    }

    // Gives back room for `n` objects.
    void deallocate(T* pointer, size_type n) noexcept {
        const uint64_t bytes = static_cast<uint64_t>(n) * sizeof(T);
        if (list_ != nullptr) {
            if (list_->ReleaseBlock(pointer, bytes)) return;
            // A block of the list that it refused (released twice, or with another size)
            // is not the heap's to take.
            if (list_->Owns(pointer)) return;
        }
        std::free(pointer);
    }

    // The shared list, made now if there is none yet.
    BlockAllocList* Shared() const {
        if (list_ == nullptr)
            list_ = BlockAllocList::CreateObject(N, detail::TypeDisplayName(typeid(T)), flag);
        return list_;
    }

    template <class U>
    bool operator==(const fast_allocator<U, N, flag>& other) const noexcept {
        return list_ == other.Peek();
    }
    // The list held, without making one.
    BlockAllocList* Peek() const noexcept { return list_; }

  private:
    void Hold() noexcept {
        if (list_ != nullptr) list_->AddRef();
    }
    void Drop() noexcept {
        if (list_ != nullptr) list_->Release();
        list_ = nullptr;
    }

    mutable BlockAllocList* list_ = nullptr;
};

}  // namespace TOLVEN
