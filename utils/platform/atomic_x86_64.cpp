// Same code for every OS on x86-64: GCC and clang accept this assembly everywhere.
#include "platform/atomic.h"

#include <cpuid.h>

namespace TOLVEN::platform {
namespace {
struct alignas(16) Pair {
    uint64_t low, high;
};
}  // namespace

bool CompareExchange16(void* target, uint64_t expectedLow, uint64_t expectedHigh, uint64_t newLow,
                       uint64_t newHigh) noexcept {
    bool swapped;
    __asm__ __volatile__("lock cmpxchg16b %1"
                         : "=@ccz"(swapped), "+m"(*static_cast<Pair*>(target)), "+a"(expectedLow),
                           "+d"(expectedHigh)
                         : "b"(newLow), "c"(newHigh)
                         : "memory");
    return swapped;
}

bool HasCompareExchange16() noexcept {
    unsigned a, b, c, d;
    if (!__get_cpuid(1, &a, &b, &c, &d)) return false;
    return (c & bit_CMPXCHG16B) != 0;
}

}  // namespace TOLVEN::platform
