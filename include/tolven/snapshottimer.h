// Elapsed-time measurement: SnapshotTimer, a stopwatch on the performance counter;
// RdtscTimer, a list of time-stamp-counter stamps for in-line profiling; hptimestamp, the
// wall clock at the platform's best precision.
#pragma once

#include <cstdint>
#include <vector>

#include "tolven/blobtime.h"

namespace TOLVEN {

// A 64-bit count, as the performance counter gives it. Plain value; not thread-safe.
struct _LARGE_INTEGER {
    int64_t QuadPart;
};

namespace detail {
// The performance counter now, or with no frequency the tick counter's milliseconds as 32
// bits.
uint64_t ReadSnapshotCounter() noexcept;
// Makes sure SnapshotTimer::m_liTimerFrequency holds the performance frequency.
void EnsureSnapshotFrequency() noexcept;
}  // namespace detail

// A stopwatch: one counter reading, 0 when empty. The readings compute the time since the
// start afresh at every call; the timer never stops. One word, copied by value. A timer
// belongs to one thread at a time.
class SnapshotTimer {
  public:
    // The performance frequency in ticks per second; 0 before first use and where the
    // platform has none. Written only with that one value.
    static _LARGE_INTEGER m_liTimerFrequency;

    // An empty timer.
    SnapshotTimer() noexcept : counter_(0) { Frequency(); }
    // A timer started at `counter`, a reading taken elsewhere.
    explicit SnapshotTimer(uint64_t counter) noexcept : counter_(counter) { Frequency(); }
    // Started now with `start`, else empty.
    explicit SnapshotTimer(bool start) noexcept : counter_(0) {
        Frequency();
        if (start) Start();
    }

    // Starts now.
    void Start() noexcept { counter_ = detail::ReadSnapshotCounter(); }
    // Starts at `counter`, a reading taken elsewhere.
    void Start(uint64_t counter) noexcept { counter_ = counter; }
    // Empties the timer.
    void Clear() noexcept { counter_ = 0; }
    // True when empty.
    bool IsEmpty() const noexcept { return counter_ == 0; }

    // Milliseconds since the start, truncated.
    uint32_t CMS_DWORD() const noexcept;
    // Milliseconds since the start.
    double CMS_DOUBLE() const noexcept;
    // Milliseconds since the start, in integer arithmetic.
    uint64_t CMS_CSUI64() const noexcept;
    // The start as milliseconds of the counter's own epoch.
    double CMS_DOUBLE_START() const noexcept;

    // The stored reading.
    uint64_t GetCounter() const noexcept { return counter_; }
    // The performance frequency.
    uint64_t GetFrequency() const noexcept { return static_cast<uint64_t>(LoadFrequency()); }

  private:
    friend uint64_t detail::ReadSnapshotCounter() noexcept;
    static int64_t LoadFrequency() noexcept {
        return __atomic_load_n(&m_liTimerFrequency.QuadPart, __ATOMIC_RELAXED);
    }
    static void Frequency() noexcept {
        if (LoadFrequency() == 0) detail::EnsureSnapshotFrequency();
    }

    uint64_t counter_;
};

// Stamps of the processor's time-stamp counter, from a start, for in-line profiling. Stamp
// reads the counter before anything else and allocates only when the reserve is used up.
// Belongs to one thread at a time.
class RdtscTimer {
  public:
    // Time-stamp-counter ticks per second, measured against the performance counter when
    // the first timer is built.
    static _LARGE_INTEGER m_liTimerFrequency;

    // An empty timer (start 0).
    RdtscTimer() noexcept;
    // With `start`, empties the results, reserves room for 100 stamps and reads the start;
    // else empty.
    explicit RdtscTimer(bool start);
    RdtscTimer(const RdtscTimer&) = default;
    RdtscTimer& operator=(const RdtscTimer&) = default;

    // Empties the results, reserves room for `reserve` stamps, then reads the start.
    void Start(uint64_t reserve) {
        results_.clear();
        results_.reserve(reserve);
        start_ = ReadCounter();
    }
    // Appends the counter now; the results grow by half when full.
    void Stamp() {
        const uint64_t now = ReadCounter();
        if (results_.size() == results_.capacity()) Grow();
        results_.push_back(_LARGE_INTEGER{static_cast<int64_t>(now)});
    }
    // Sets the start to 0; the results stay.
    void Clear() noexcept { start_ = 0; }
    // True when the start is 0.
    bool IsEmpty() const noexcept { return start_ == 0; }
    // The stamps, in order.
    const std::vector<_LARGE_INTEGER>& GetResults() const noexcept { return results_; }
    // The start reading.
    uint64_t GetStart() const noexcept { return start_; }
    // Prints to standard output "start - <title>", then one line "%f" per stamp of the
    // milliseconds from the start, then "end - <title>"; the title lines only for a title.
    void PublishResults(const char* title) const;

  private:
    static uint64_t ReadCounter() noexcept { return __builtin_ia32_rdtsc(); }
    void Grow();

    uint64_t start_;
    std::vector<_LARGE_INTEGER> results_;
};

// The wall clock at the platform's best precision into `out`; false, with `out` untouched,
// where the platform has no precise clock.
bool hptimestamp(cp_timeval& out);

}  // namespace TOLVEN
