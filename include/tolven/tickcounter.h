// The process-wide millisecond tick counter.
#pragma once

#include <cstdint>

namespace TOLVEN {

// Milliseconds since the counter was created, from the monotonic high-resolution clock.
// Created once per process on first use. Safe for concurrent use without external locking.
class OrrelTickCounter {
  public:
    // The process-wide counter, built on first use.
    static OrrelTickCounter* Instance();
    // Milliseconds since creation, truncated to 32 bits (wraps after 49 days).
    uint32_t GetTicks() const noexcept { return static_cast<uint32_t>(GetTicks64()); }
    // Milliseconds since creation, 64 bits.
    uint64_t GetTicks64() const noexcept;
    // The counter's frequency in ticks per second.
    uint64_t Frequency() const noexcept { return frequency_; }
    // The counter reading at creation.
    uint64_t Start() const noexcept { return start_; }

    OrrelTickCounter(const OrrelTickCounter&) = delete;
    OrrelTickCounter& operator=(const OrrelTickCounter&) = delete;

  private:
    OrrelTickCounter() noexcept;
    static OrrelTickCounter* BuildTickCounter();

    int64_t frequency_;
    int64_t start_;
};

// Milliseconds on the process-wide tick counter, 64 bits.
uint64_t GetTickCount64Ms();

}  // namespace TOLVEN
