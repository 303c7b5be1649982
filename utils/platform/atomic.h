// Processor-level atomic operations that the standard library does not offer.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// 16-byte compare-and-swap (lock cmpxchg16b) on a 16-byte aligned target.
bool CompareExchange16(void* target, uint64_t expectedLow, uint64_t expectedHigh, uint64_t newLow,
                       uint64_t newHigh) noexcept;

// True when the processor offers cmpxchg16b.
bool HasCompareExchange16() noexcept;

}  // namespace TOLVEN::platform
