#include <algorithm>

#include "platform/thread.h"
#include "tolven/dblock.h"

namespace TOLVEN {
namespace {

std::atomic<int32_t> liveHandles{0};
std::atomic<_dblock_handle*> cacheSlots[_dblock_handle_cache::kSlots];

}  // namespace

namespace detail {

uint32_t RecordLockThreadIdSlow() noexcept {
    return platform::CurrentThreadId();
}

}  // namespace detail

_dblock_handle::_dblock_handle() noexcept {
    liveHandles.fetch_add(1, std::memory_order_relaxed);
}

_dblock_handle::~_dblock_handle() {
    liveHandles.fetch_sub(1, std::memory_order_relaxed);
}

int32_t _dblock_handle::LiveCount() noexcept {
    return liveHandles.load(std::memory_order_relaxed);
}

bool _dblock_handle::Lock(int32_t count, uint32_t thread) noexcept {
    const int32_t held = lockCount.load(std::memory_order_acquire);
    if (held == 0) {
        unlocked.Reset();
        ownerThread.store(thread, std::memory_order_release);
        lockCount.store(count, std::memory_order_release);
        return true;
    }
    if (ownerThread.load(std::memory_order_acquire) != thread) return false;
    lockCount.store(held + count, std::memory_order_release);
    return true;
}

bool _dblock_handle::Unlock(uint32_t thread) noexcept {
    if (ownerThread.load(std::memory_order_acquire) != thread) return false;
    const int32_t held = lockCount.load(std::memory_order_acquire);
    lockCount.store(held - 1, std::memory_order_release);
    if (held == 1) {
        ownerThread.store(0, std::memory_order_release);
        (void)unlocked.Set();
    }
    return true;
}

bool _dblock_handle::ForceUnlock(uint32_t thread) noexcept {
    if (ownerThread.load(std::memory_order_acquire) != thread) return false;
    lockCount.store(0, std::memory_order_release);
    ownerThread.store(0, std::memory_order_release);
    (void)unlocked.Set();
    return true;
}

void _dblock_handle::Wait(uint32_t timeoutMs) {
    (void)WaitForEvent(&unlocked, timeoutMs);
}

bool _dblock_handle_cache::GetHandle(_dblock_handle** out) {
    for (auto& slot : cacheSlots) {
        _dblock_handle* handle = slot.load(std::memory_order_acquire);
        if (handle != nullptr &&
            slot.compare_exchange_strong(handle, nullptr, std::memory_order_acq_rel)) {
            handle->AddRef();
            handle->Reset();
            *out = handle;
            return true;
        }
    }
    *out = new _dblock_handle();
    return true;
}

void _dblock_handle_cache::ReleaseHandle(_dblock_handle* handle) {
    if (handle == nullptr || handle->Release() != 0) return;
    for (auto& slot : cacheSlots) {
        _dblock_handle* empty = nullptr;
        if (slot.compare_exchange_strong(empty, handle, std::memory_order_acq_rel)) return;
    }
    delete handle;
}

int32_t _dblock_handle_cache::CachedCount() noexcept {
    int32_t cached = 0;
    for (auto& slot : cacheSlots)
        if (slot.load(std::memory_order_acquire) != nullptr) ++cached;
    return cached;
}

}  // namespace TOLVEN
