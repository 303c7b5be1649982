#include "blob/civil_time.h"
#include "platform/timezone.h"
#include "tolven/blobtime.h"

namespace TOLVEN {

namespace {
constexpr int64_t kMsPerHour = 3600000;
// Milliseconds from 1601-01-01 to 1970-01-01.
constexpr uint64_t kMsTo1970 = 11644473600000ull;
}  // namespace

TimeZoneStandard::TimeZoneStandard() noexcept
    : initialised(false), midnight{0, 0}, offsetMilliseconds(0), dstAdjusted(false) {}

TimeZoneStandard::TimeZoneStandard(int32_t hours, bool adjustDst) noexcept : TimeZoneStandard() {
    (void)Init(hours, adjustDst);
}

bool TimeZoneStandard::Init(int32_t hours, bool adjustDst) noexcept {
    const bool daylight = adjustDst && platform::IsDaylightTimeNow();
    return InitAt(hours, adjustDst, daylight, platform::SystemTime100ns());
}

bool TimeZoneStandard::InitAt(int32_t hours, bool adjustDst, bool daylightNow,
                              uint64_t utcNow) noexcept {
    dstAdjusted = adjustDst && daylightNow;
    if (dstAdjusted) --hours;
    offsetMilliseconds = static_cast<int32_t>(int64_t{hours} * kMsPerHour);
    // The zone's wall clock now, and how far into its day that is.
    const uint64_t zoneNow =
        utcNow - static_cast<uint64_t>(int64_t{offsetMilliseconds} * int64_t{detail::kTicksPerMs});
    const detail::CivilTime clock = detail::TicksToCivil(zoneNow);
    const uint64_t sinceMidnight =
        static_cast<uint64_t>(((clock.hour * 60 + clock.minute) * 60 + clock.second) * 1000 +
                              clock.millisecond) *
        detail::kTicksPerMs;
    const uint64_t lastMidnight = utcNow - sinceMidnight;
    midnight.low = static_cast<uint32_t>(lastMidnight & 0xFFFFFFFFu);
    midnight.high = static_cast<uint32_t>(lastMidnight >> 32);
    initialised = true;
    return true;
}

void TimeZoneStandard::SetTime(uint32_t milliseconds, cp_timeval& out) const noexcept {
    // Modular arithmetic: the true value is non-negative for any midnight after 1970.
    const uint64_t zoneMidnight = (uint64_t{midnight.high} << 32) | midnight.low;
    const uint64_t ticks =
        (uint64_t{milliseconds} - kMsTo1970) * detail::kTicksPerMs + zoneMidnight;
    const uint64_t micros = ticks / 10;
    out.seconds = static_cast<uint32_t>(micros / 1000000);
    out.microseconds = static_cast<uint32_t>(micros % 1000000);
}

}  // namespace TOLVEN
