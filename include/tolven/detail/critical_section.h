// Recursive critical section with an optional spin count.
//
// This is the lock behind every house lock of the library. It is recursive: the owning
// thread may enter it again, and must leave it as often as it entered. Where the platform
// has futexes the uncontended enter and leave are inline; the platform layer does the rest.
#pragma once

#include <atomic>
#include <cstdint>

#include "tolven/platform.h"

namespace TOLVEN::detail {

#if TOLVEN_FUTEX_LOCK
// The calling thread's OS id, 0 until the platform layer first reads it on this thread.
extern constinit thread_local uint32_t t_osThreadId;

// The lock word is 0 when free, 1 when held, 2 when held and a thread may sleep on it.
struct FutexLockState {
    std::atomic<uint32_t> word{0};
    std::atomic<uint32_t> owner{0};
    uint32_t recursion = 0;
    uint32_t spinCount = 0;
};
#endif

// Safe for concurrent use without external locking.
class CriticalSection {
  public:
    // `spinCount` is how many times Enter tries before it blocks in the kernel.
    explicit CriticalSection(uint32_t spinCount = 0) noexcept;
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

#if TOLVEN_FUTEX_LOCK
    // Enters when free or already owned by the caller; never blocks.
    bool TryEnter() noexcept {
        const uint32_t self = t_osThreadId;
        if (self == 0) return TryEnterSlow();
        if (s_.owner.load(std::memory_order_relaxed) == self) {
            ++s_.recursion;
            return true;
        }
        uint32_t expected = 0;
        if (!s_.word.compare_exchange_strong(expected, 1, std::memory_order_acquire,
                                             std::memory_order_relaxed))
            return false;
        s_.owner.store(self, std::memory_order_relaxed);
        s_.recursion = 1;
        return true;
    }
    // Leaves one level of ownership.
    void Leave() noexcept {
        if (--s_.recursion != 0) return;
        s_.owner.store(0, std::memory_order_relaxed);
        if (s_.word.exchange(0, std::memory_order_release) == 2) WakeOne();
    }
#else
    // Enters when free or already owned by the caller; never blocks.
    bool TryEnter() noexcept;
    // Leaves one level of ownership.
    void Leave() noexcept;
#endif
    // Enters, spinning first and then blocking.
    void Enter() noexcept;
    // True when the calling thread owns the section.
    bool IsOwnedByCaller() const noexcept;

  private:
#if TOLVEN_FUTEX_LOCK
    bool TryEnterSlow() noexcept;
    void WakeOne() noexcept;

    FutexLockState s_;
    unsigned char reserved_[48 - sizeof(FutexLockState)];
#else
    alignas(8) unsigned char storage_[48];
#endif
};

}  // namespace TOLVEN::detail
