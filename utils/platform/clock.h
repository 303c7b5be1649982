// Monotonic high-resolution counter and the local wall clock.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// Ticks of the monotonic counter (QueryPerformanceCounter, CLOCK_MONOTONIC).
uint64_t MonotonicCounter() noexcept;

// Ticks per second of MonotonicCounter.
uint64_t MonotonicFrequency() noexcept;

// Broken-down local time.
struct LocalTime {
    uint16_t year, month, day, hour, minute, second;
    uint32_t nanosecond;
};

// The current local time; nanoseconds carry the platform's precision.
void GetLocalTimeNow(LocalTime* out) noexcept;

// Seconds since 1970-01-01 UTC.
int64_t UnixTimeSeconds() noexcept;

// The wall clock at the best precision the platform gives, in 100-nanosecond units since
// 1601-01-01 UTC (GetSystemTimePreciseAsFileTime, looked up when the library loads;
// CLOCK_REALTIME). False, with `fileTime` untouched, where the platform has no such clock.
bool PreciseFileTime(uint64_t* fileTime) noexcept;

}  // namespace TOLVEN::platform
