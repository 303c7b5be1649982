#ifndef _WIN32_WINNT
#define _WIN32_WINNT 0x0A00  // GetSystemTimePreciseAsFileTime needs Windows 8 or later
#endif
#include <windows.h>

#include "platform/timezone.h"

namespace TOLVEN::platform {

namespace {
FILETIME ToFileTime(uint64_t ticks) noexcept {
    FILETIME ft;
    ft.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFu);
    ft.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return ft;
}
uint64_t FromFileTime(const FILETIME& ft) noexcept {
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}
}  // namespace

uint64_t SystemTime100ns() noexcept {
    FILETIME ft;
    ::GetSystemTimePreciseAsFileTime(&ft);
    return FromFileTime(ft);
}

bool LocalToUtc100ns(uint64_t local, uint64_t* utc) noexcept {
    const FILETIME in = ToFileTime(local);
    FILETIME out;
    if (!::LocalFileTimeToFileTime(&in, &out)) return false;
    *utc = FromFileTime(out);
    return true;
}

bool UtcToLocal100ns(uint64_t utc, uint64_t* local) noexcept {
    const FILETIME in = ToFileTime(utc);
    FILETIME out;
    if (!::FileTimeToLocalFileTime(&in, &out)) return false;
    *local = FromFileTime(out);
    return true;
}

bool IsDaylightTimeNow() noexcept {
    TIME_ZONE_INFORMATION info;
    return ::GetTimeZoneInformation(&info) == TIME_ZONE_ID_DAYLIGHT;
}

bool SetProcessTimeZone(const char* /*rule*/) noexcept {
    // The Win32 zone calls read the system's settings, not a TZ variable.
    return false;
}

}  // namespace TOLVEN::platform
