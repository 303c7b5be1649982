#include <ctime>

#include "platform/coarseclock.h"

namespace TOLVEN::platform {

uint64_t CoarseMonotonicMs() noexcept {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

}  // namespace TOLVEN::platform
