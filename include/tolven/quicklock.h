// The light lock and the house acquisition pattern.
#pragma once

#include <cstdint>

#include "tolven/detail/critical_section.h"

namespace TOLVEN {

// True when the calling thread is configured never to enter the kernel to wait.
bool EnforceUserMode();

namespace detail {
// The house pattern: try; on failure spin on the try when the thread enforces user mode,
// else block.
inline void EnterHouse(CriticalSection& cs) noexcept {
    if (cs.TryEnter()) return;
    if (EnforceUserMode()) {
        while (!cs.TryEnter()) {
        }
    } else {
        cs.Enter();
    }
}
}  // namespace detail

// A recursive critical section with no spin count, taken in the house pattern.
// Safe for concurrent use without external locking.
class QuickLock {
  public:
    QuickLock() noexcept : cs_(0), initialised_(true) {}
    QuickLock(const QuickLock&) = delete;
    QuickLock& operator=(const QuickLock&) = delete;

    // Enters the lock; always returns true.
    bool Lock() noexcept {
        detail::EnterHouse(cs_);
        return true;
    }
    // Leaves the lock.
    void Unlock() noexcept { cs_.Leave(); }
    // Enters only when the lock is free or already the caller's.
    bool TryLock() noexcept { return cs_.TryEnter(); }
    // True once constructed.
    bool IsInitialised() const noexcept { return initialised_; }

  private:
    detail::CriticalSection cs_;
    bool initialised_;
};

// Holds a QuickLock for a scope. Release leaves early; the destructor then does nothing.
// Not thread-safe.
class QuickLockGuard {
  public:
    explicit QuickLockGuard(QuickLock* lock) noexcept : lock_(lock) {
        if (lock_ != nullptr) lock_->Lock();
    }
    explicit QuickLockGuard(QuickLock& lock) noexcept : QuickLockGuard(&lock) {}
    ~QuickLockGuard() { Release(); }
    QuickLockGuard(const QuickLockGuard&) = delete;
    QuickLockGuard& operator=(const QuickLockGuard&) = delete;

    // Leaves the lock now and forgets it.
    void Release() noexcept {
        if (lock_ != nullptr) {
            lock_->Unlock();
            lock_ = nullptr;
        }
    }

  private:
    QuickLock* lock_;
};

// Holds a library critical section for a scope, entered in the house pattern.
// Not thread-safe.
class HouseLockGuard {
  public:
    explicit HouseLockGuard(detail::CriticalSection& cs) noexcept : cs_(&cs) {
        detail::EnterHouse(cs);
    }
    ~HouseLockGuard() { Release(); }
    HouseLockGuard(const HouseLockGuard&) = delete;
    HouseLockGuard& operator=(const HouseLockGuard&) = delete;
    // Leaves the section now and forgets it.
    void Release() noexcept {
        if (cs_ != nullptr) {
            cs_->Leave();
            cs_ = nullptr;
        }
    }

  private:
    detail::CriticalSection* cs_;
};

}  // namespace TOLVEN
