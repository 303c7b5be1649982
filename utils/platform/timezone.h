// UTC now on the 100-nanosecond scale, and the local zone's rules.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// The current UTC time in 100-nanosecond units since 1601-01-01
// (GetSystemTimePreciseAsFileTime, CLOCK_REALTIME).
uint64_t SystemTime100ns() noexcept;

// Converts a local civil time, counted like SystemTime100ns, to UTC under the zone's
// rules (LocalFileTimeToFileTime, mktime). False when the platform cannot convert it.
bool LocalToUtc100ns(uint64_t local, uint64_t* utc) noexcept;

// Converts a UTC count to the local civil time on the same scale (FileTimeToLocalFileTime,
// localtime_r). False when the platform cannot convert it.
bool UtcToLocal100ns(uint64_t utc, uint64_t* local) noexcept;

// True when the local zone is in daylight saving time now (GetTimeZoneInformation
// answering TIME_ZONE_ID_DAYLIGHT, tm_isdst).
bool IsDaylightTimeNow() noexcept;

// Replaces the process's zone by a POSIX TZ rule such as "EST5EDT,M3.2.0,M11.1.0", or
// goes back to the system zone for null. For tests; not thread-safe. False for a rule the
// platform cannot hold: Windows zones change on a weekday of a month, so a day-of-year
// rule ("J60", "59") or a change past midnight ("/25") is refused there.
bool SetProcessTimeZone(const char* rule) noexcept;

// How many times SetProcessTimeZone has been called: readers that cache a zone's offset
// compare it to see a change.
uint64_t TimeZoneGeneration() noexcept;

}  // namespace TOLVEN::platform
