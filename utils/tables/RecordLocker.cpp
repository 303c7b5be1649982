// The row steps of record locks that touch a handle: inflation of a thin word, recursion,
// the fat unlock, the wait for a row's holder, the erase of a locked row, and the wait of an
// exclusive user. The uncontended steps are inline in tolven/dblock.h.
#include "tolven/dblock.h"

namespace TOLVEN {
namespace {

// Replaces a thin word by a handle owned by the thin owner with one hold.
uintptr_t Inflate(_dbrow_header& row, uint32_t owner) {
    _dblock_handle* handle = nullptr;
    (void)_dblock_handle_cache::GetHandle(&handle);
    (void)handle->Lock(1, owner);
    const auto word = reinterpret_cast<uintptr_t>(handle);
    row.word.store(word, std::memory_order_relaxed);
    return word;
}

}  // namespace

bool _record_locker_base::LockHeldRow(_dbrow_header& row, uint32_t thread) {
    uintptr_t word = row.word.load(std::memory_order_relaxed);
    if ((word & 1u) != 0) {
        if (word != detail::ThinWord(thread)) return false;
        word = Inflate(row, thread);
        // The handle already counts the thin hold; this is the second.
    }
    return reinterpret_cast<_dblock_handle*>(word)->Lock(1, thread);
}

bool _record_locker_base::UnlockHandle(_dbrow_header& row, uint32_t thread) {
    auto* handle = reinterpret_cast<_dblock_handle*>(row.word.load(std::memory_order_relaxed));
    if (handle->LockCount() <= 0 || handle->OwnerThread() != thread) return false;
    (void)handle->Unlock(thread);
    if (handle->LockCount() == 0) {
        row.word.store(0, std::memory_order_relaxed);
        _dblock_handle_cache::ReleaseHandle(handle);
    }
    return true;
}

_dblock_handle* _record_locker_base::PrepareWait(_dbrow_header& row) {
    uintptr_t word = row.word.load(std::memory_order_relaxed);
    if ((word & 1u) != 0) word = Inflate(row, static_cast<uint32_t>(word >> 1));
    auto* handle = reinterpret_cast<_dblock_handle*>(word);
    handle->AddRef();
    return handle;
}

void _record_locker_base::WaitRow(_dblock_handle* handle) {
    handle->Wait(kInfinite);
    _dblock_handle_cache::ReleaseHandle(handle);
}

void _record_locker_base::ReleaseErasedRow(_dbrow_header& row, uint32_t thread) {
    const uintptr_t word = row.word.load(std::memory_order_relaxed);
    if ((word & 1u) != 0) {
        CountDown(1);
    } else {
        auto* handle = reinterpret_cast<_dblock_handle*>(word);
        const int32_t holds = handle->LockCount();
        if (holds > 0) {
            CountDown(holds);
            if (handle->OwnerThread() == thread) (void)handle->ForceUnlock(thread);
        }
        _dblock_handle_cache::ReleaseHandle(handle);
    }
    row.word.store(0, std::memory_order_relaxed);
}

bool _record_locker_base::HeldBy(const _dbrow_header& row, uint32_t thread) noexcept {
    const uintptr_t word = row.word.load(std::memory_order_relaxed);
    if (word == 0) return false;
    if ((word & 1u) != 0) return word == detail::ThinWord(thread);
    const auto* handle = reinterpret_cast<const _dblock_handle*>(word);
    return handle->LockCount() > 0 && handle->OwnerThread() == thread;
}

void _record_locker_base::WaitForNoRecordLocks() {
    (void)WaitForEvent(&noRecordLocks, 200);
}

}  // namespace TOLVEN
