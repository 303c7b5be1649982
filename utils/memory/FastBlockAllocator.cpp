#include "tolven/fastblockallocator.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>

#if __has_include(<cxxabi.h>)
#include <cxxabi.h>
#define TOLVEN_HAS_CXXABI 1
#endif

#include "tolven/logapi.h"
#include "tolven/quicklock.h"

namespace TOLVEN {

// ---- FastBlockAllocator ------------------------------------------------------------------

FastBlockAllocator::FastBlockAllocator(const char* name)
    : BlockAllocator(name), fallback_(false), fastHead_(0) {}

FastBlockAllocator::~FastBlockAllocator() {
    (void)Term();
}

blockalloc_status FastBlockAllocator::Init(uint64_t size, uint64_t blocksPerAllocation,
                                           uint64_t maxBlocks) {
    _BLOCKALLOCATOR_INIT init;
    init.blockSize = size;
    init.blocksPerAllocation = blocksPerAllocation;
    init.maxBlocks = maxBlocks;
    return Init(&init);
}

blockalloc_status FastBlockAllocator::Init(const _BLOCKALLOCATOR_INIT* init) {
    (void)Term();
    if (init == nullptr) return blockalloc_invalid_parameter;
    // A free block on the stack holds its link in its first word.
    _BLOCKALLOCATOR_INIT raised = *init;
    raised.blockSize = std::max<uint64_t>(raised.blockSize, sizeof(uint64_t));
    const blockalloc_status status = BlockAllocator::Init(&raised);
    if (status == blockalloc_success) Warmup(raised.blocksPerAllocation);
    return status;
}

void FastBlockAllocator::Warmup(uint64_t blocks) {
    // Init carved at least blocksPerAllocation blocks, so none of these calls commits.
    for (uint64_t i = 0; i < blocks; ++i) {
        void* block = BlockAllocator::GetBlock();
        if (block == nullptr) break;
        (void)ReleaseBlock(block);
    }
}

blockalloc_status FastBlockAllocator::ReleaseSlow(void* block) {
    const uint64_t address = reinterpret_cast<uintptr_t>(block);
    if ((address & ~kPointerMask) != 0 && !fallback_.exchange(true, std::memory_order_relaxed)) {
        TOLVEN_LOG(LOGGER_WARN, "FastBlockAllocator", "TOLVEN::FastBlockAllocator::ReleaseBlock",
                   "Possible truncation may occur in fast allocator - falling back to normal "
                   "block allocator behaviour.");
    }
    return BlockAllocator::ReleaseBlock(block);
}

blockalloc_status FastBlockAllocator::Term() {
    uint64_t head = fastHead_.load(std::memory_order_acquire);
    while ((head & kPointerMask) != 0) {
        auto* top = reinterpret_cast<uint64_t*>(head & kPointerMask);
        const uint64_t next = ReadLink(top);
        if (fastHead_.compare_exchange_weak(head, next | NextTag(head), std::memory_order_acquire,
                                            std::memory_order_acquire))
            (void)BlockAllocator::ReleaseBlock(top);
    }
    return BlockAllocator::Term();
}

// ---- FastBlockAllocatorList --------------------------------------------------------------

namespace {

bool SameInit(const _BLOCKALLOCATOR_INIT& a, const _BLOCKALLOCATOR_INIT& b) {
    return a.blockSize == b.blockSize && a.blocksPerAllocation == b.blocksPerAllocation &&
           a.maxBlocks == b.maxBlocks && a.threadSafe == b.threadSafe &&
           a.compactSeconds == b.compactSeconds && a.reservationFactor == b.reservationFactor;
}

}  // namespace

FastBlockAllocatorList& FastBlockAllocatorList::GetDefault() {
    // Never destroyed: users may give their allocators back during exit.
    static FastBlockAllocatorList* const list = new FastBlockAllocatorList;
    return *list;
}

FastBlockAllocatorList::FastBlockAllocatorList() : cs_(4000) {}

FastBlockAllocatorList::~FastBlockAllocatorList() {
    for (Holder* holder : holders_) {
        delete holder->allocator_;
        while (holder->Release() > 0) {
        }
    }
}

blockalloc_status FastBlockAllocatorList::Init(const _BLOCKALLOCATOR_INIT& init,
                                               FastBlockAllocator** allocator, const char* name) {
    if (allocator == nullptr) return blockalloc_invalid_parameter;
    *allocator = nullptr;
    HouseLockGuard guard(cs_);
    for (Holder* holder : holders_) {
        if (SameInit(holder->init_, init)) {
            holder->AddRef();
            *allocator = holder->allocator_;
            return blockalloc_success;
        }
    }
    auto* made = new (std::nothrow) FastBlockAllocator(name);
    if (made == nullptr) return blockalloc_out_of_memory;
    const blockalloc_status status = made->Init(&init);
    if (status != blockalloc_success) {
        delete made;
        return status;
    }
    auto* holder = new (std::nothrow) Holder(init, made);
    if (holder == nullptr) {
        delete made;
        return blockalloc_out_of_memory;
    }
    try {
        holders_.push_back(holder);
    } catch (const std::bad_alloc&) {
        (void)holder->Release();
        delete made;
        return blockalloc_out_of_memory;
    }
    *allocator = made;
    return blockalloc_success;
}

blockalloc_status FastBlockAllocatorList::Term(FastBlockAllocator* allocator) {
    HouseLockGuard guard(cs_);
    const auto it = std::find_if(holders_.begin(), holders_.end(),
                                 [allocator](Holder* h) { return h->allocator_ == allocator; });
    if (it == holders_.end() || allocator == nullptr) return blockalloc_invalid_parameter;
    Holder* holder = *it;
    if (holder->Release() > 0) return blockalloc_success;
    // The last user: the holder is gone; the allocator follows it.
    holders_.erase(it);
    (void)allocator->Term();
    delete allocator;
    return blockalloc_success;
}

// ---- type names --------------------------------------------------------------------------

namespace detail {

const char* TypeDisplayName(const std::type_info& type) {
    // One copy per name for the life of the process: lists keep the address.
    struct Names {
        QuickLock lock;
        std::set<std::string, std::less<>> names;
    };
    static Names* const store = new Names;

    const char* raw = type.name();
    std::string name;
    try {
#ifdef TOLVEN_HAS_CXXABI
        int status = -1;
        std::unique_ptr<char, void (*)(void*)> demangled(
            abi::__cxa_demangle(raw, nullptr, nullptr, &status), std::free);
        name = status == 0 && demangled ? demangled.get() : raw;
#else
        name = raw;
#endif
        QuickLockGuard guard(store->lock);
        return store->names.insert(std::move(name)).first->c_str();
    } catch (const std::bad_alloc&) {
        return raw;  // the compiler's own text lives as long as the program
    }
}

}  // namespace detail

}  // namespace TOLVEN
