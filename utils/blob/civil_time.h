// Proleptic Gregorian arithmetic on 100-nanosecond counts since 1601-01-01 UTC.
#pragma once

#include <cstdint>

namespace TOLVEN::detail {

// 100-nanosecond units in a millisecond, a second and a day.
inline constexpr uint64_t kTicksPerMs = 10000;
inline constexpr uint64_t kTicksPerSecond = 10000000;
inline constexpr uint64_t kTicksPerDay = 86400 * kTicksPerSecond;
// 100-nanosecond units from 1601-01-01 to 1970-01-01.
inline constexpr uint64_t kTicksTo1970 = 116444736000000000ull;
// Days from 1601-01-01 to 1970-01-01.
inline constexpr int64_t kDaysTo1970 = 134774;

// A broken-down civil time to the millisecond.
struct CivilTime {
    int64_t year;
    int64_t month;
    int64_t day;
    int64_t hour;
    int64_t minute;
    int64_t second;
    int64_t millisecond;
};

// Days since 1970-01-01 of a civil date. Months outside 1 to 12 roll into the years
// around, and days count from the first of the month, so day 0 is the last day before it.
constexpr int64_t DaysFromCivil(int64_t year, int64_t month, int64_t day) noexcept {
    const int64_t monthIndex = month - 1;
    const int64_t yearCarry = monthIndex >= 0 ? monthIndex / 12 : (monthIndex - 11) / 12;
    int64_t y = year + yearCarry;
    const int64_t m = monthIndex - yearCarry * 12 + 1;  // 1..12
    if (m <= 2) --y;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yearOfEra = y - era * 400;
    const int64_t dayOfYear = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

// The civil date of a day count since 1970-01-01.
constexpr void CivilFromDays(int64_t days, int64_t* year, int64_t* month, int64_t* day) noexcept {
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t dayOfEra = z - era * 146097;
    const int64_t yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t mp = (5 * dayOfYear + 2) / 153;
    *day = dayOfYear - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = yearOfEra + era * 400 + (*month <= 2 ? 1 : 0);
}

// Days in a month of a year, for a month of 1 to 12.
constexpr int64_t DaysInMonth(int64_t year, int64_t month) noexcept {
    constexpr int64_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

// True when the fields form a time that the 100-nanosecond scale holds: years 1601 to
// 30827, real months and days, hours below 24, minutes and seconds below 60, milliseconds
// below 1000.
constexpr bool IsValidCivil(const CivilTime& t) noexcept {
    return t.year >= 1601 && t.year <= 30827 && t.month >= 1 && t.month <= 12 && t.day >= 1 &&
           t.day <= DaysInMonth(t.year, t.month) && t.hour >= 0 && t.hour <= 23 && t.minute >= 0 &&
           t.minute <= 59 && t.second >= 0 && t.second <= 59 && t.millisecond >= 0 &&
           t.millisecond <= 999;
}

// The 100-nanosecond count of a valid civil time; false (and `out` untouched) otherwise.
constexpr bool CivilToTicks(const CivilTime& t, uint64_t* out) noexcept {
    if (!IsValidCivil(t)) return false;
    const int64_t days = DaysFromCivil(t.year, t.month, t.day) + kDaysTo1970;
    const int64_t seconds = days * 86400 + t.hour * 3600 + t.minute * 60 + t.second;
    *out = static_cast<uint64_t>(seconds) * kTicksPerSecond +
           static_cast<uint64_t>(t.millisecond) * kTicksPerMs;
    return true;
}

// The civil time of a 100-nanosecond count, to the millisecond.
constexpr CivilTime TicksToCivil(uint64_t ticks) noexcept {
    CivilTime t{};
    const int64_t days = static_cast<int64_t>(ticks / kTicksPerDay);
    uint64_t rest = ticks % kTicksPerDay;
    CivilFromDays(days - kDaysTo1970, &t.year, &t.month, &t.day);
    t.hour = static_cast<int64_t>(rest / (3600 * kTicksPerSecond));
    rest %= 3600 * kTicksPerSecond;
    t.minute = static_cast<int64_t>(rest / (60 * kTicksPerSecond));
    rest %= 60 * kTicksPerSecond;
    t.second = static_cast<int64_t>(rest / kTicksPerSecond);
    rest %= kTicksPerSecond;
    t.millisecond = static_cast<int64_t>(rest / kTicksPerMs);
    return t;
}

}  // namespace TOLVEN::detail
