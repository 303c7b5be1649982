#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00  // GetSystemTimePreciseAsFileTime needs Windows 8 or later
#endif
#include <cctype>
#include <cstring>

#include "platform/timezone.h"

#include <atomic>
#include "platform/win32_api.h"

namespace TOLVEN::platform {

namespace {

constexpr uint64_t kTicksPerSecond = 10000000;

// The zone a test put in place of the system's, as the Windows zone calls take it. Read
// without a lock: it is only changed by SetProcessTimeZone, which is not thread-safe.
TIME_ZONE_INFORMATION g_zone;
bool g_zoneSet = false;

const TIME_ZONE_INFORMATION* ProcessZone() noexcept {
    return g_zoneSet ? &g_zone : nullptr;
}

FILETIME ToFileTime(uint64_t ticks) noexcept {
    FILETIME ft;
    ft.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
    ft.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return ft;
}
uint64_t FromFileTime(const FILETIME& ft) noexcept {
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// Converts whole seconds through a SYSTEMTIME-based zone call and carries the fraction
// across, which the zone calls would cut to milliseconds.
template <typename Convert>
bool ConvertSeconds(uint64_t in, uint64_t* out, Convert convert) noexcept {
    const FILETIME whole = ToFileTime(in - in % kTicksPerSecond);
    SYSTEMTIME from, to;
    if (!::FileTimeToSystemTime(&whole, &from)) return false;
    if (!convert(&from, &to)) return false;
    FILETIME result;
    if (!::SystemTimeToFileTime(&to, &result)) return false;
    *out = FromFileTime(result) + in % kTicksPerSecond;
    return true;
}

// Reads a TZ offset "[+-]hh[:mm[:ss]]" in seconds, west of UTC positive.
bool ParseOffset(const char*& p, long* seconds) noexcept {
    int sign = 1;
    if (*p == '+' || *p == '-') sign = *p++ == '-' ? -1 : 1;
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    long parts[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i) {
        if (i > 0) {
            if (*p != ':') break;
            ++p;
        }
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        while (std::isdigit(static_cast<unsigned char>(*p)))
            parts[i] = parts[i] * 10 + (*p++ - '0');
    }
    *seconds = sign * (parts[0] * 3600 + parts[1] * 60 + parts[2]);
    return true;
}

// Skips a zone name: three or more letters, or any text in angle brackets.
bool SkipName(const char*& p) noexcept {
    if (*p == '<') {
        const char* close = std::strchr(p, '>');
        if (close == nullptr) return false;
        p = close + 1;
        return true;
    }
    const char* start = p;
    while (std::isalpha(static_cast<unsigned char>(*p)))
        ++p;
    return p - start >= 3;
}

// Reads a change rule "Mm.w.d[/time]" into the form the zone calls take: the w-th (5:
// last) weekday d of month m, at a local time of day. Day-of-year rules ("Jn", "n") have no
// such form.
bool ParseChange(const char*& p, SYSTEMTIME* when) noexcept {
    if (*p++ != 'M') return false;
    int fields[3];
    for (int i = 0; i < 3; ++i) {
        if (i > 0 && *p++ != '.') return false;
        if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
        fields[i] = 0;
        while (std::isdigit(static_cast<unsigned char>(*p)))
            fields[i] = fields[i] * 10 + (*p++ - '0');
    }
    if (fields[0] < 1 || fields[0] > 12 || fields[1] < 1 || fields[1] > 5 || fields[2] > 6)
        return false;
    long at = 2 * 3600;
    if (*p == '/' && !ParseOffset(++p, &at)) return false;
    if (at < 0 || at >= 24 * 3600) return false;
    std::memset(when, 0, sizeof *when);
    when->wMonth = static_cast<WORD>(fields[0]);
    when->wDay = static_cast<WORD>(fields[1]);
    when->wDayOfWeek = static_cast<WORD>(fields[2]);
    when->wHour = static_cast<WORD>(at / 3600);
    when->wMinute = static_cast<WORD>(at / 60 % 60);
    when->wSecond = static_cast<WORD>(at % 60);
    return true;
}

// Turns a POSIX TZ rule into the Windows zone record; false for what that record cannot
// hold (day-of-year change rules, times of day past midnight).
bool ParseRule(const char* rule, TIME_ZONE_INFORMATION* zone) noexcept {
    std::memset(zone, 0, sizeof *zone);
    const char* p = rule;
    long standard = 0;
    if (!SkipName(p) || !ParseOffset(p, &standard)) return false;
    zone->Bias = static_cast<LONG>(standard / 60);
    if (*p == '\0') return true;
    if (!SkipName(p)) return false;
    long daylight = standard - 3600;
    if (*p != ',' && *p != '\0' && !ParseOffset(p, &daylight)) return false;
    zone->DaylightBias = static_cast<LONG>((daylight - standard) / 60);
    const char* changes = *p == '\0' ? ",M3.2.0,M11.1.0" : p;  // the US rules by default
    if (*changes++ != ',' || !ParseChange(changes, &zone->DaylightDate)) return false;
    if (*changes++ != ',' || !ParseChange(changes, &zone->StandardDate)) return false;
    return *changes == '\0';
}

}  // namespace

uint64_t SystemTime100ns() noexcept {
    FILETIME ft;
    ::GetSystemTimePreciseAsFileTime(&ft);
    return FromFileTime(ft);
}

bool LocalToUtc100ns(uint64_t local, uint64_t* utc) noexcept {
    return ConvertSeconds(local, utc, [](const SYSTEMTIME* in, SYSTEMTIME* out) {
        return ::TzSpecificLocalTimeToSystemTime(ProcessZone(), in, out) != FALSE;
    });
}

bool UtcToLocal100ns(uint64_t utc, uint64_t* local) noexcept {
    return ConvertSeconds(utc, local, [](const SYSTEMTIME* in, SYSTEMTIME* out) {
        return ::SystemTimeToTzSpecificLocalTime(ProcessZone(), in, out) != FALSE;
    });
}

bool IsDaylightTimeNow() noexcept {
    if (!g_zoneSet) {
        TIME_ZONE_INFORMATION info;
        return ::GetTimeZoneInformation(&info) == TIME_ZONE_ID_DAYLIGHT;
    }
    if (g_zone.DaylightDate.wMonth == 0) return false;
    const uint64_t utc = SystemTime100ns();
    uint64_t local = 0;
    if (!UtcToLocal100ns(utc, &local)) return false;
    const int64_t westMinutes = (static_cast<int64_t>(utc) - static_cast<int64_t>(local)) /
                                static_cast<int64_t>(60 * kTicksPerSecond);
    return westMinutes == g_zone.Bias + g_zone.DaylightBias;
}

namespace {
std::atomic<uint64_t> g_zoneGeneration{0};
}  // namespace

uint64_t TimeZoneGeneration() noexcept {
    return g_zoneGeneration.load(std::memory_order_acquire);
}

bool SetProcessTimeZone(const char* rule) noexcept {
    if (rule == nullptr) {
        g_zoneSet = false;
    } else {
        TIME_ZONE_INFORMATION zone;
        if (!ParseRule(rule, &zone)) return false;
        g_zone = zone;
        g_zoneSet = true;
    }
    g_zoneGeneration.fetch_add(1, std::memory_order_acq_rel);
    return true;
}

}  // namespace TOLVEN::platform
