#include "platform/clock.h"

#include <ctime>

namespace TOLVEN::platform {

uint64_t MonotonicCounter() noexcept {
    timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t MonotonicFrequency() noexcept {
    return 1000000000ull;
}

void GetLocalTimeNow(LocalTime* out) noexcept {
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    tm parts;
    ::localtime_r(&ts.tv_sec, &parts);
    out->year = static_cast<uint16_t>(parts.tm_year + 1900);
    out->month = static_cast<uint16_t>(parts.tm_mon + 1);
    out->day = static_cast<uint16_t>(parts.tm_mday);
    out->hour = static_cast<uint16_t>(parts.tm_hour);
    out->minute = static_cast<uint16_t>(parts.tm_min);
    out->second = static_cast<uint16_t>(parts.tm_sec > 59 ? 59 : parts.tm_sec);
    out->nanosecond = static_cast<uint32_t>(ts.tv_nsec);
}

int64_t UnixTimeSeconds() noexcept {
    return static_cast<int64_t>(::time(nullptr));
}

bool PreciseFileTime(uint64_t* fileTime) noexcept {
    timespec ts;
    if (::clock_gettime(CLOCK_REALTIME, &ts) != 0) return false;
    *fileTime = (static_cast<uint64_t>(ts.tv_sec) + 11644473600ull) * 10000000ull +
                static_cast<uint64_t>(ts.tv_nsec) / 100;
    return true;
}

}  // namespace TOLVEN::platform
