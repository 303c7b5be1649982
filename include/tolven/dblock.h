// Record locks of the multi-key tables: a thread holds one row across calls while the
// table's own lock is free, and other threads that want that row wait for it alone.
//
// A row's lock word is pointer-sized and has three forms: 0 (not locked); odd, a thin lock
// held once by one thread, stored as (threadId << 1) | 1 (thread ids may be odd, so the id is
// shifted rather than or-ed); even and not 0, a pointer to a _dblock_handle, which carries a
// count and an event. A lock nobody else wants writes one word; a handle is attached only
// when the owner recurses or a second thread has to wait. A 32-bit latch per row guards the
// word: compare-and-swap 0 to 1, spinning, released with a release store.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>
#include <vector>

#include "tolven/csdb.h"
#include "tolven/detail/critical_section.h"
#include "tolven/event.h"

namespace TOLVEN {

namespace detail {

// The calling thread's 32-bit id, as the platform layer gives it (out of line).
uint32_t RecordLockThreadIdSlow() noexcept;
// The calling thread's 32-bit id: a thread-local read once the platform layer has filled it.
inline uint32_t RecordLockThreadId() noexcept {
#if TOLVEN_FUTEX_LOCK
    const uint32_t id = t_osThreadId;
    if (id != 0) return id;
#endif
    return RecordLockThreadIdSlow();
}

}  // namespace detail

// The lock object attached to a contended or recursively held row. lockCount and
// ownerThread change under the row's latch; the reference count is atomic.
// Safe for concurrent use without external locking (the counts are atomics; callers keep
// the latch for the lock/unlock steps so that they are consistent with the row's word).
class _dblock_handle {
  public:
    // A handle with no owner, a count of 0 and one reference.
    _dblock_handle() noexcept;
    // Counts the handle out of the live total.
    ~_dblock_handle();
    _dblock_handle(const _dblock_handle&) = delete;
    _dblock_handle& operator=(const _dblock_handle&) = delete;

    // Adds a reference; the new count.
    int32_t AddRef() noexcept { return refCount.fetch_add(1, std::memory_order_acq_rel) + 1; }
    // Same as AddRef.
    int32_t AddRefAndEnableEvents() noexcept { return AddRef(); }
    // Drops a reference without destroying; the new count.
    int32_t Release() noexcept { return refCount.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    // Takes `count` holds for `thread`: free (count 0) becomes this owner's, another
    // owner's is refused, the owner's own is counted up. Taking a free handle clears the
    // state of `unlocked`, so that later waiters wait.
    bool Lock(int32_t count, uint32_t thread) noexcept;
    // Gives up one hold; false for another owner. The last hold clears the owner and sets
    // `unlocked`.
    bool Unlock(uint32_t thread) noexcept;
    // Gives up every hold at once and sets `unlocked`; false for another owner.
    bool ForceUnlock(uint32_t thread) noexcept;
    // The holds now counted.
    int32_t LockCount() const noexcept { return lockCount.load(std::memory_order_acquire); }
    // The owner's thread id (0 when free).
    uint32_t OwnerThread() const noexcept { return ownerThread.load(std::memory_order_acquire); }
    // True when a thread other than `thread` holds it with a count above 0.
    bool IsRecordLockedForThread(uint32_t thread) const noexcept {
        return lockCount.load(std::memory_order_acquire) > 0 &&
               ownerThread.load(std::memory_order_acquire) != thread;
    }
    // Clears the state of `unlocked`.
    void Reset() noexcept { unlocked.Reset(); }
    // Waits on `unlocked` up to `timeoutMs` (kInfinite: no limit) through a cached detector.
    void Wait(uint32_t timeoutMs);

    // Handles alive in the process (inspection).
    static int32_t LiveCount() noexcept;

    std::atomic<int32_t> lockCount{0};
    std::atomic<int32_t> refCount{1};
    std::atomic<uint32_t> ownerThread{0};
    Event unlocked{false};
};

// A process-wide pool of 20 released handles, taken and returned with single
// compare-and-swap steps. Safe for concurrent use without external locking.
class _dblock_handle_cache {
  public:
    static constexpr int kSlots = 20;
    // A pooled handle (one reference added, `unlocked` cleared) or a new one with one
    // reference. Always true.
    static bool GetHandle(_dblock_handle** out);
    // Drops a reference; the last one puts the handle into a free slot, or destroys it
    // when all 20 are taken.
    static void ReleaseHandle(_dblock_handle* handle);
    // Handles now in the pool (inspection).
    static int32_t CachedCount() noexcept;
};

// The header in front of every row of a table with record locks.
// Safe for concurrent use: `latch` is the spin word that guards `word`.
struct _dbrow_header {
    std::atomic<uint32_t> latch{0};
    std::atomic<uintptr_t> word{0};
};

namespace detail {

// Holds a row's latch for a scope: compare-and-swap 0 to 1 spinning, release store.
// Not thread-safe (one owner per guard).
class RowLatchGuard {
  public:
    explicit RowLatchGuard(_dbrow_header& row) noexcept : latch_(&row.latch) {
        uint32_t expected = 0;
        while (!latch_->compare_exchange_weak(expected, 1, std::memory_order_acquire,
                                              std::memory_order_relaxed))
            expected = 0;
    }
    ~RowLatchGuard() { Release(); }
    RowLatchGuard(const RowLatchGuard&) = delete;
    RowLatchGuard& operator=(const RowLatchGuard&) = delete;
    // Releases the latch now.
    void Release() noexcept {
        if (latch_ != nullptr) latch_->store(0, std::memory_order_release);
        latch_ = nullptr;
    }

  private:
    std::atomic<uint32_t>* latch_;
};

// The thin form of a thread's lock word.
inline uintptr_t ThinWord(uint32_t thread) noexcept {
    return (static_cast<uintptr_t>(thread) << 1) | 1u;
}

}  // namespace detail

// The part of a table's record locks that does not depend on its read/write lock: the row
// steps, the count of row locks in the table and the event exclusive users wait on. The row
// steps run with the row's latch held; the uncontended ones are inline, the rest (handles,
// waits, erase) are out of line. Safe for concurrent use without external locking.
class _record_locker_base {
  public:
    _record_locker_base() noexcept = default;
    _record_locker_base(const _record_locker_base&) = delete;
    _record_locker_base& operator=(const _record_locker_base&) = delete;

    // True when a thread other than `thread` holds the row.
    static bool LockedByOther(const _dbrow_header& row, uint32_t thread) noexcept {
        const uintptr_t word = row.word.load(std::memory_order_relaxed);
        if (word == 0) return false;
        if ((word & 1u) != 0) return word != detail::ThinWord(thread);
        return reinterpret_cast<const _dblock_handle*>(word)->IsRecordLockedForThread(thread);
    }

    // Locks the row for `thread`, the caller having checked that nobody else holds it. A
    // first hold is a thin word; a second one inflates it to a handle, which then counts.
    bool LockRow(_dbrow_header& row, uint32_t thread) {
        if (row.word.load(std::memory_order_relaxed) == 0)
            row.word.store(detail::ThinWord(thread), std::memory_order_relaxed);
        else if (!LockHeldRow(row, thread))
            return false;
        recordLockCount.fetch_add(1, std::memory_order_acq_rel);
        return true;
    }

    // Gives up one hold of `thread` on the row; false when it holds none.
    bool UnlockRow(_dbrow_header& row, uint32_t thread) {
        const uintptr_t word = row.word.load(std::memory_order_relaxed);
        if (word == detail::ThinWord(thread))
            row.word.store(0, std::memory_order_relaxed);
        else if ((word & 1u) != 0 || word == 0 || !UnlockHandle(row, thread))
            return false;
        CountDown(1);
        return true;
    }

    // Readies a wait on a row another thread holds: a thin word is inflated so that the
    // owner's unlock has an event to set, and the waiter takes a reference. The caller
    // releases the latch and the table lock, then calls WaitRow.
    _dblock_handle* PrepareWait(_dbrow_header& row);

    // Waits without limit for the handle's owner to let go, then drops the waiter's
    // reference.
    static void WaitRow(_dblock_handle* handle);

    // A row being erased gives up its lock: the table's count goes down by the row's
    // holds, waiters are woken to find the row gone, and the handle is released.
    void OnRowErase(_dbrow_header& row, uint32_t thread) {
        if (row.word.load(std::memory_order_relaxed) != 0) ReleaseErasedRow(row, thread);
    }

    // True when `thread` holds the row (read under the row's latch or the writer lock).
    static bool HeldBy(const _dbrow_header& row, uint32_t thread) noexcept;

    std::atomic<int32_t> recordLockCount{0};
    std::atomic<int32_t> exclusiveWaiters{0};
    Event noRecordLocks{false};

  protected:
    // Waits on `noRecordLocks` for at most 200 ms, the exclusive user's step between tries.
    void WaitForNoRecordLocks();
    // Takes `holds` off the table's count; the last one wakes exclusive waiters.
    void CountDown(int32_t holds) {
        const int32_t left = recordLockCount.fetch_sub(holds, std::memory_order_acq_rel) - holds;
        if (left == 0 && exclusiveWaiters.load(std::memory_order_acquire) > 0)
            (void)noRecordLocks.Set();
    }

  private:
    // LockRow on a row with a word: the owner's thin word inflates to a handle with one
    // hold, and the handle takes another. False for another owner.
    static bool LockHeldRow(_dbrow_header& row, uint32_t thread);
    // UnlockRow on a handle: one hold fewer, and the word cleared with the last. False for
    // another owner or a free handle.
    static bool UnlockHandle(_dbrow_header& row, uint32_t thread);
    // OnRowErase for a row with a word.
    void ReleaseErasedRow(_dbrow_header& row, uint32_t thread);
};

// The record-lock half of a table's lock: the table's read/write lock plus the row steps
// and counts of _record_locker_base. Safe for concurrent use without external locking.
template <class Lock>
class _record_locker : public Lock, public _record_locker_base {
  public:
    static constexpr bool kEnabled = true;
    using Lock::Lock;

    // Takes the writer lock with no row locked anywhere in the table. Between tries it
    // waits on `noRecordLocks` for at most 200 ms, which also covers a lock taken between
    // the count's test and the wait. While rows are locked, `heldBySelf()` is asked (with
    // the writer lock held) whether the caller holds one of them: it would wait for itself,
    // so the call gives false at once and holds nothing. Pair a true result with
    // LeaveExclusive.
    template <class HeldBySelf>
    bool EnterExclusive(HeldBySelf&& heldBySelf) {
        exclusiveWaiters.fetch_add(1, std::memory_order_acq_rel);
        for (;;) {
            (void)this->LockWriter(kInfinite);
            if (recordLockCount.load(std::memory_order_acquire) == 0) return true;
            if (heldBySelf()) {
                (void)this->UnlockWriter();
                exclusiveWaiters.fetch_sub(1, std::memory_order_acq_rel);
                return false;
            }
            noRecordLocks.Reset();
            (void)this->UnlockWriter();
            WaitForNoRecordLocks();
        }
    }
    // Releases the writer lock taken by EnterExclusive.
    void LeaveExclusive() {
        (void)this->UnlockWriter();
        exclusiveWaiters.fetch_sub(1, std::memory_order_acq_rel);
    }
};

// The record-lock half of a table without record locks: the read/write lock alone. Every
// row step is empty and the row has no header, so such a table pays nothing for them.
// Safe for concurrent use without external locking.
template <class Lock>
class _empty_record_locker : public Lock {
  public:
    static constexpr bool kEnabled = false;
    using Lock::Lock;

    // The writer lock; no row locks exist to wait for. Always true.
    template <class HeldBySelf>
    bool EnterExclusive(HeldBySelf&&) {
        (void)this->LockWriter(kInfinite);
        return true;
    }
    // Releases the writer lock.
    void LeaveExclusive() { (void)this->UnlockWriter(); }
};

}  // namespace TOLVEN
