// A cheap monotonic millisecond clock, for timing that counts in seconds.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// Milliseconds of a monotonic clock that moves in steps of a few milliseconds
// (CLOCK_MONOTONIC_COARSE, GetTickCount64), from an origin of the system's choosing. A
// read costs a fraction of MonotonicCounter's.
uint64_t CoarseMonotonicMs() noexcept;

}  // namespace TOLVEN::platform
