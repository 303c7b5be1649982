#include "tolven/baseallocator.h"

#include <atomic>

#include "memory/BaseAllocatorHooks.h"
#include "platform/memory.h"
#include "tolven/logapi.h"

namespace TOLVEN {
namespace {

// Page size and granularity, read on first need. Two threads may both read them; the
// answer is the same, so no lock is taken.
std::atomic<uint32_t> g_pageSize{0};
std::atomic<uint32_t> g_granularity{0};
std::atomic<int32_t> g_lockPagesDefault{0};
std::atomic<uint32_t> g_defaultNumaNode{0};
std::atomic<bool> g_lockFailureReported{false};
std::atomic<detail::PageLockFn> g_pageLocker{nullptr};

uint32_t PageSize() {
    uint32_t page = g_pageSize.load(std::memory_order_acquire);
    if (page == 0) {
        platform::MemoryInfo info;
        platform::GetMemoryInfo(&info);
        g_granularity.store(info.allocationGranularity, std::memory_order_relaxed);
        g_pageSize.store(info.pageSize, std::memory_order_release);
        page = info.pageSize;
    }
    return page;
}

// True on a machine with more than one NUMA node.
bool NumaInUse() {
    uint32_t highest = 0;
    return platform::GetNumaHighestNode(&highest) && highest > 0;
}

bool LockPages(void* address, uint64_t bytes) {
    detail::PageLockFn locker = g_pageLocker.load(std::memory_order_acquire);
    return locker != nullptr ? locker(address, bytes) : platform::LockPages(address, bytes);
}

}  // namespace

namespace detail {
PageLockFn SetPageLockerForTest(PageLockFn locker) {
    g_lockFailureReported.store(false, std::memory_order_relaxed);
    return g_pageLocker.exchange(locker, std::memory_order_acq_rel);
}
}  // namespace detail

void* Allocate(uint64_t size, uint64_t* actualSize) {
    return AllocateEx(nullptr, size, actualSize, IsDefaultLockPages(),
                      kAllocReserve | kAllocCommit);
}

void* AllocateEx(void* address, uint64_t size, uint64_t* actualSize, bool lockPages,
                 uint32_t flags) {
    if (actualSize != nullptr) *actualSize = 0;
    const uint64_t page = PageSize();
    uint64_t pages = size / page + (size % page != 0 ? 1 : 0);
    if (pages == 0) pages = 1;
    if (pages > UINT64_MAX / page) return nullptr;
    const uint64_t bytes = pages * page;
    flags &= kAllocReserve | kAllocCommit;
    if (flags == 0) return nullptr;

    const uint32_t node = NumaInUse() ? get_default_numanode() : platform::kNoNumaNode;
    void* memory = platform::VirtualAllocate(address, bytes, flags, node);
    if (memory == nullptr) return nullptr;

    if ((flags & kAllocCommit) != 0 && lockPages && !LockPages(memory, bytes)) {
        // Locked pages are a wish: the memory is good without them. Say so once.
        if (!g_lockFailureReported.exchange(true, std::memory_order_relaxed)) {
            static constexpr LogSite site{"BaseAllocator", __LINE__, LOGGER_WARN,
                                          "TOLVEN::AllocateEx"};
            (void)LogAt(site, 0,
                        "VirtualLock failed Error=<%u>.  You must set a working set size to "
                        "lock pages in memory.",
                        platform::LastMemoryError());
        }
    }
    if (actualSize != nullptr) *actualSize = bytes;
    return memory;
}

void* AllocateSM(const char* name, uint64_t size, uint64_t* handle, uint64_t* actualSize,
                 bool* alreadyExisted) {
    if (actualSize != nullptr) *actualSize = 0;
    if (alreadyExisted != nullptr) *alreadyExisted = false;
    if (handle == nullptr || name == nullptr) return nullptr;
    uint64_t mapping = 0, regionSize = 0;
    bool existed = false;
    // The size word is 32 bits wide: the upper half of `size` is dropped.
    void* view = platform::OpenSharedRegion(name, static_cast<uint32_t>(size), &mapping,
                                            &regionSize, &existed);
    if (view == nullptr) return nullptr;
    if (actualSize != nullptr) *actualSize = regionSize;
    if (alreadyExisted != nullptr) *alreadyExisted = existed;
    *handle = mapping;
    if (IsDefaultLockPages()) (void)platform::LockPages(view, regionSize);
    return view;
}

bool FreeAllocation(void* address) {
    if (address == nullptr) return false;
    const bool numa = NumaInUse();
    if (!platform::VirtualDecommit(address, 0, numa)) return false;
    return platform::VirtualRelease(address, numa);
}

bool FreeAllocationEx(void* address, uint64_t size, uint32_t flags) {
    if (address == nullptr || (flags & (kFreeRelease | kFreeDecommit)) == 0) return false;
    const bool numa = NumaInUse();
    if ((flags & kFreeDecommit) != 0 && !platform::VirtualDecommit(address, size, numa))
        return false;
    if ((flags & kFreeRelease) != 0 && !platform::VirtualRelease(address, numa)) return false;
    return true;
}

void FreeAllocationSM(void* view, uint64_t handle) {
    if (view != nullptr) (void)platform::UnmapSharedView(view);
    if (handle != 0) platform::CloseSharedHandle(handle);
}

uint32_t GetAllocationGranularity() {
    (void)PageSize();
    return g_granularity.load(std::memory_order_relaxed);
}

bool SetDefaultLockPages(bool lock) {
    (void)g_lockPagesDefault.exchange(lock ? 1 : 0, std::memory_order_relaxed);
    return true;
}

bool IsDefaultLockPages() {
    return g_lockPagesDefault.load(std::memory_order_relaxed) > 0;
}

uint32_t get_default_numanode() {
    return g_defaultNumaNode.load(std::memory_order_relaxed);
}

void set_default_numanode(uint32_t node) {
    g_defaultNumaNode.store(node, std::memory_order_relaxed);
}

bool CanReserveMemory() {
    return true;
}

}  // namespace TOLVEN
