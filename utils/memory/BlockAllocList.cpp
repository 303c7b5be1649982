#include "tolven/blockalloclist.h"

#include <cstdio>
#include <map>
#include <new>

#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

// Made for a size on first use; a failed Init still takes its place, so that the list
// answers that size with null from then on, as a failed first request did.
BlockAllocator* NewAllocator(const char* name, uint64_t size, uint64_t blocksPerAllocation) {
    auto* allocator = new (std::nothrow) BlockAllocator(name);
    if (allocator == nullptr) return nullptr;
    (void)allocator->Init(size, blocksPerAllocation, kBlockAllocNoLimit, false, 10, 2);
    return allocator;
}

bool Append(std::vector<std::pair<BlockAllocator*, uint64_t>>& list, BlockAllocator* allocator,
            uint64_t size) {
    try {
        list.emplace_back(allocator, size);
        return true;
    } catch (const std::bad_alloc&) {
        delete allocator;
        return false;
    }
}

// The map of keyed lists and its lock. Never destroyed: lists live for the whole process.
struct SharedRegistry {
    QuickLock lock;
    std::map<uint64_t, SharedBlockAllocList*> lists;
};

SharedRegistry& Shared() {
    static SharedRegistry* const registry = new SharedRegistry;
    return *registry;
}

}  // namespace

// ---- BlockAllocList ----------------------------------------------------------------------

BlockAllocList::BlockAllocList(uint64_t blocksPerAllocation, const char* name,
                               bool enabled) noexcept
    : name_(name), blocksPerAllocation_(blocksPerAllocation), enabled_(enabled) {}

BlockAllocList::~BlockAllocList() {
    for (auto& entry : allocators_)
        delete entry.first;
}

BlockAllocList* BlockAllocList::CreateObject(uint64_t blocksPerAllocation, const char* const name,
                                             bool enabled) {
    return new (std::nothrow) BlockAllocList(blocksPerAllocation, name, enabled);
}

void* BlockAllocList::GetBlock(uint64_t size) {
    for (auto& entry : allocators_) {
        if (entry.second == size) return entry.first->GetBlock();
    }
    // Sizes travel to Init as 32-bit values; a larger one would be cut into a smaller
    // block than asked for, so it is refused instead.
    if (size > UINT32_MAX) return nullptr;
    BlockAllocator* allocator =
        NewAllocator(name_, size, static_cast<uint32_t>(blocksPerAllocation_));
    if (allocator == nullptr || !Append(allocators_, allocator, size)) return nullptr;
    return allocator->GetBlock();
}

bool BlockAllocList::ReleaseBlock(void* block, uint64_t size) {
    for (auto& entry : allocators_) {
        if (entry.second == size) return entry.first->ReleaseBlock(block) == blockalloc_success;
    }
    return false;
}

bool BlockAllocList::IsValid(void* block, uint64_t size) {
    if (block == nullptr) return false;
    for (auto& entry : allocators_) {
        if (entry.second >= size && entry.first->IsValid(block)) return true;
    }
    return false;
}

bool BlockAllocList::Owns(const void* pointer) const {
    for (const auto& entry : allocators_) {
        if (entry.first->Owns(pointer)) return true;
    }
    return false;
}

// ---- SharedBlockAllocList ----------------------------------------------------------------

SharedBlockAllocList::SharedBlockAllocList(uint64_t key) : key_(key), cs_(1000) {}

SharedBlockAllocList::~SharedBlockAllocList() {
    for (auto& entry : allocators_)
        delete entry.first;
}

SharedBlockAllocList* SharedBlockAllocList::GetAllocList(uint64_t key) {
    SharedRegistry& registry = Shared();
    QuickLockGuard guard(registry.lock);
    const auto it = registry.lists.find(key);
    if (it != registry.lists.end()) return it->second;
    auto* list = new (std::nothrow) SharedBlockAllocList(key);
    if (list == nullptr) return nullptr;
    try {
        registry.lists.emplace(key, list);
    } catch (const std::bad_alloc&) {
        delete list;
        return nullptr;
    }
    return list;
}

void* SharedBlockAllocList::GetBlock(uint64_t size, const char* name) {
    (void)name;
    HouseLockGuard guard(cs_);
    for (auto& entry : allocators_) {
        if (entry.second == size) return entry.first->GetBlock();
    }
    // Named after the list's key, not the size: one list's allocators share a name.
    char allocatorName[64];
    (void)std::snprintf(allocatorName, sizeof(allocatorName), "shared_allocator<%u>",
                        static_cast<unsigned int>(key_));
    BlockAllocator* allocator = NewAllocator(allocatorName, size, 10000);
    if (allocator == nullptr || !Append(allocators_, allocator, size)) return nullptr;
    return allocator->GetBlock();
}

bool SharedBlockAllocList::ReleaseBlock(void* block, uint64_t size) {
    HouseLockGuard guard(cs_);
    for (auto& entry : allocators_) {
        if (entry.second == size) return entry.first->ReleaseBlock(block) == blockalloc_success;
    }
    return false;
}

bool SharedBlockAllocList::IsValid(void* block, uint64_t size) const {
    (void)size;
    if (block == nullptr) return false;
    HouseLockGuard guard(cs_);
    for (const auto& entry : allocators_) {
        if (entry.first->IsValid(block)) return true;
    }
    return false;
}

}  // namespace TOLVEN
