#include "platform/clock.h"
#include "platform/timezone.h"
#include "platform/win32_api.h"

namespace TOLVEN::platform {
namespace {

// 100-nanosecond units from 1601-01-01 to 1970-01-01.
constexpr uint64_t kUnixEpochInFileTime = 116444736000000000ull;

using PreciseTimeFn = VOID(WINAPI*)(LPFILETIME);

// GetSystemTimePreciseAsFileTime came with Windows 8; looked up once, null before it.
PreciseTimeFn PreciseSystemTime() noexcept {
    static const PreciseTimeFn fn = [] {
        HMODULE kernel = ::GetModuleHandleW(L"kernel32.dll");
        if (kernel == nullptr) return PreciseTimeFn{nullptr};
        return reinterpret_cast<PreciseTimeFn>(
            reinterpret_cast<void*>(::GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime")));
    }();
    return fn;
}

uint64_t FileTimeValue(const FILETIME& ft) noexcept {
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// The local time from the precise system clock, to 100 ns, in the process's zone (a test's
// zone when one is set); false without that clock.
bool PreciseLocalTime(SYSTEMTIME* local, uint32_t* nanosecond) noexcept {
    PreciseTimeFn precise = PreciseSystemTime();
    if (precise == nullptr) return false;
    FILETIME ft;
    precise(&ft);
    uint64_t localTicks = 0;
    if (!UtcToLocal100ns(FileTimeValue(ft), &localTicks)) return false;
    FILETIME localFt;
    localFt.dwLowDateTime = static_cast<DWORD>(localTicks & 0xFFFFFFFFu);
    localFt.dwHighDateTime = static_cast<DWORD>(localTicks >> 32);
    if (!::FileTimeToSystemTime(&localFt, local)) return false;
    *nanosecond = static_cast<uint32_t>(localTicks % 10000000ull) * 100u;
    return true;
}

}  // namespace

uint64_t MonotonicCounter() noexcept {
    LARGE_INTEGER now;
    ::QueryPerformanceCounter(&now);
    return static_cast<uint64_t>(now.QuadPart);
}

uint64_t MonotonicFrequency() noexcept {
    // Fixed at boot; read once.
    static const uint64_t frequency = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return static_cast<uint64_t>(f.QuadPart);
    }();
    return frequency;
}

void GetLocalTimeNow(LocalTime* out) noexcept {
    SYSTEMTIME local;
    uint32_t nanosecond;
    if (!PreciseLocalTime(&local, &nanosecond)) {
        ::GetLocalTime(&local);
        nanosecond = static_cast<uint32_t>(local.wMilliseconds) * 1000000u;
    }
    out->year = local.wYear;
    out->month = local.wMonth;
    out->day = local.wDay;
    out->hour = local.wHour;
    out->minute = local.wMinute;
    out->second = local.wSecond;
    out->nanosecond = nanosecond;
}

int64_t UnixTimeSeconds() noexcept {
    FILETIME ft;
    ::GetSystemTimeAsFileTime(&ft);
    return static_cast<int64_t>((FileTimeValue(ft) - kUnixEpochInFileTime) / 10000000ull);
}

namespace {
using PreciseTimeFn = void(WINAPI*)(LPFILETIME);
// Looked up once, when the library loads: older systems lack the call.
const PreciseTimeFn g_preciseTime = [] {
    const HMODULE kernel = ::GetModuleHandleA("kernel32.dll");
    return kernel != nullptr ? reinterpret_cast<PreciseTimeFn>(reinterpret_cast<void*>(
                                   ::GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime")))
                             : nullptr;
}();
}  // namespace

bool PreciseFileTime(uint64_t* fileTime) noexcept {
    if (g_preciseTime == nullptr) return false;
    FILETIME ft;
    g_preciseTime(&ft);
    *fileTime = FileTimeValue(ft);
    return true;
}

}  // namespace TOLVEN::platform
