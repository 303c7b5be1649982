#include "platform/timezone.h"

#include <atomic>

#include <cerrno>
#include <cstdlib>
#include <ctime>

namespace TOLVEN::platform {

namespace {
constexpr uint64_t kTicksPerSecond = 10000000;
constexpr int64_t kSecondsTo1970 = 11644473600;
}  // namespace

uint64_t SystemTime100ns() noexcept {
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return (static_cast<uint64_t>(ts.tv_sec) + kSecondsTo1970) * kTicksPerSecond +
           static_cast<uint64_t>(ts.tv_nsec) / 100;
}

bool LocalToUtc100ns(uint64_t local, uint64_t* utc) noexcept {
    // Break the local count down as if it were UTC, then let mktime apply the zone.
    const time_t localSeconds =
        static_cast<time_t>(static_cast<int64_t>(local / kTicksPerSecond) - kSecondsTo1970);
    tm parts;
    if (::gmtime_r(&localSeconds, &parts) == nullptr) return false;
    parts.tm_isdst = -1;
    errno = 0;
    const time_t utcSeconds = ::mktime(&parts);
    if (utcSeconds == static_cast<time_t>(-1) && errno != 0) return false;
    const int64_t shifted = static_cast<int64_t>(utcSeconds) + kSecondsTo1970;
    if (shifted < 0) return false;
    *utc = static_cast<uint64_t>(shifted) * kTicksPerSecond + local % kTicksPerSecond;
    return true;
}

bool UtcToLocal100ns(uint64_t utc, uint64_t* local) noexcept {
    const time_t utcSeconds =
        static_cast<time_t>(static_cast<int64_t>(utc / kTicksPerSecond) - kSecondsTo1970);
    tm parts;
    if (::localtime_r(&utcSeconds, &parts) == nullptr) return false;
    const int64_t shifted = static_cast<int64_t>(utc / kTicksPerSecond) + parts.tm_gmtoff;
    if (shifted < 0) return false;
    *local = static_cast<uint64_t>(shifted) * kTicksPerSecond + utc % kTicksPerSecond;
    return true;
}

bool IsDaylightTimeNow() noexcept {
    const time_t now = ::time(nullptr);
    tm parts;
    if (::localtime_r(&now, &parts) == nullptr) return false;
    return parts.tm_isdst > 0;
}

namespace {
std::atomic<uint64_t> g_zoneGeneration{0};
}  // namespace

uint64_t TimeZoneGeneration() noexcept {
    return g_zoneGeneration.load(std::memory_order_acquire);
}

bool SetProcessTimeZone(const char* rule) noexcept {
    const int rc = rule == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", rule, 1);
    ::tzset();
    g_zoneGeneration.fetch_add(1, std::memory_order_acq_rel);
    return rc == 0;
}

}  // namespace TOLVEN::platform
