// Scope guards and the process-wide accessor of the multi-key engine, and the engine's
// messages. Included by tolven/mkdbimpl.h; not a header to include alone.
#pragma once

#include <atomic>
#include <cstdint>

#include "tolven/csdb.h"
#include "tolven/event.h"

namespace TOLVEN::detail {

// Holds a table's reader or writer lock for a scope. Not thread-safe.
template <class L, bool writer>
class mkdb_lock_guard {
  public:
    explicit mkdb_lock_guard(L* lock) : lock_(lock) {
        if constexpr (writer)
            (void)lock_->LockWriter(kInfinite);
        else
            (void)lock_->LockReader(kInfinite);
    }
    ~mkdb_lock_guard() { Release(); }
    mkdb_lock_guard(const mkdb_lock_guard&) = delete;
    mkdb_lock_guard& operator=(const mkdb_lock_guard&) = delete;
    // Releases the lock now.
    void Release() {
        if (lock_ == nullptr) return;
        if constexpr (writer)
            (void)lock_->UnlockWriter();
        else
            (void)lock_->UnlockReader();
        lock_ = nullptr;
    }

  private:
    L* lock_;
};

// Holds a table for exclusive use (writer lock, no row locked) for a scope. `held()` is
// false when the caller holds a row lock of the table itself and was refused.
// Not thread-safe.
template <class L>
class mkdb_exclusive_guard {
  public:
    template <class HeldBySelf>
    mkdb_exclusive_guard(L* lock, HeldBySelf&& heldBySelf)
        : lock_(lock->EnterExclusive(heldBySelf) ? lock : nullptr) {}
    ~mkdb_exclusive_guard() {
        if (lock_ != nullptr) lock_->LeaveExclusive();
    }
    bool held() const noexcept { return lock_ != nullptr; }
    mkdb_exclusive_guard(const mkdb_exclusive_guard&) = delete;
    mkdb_exclusive_guard& operator=(const mkdb_exclusive_guard&) = delete;

  private:
    L* lock_;
};

// What a typed read does with the row it found: copies it into `*outRow` when one is given.
// Not thread-safe (used under the row's latch).
template <class Entry>
struct mkdb_copy_out {
    Entry* const& outRow;
    csdb_status operator()(Entry* row) const {
        if (outRow != nullptr) *outRow = *row;
        return CSDB_SUCCESS;
    }
};

// The spin word of an accessor: compare-and-swap 0 to 1, 100 ms asleep between tries.
// Constant-initialised. Safe for concurrent use without external locking.
class mkdb_spin_word {
  public:
    constexpr mkdb_spin_word() noexcept = default;
    mkdb_spin_word(const mkdb_spin_word&) = delete;
    mkdb_spin_word& operator=(const mkdb_spin_word&) = delete;

    // Takes the word, sleeping between tries.
    void Enter() noexcept;
    // Lets the word go.
    void Leave() noexcept { spin_.store(0, std::memory_order_release); }

  private:
    std::atomic<uint32_t> spin_{0};
};

// A process-wide pointer built on first use under a spin word (mkdb_spin_word); the
// object is published with a full fence, and the fast path reads the pointer without a
// lock. Constant-initialised, so it may be a namespace static. Safe for concurrent use
// without external locking.
template <class T>
class mkdb_accessor {
  public:
    constexpr mkdb_accessor() noexcept = default;

    // The object, made by `make()` (which returns a T* or null) when there is none yet.
    template <class Make>
    T* Get(Make&& make) {
        T* object = object_.load(std::memory_order_acquire);
        if (object != nullptr) return object;
        spin_.Enter();
        object = object_.load(std::memory_order_acquire);
        if (object == nullptr) {
            try {
                object = make();
            } catch (...) {
                spin_.Leave();
                throw;
            }
            // A sequentially consistent store: a full fence before the pointer is seen.
            object_.store(object, std::memory_order_seq_cst);
        }
        spin_.Leave();
        return object;
    }

    // Under the spin word: when `mayDestroy(object)` agrees (or there is no object), clears
    // the pointer and gives the object to `destroy`. False when refused.
    template <class MayDestroy, class DestroyFn>
    bool Destroy(MayDestroy&& mayDestroy, DestroyFn&& destroy) {
        spin_.Enter();
        T* object = object_.load(std::memory_order_acquire);
        if (object != nullptr && !mayDestroy(object)) {
            spin_.Leave();
            return false;
        }
        object_.store(nullptr, std::memory_order_release);
        spin_.Leave();
        if (object != nullptr) destroy(object);
        return true;
    }

    // The object if built (no building).
    T* Peek() const noexcept { return object_.load(std::memory_order_acquire); }

  private:
    mkdb_spin_word spin_;
    std::atomic<T*> object_{nullptr};
};

// The engine's log lines, each at ERROR.
enum class mkdb_message : uint32_t {
    add_index_refused,  // AddIndex while the calling thread holds a record lock
    clear_refused,      // Clear while the calling thread holds a record lock
    update_corruption,  // a key change UpdateRow could not undo
};
// Logs one of the engine's messages under its source "include/mkdbimpl".
void LogMkdbMessage(mkdb_message message);

}  // namespace TOLVEN::detail
