// Recursive critical section with an optional spin count.
//
// This is the lock behind every house lock of the library. It is recursive: the owning
// thread may enter it again, and must leave it as often as it entered. The storage is
// opaque so that the same header serves every platform; the platform layer fills it.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// Safe for concurrent use without external locking.
class CriticalSection {
  public:
    // `spinCount` is how many times Enter tries before it blocks in the kernel.
    explicit CriticalSection(uint32_t spinCount = 0) noexcept;
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    // Enters when free or already owned by the caller; never blocks.
    bool TryEnter() noexcept;
    // Enters, spinning first and then blocking.
    void Enter() noexcept;
    // Leaves one level of ownership.
    void Leave() noexcept;
    // True when the calling thread owns the section.
    bool IsOwnedByCaller() const noexcept;

  private:
    alignas(8) unsigned char storage_[48];
};

}  // namespace TOLVEN::detail
