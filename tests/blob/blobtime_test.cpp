#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "blob/civil_time.h"
#include "blob/tz_guard.h"
#include "platform/timezone.h"
#include "tolven/blobstatus.h"
#include "tolven/blobtime.h"

using namespace TOLVEN;

namespace {

bool Same(const _blob_timestamp& a, const _blob_timestamp& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

uint64_t Ticks(const detail::CivilTime& c) {
    uint64_t ticks = 0;
    EXPECT_TRUE(detail::CivilToTicks(c, &ticks));
    return ticks;
}

// A zone with daylight time from the second Sunday of March to the first of November.
constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";

}  // namespace

TEST(BlobStatus, OutOfRangeCodesAreUnknown) {
    EXPECT_STREQ(BlobStatusToString(static_cast<blob_status>(14)), "unknown");
    EXPECT_STREQ(BlobStatusToString(static_cast<blob_status>(0xFFFFFFFFu)), "unknown");
}

TEST(UtilError, KeepsTheFirstTextAndCutsLongOnes) {
    UtilError error;
    EXPECT_TRUE(error.SetErrorFormat("code %d", 7));
    EXPECT_FALSE(error.SetError("second"));
    EXPECT_STREQ(error.GetError(), "code 7");
    error.Clear();
    EXPECT_TRUE(error.SetError(std::string(5000, 'x').c_str()));
    EXPECT_EQ(std::strlen(error.GetError()), UtilError::kCapacity - 1);
}

TEST(CivilTime, DayCountsRoundTripOverTheWholeRange) {
    const int64_t first = detail::DaysFromCivil(1601, 1, 1);
    const int64_t last = detail::DaysFromCivil(30827, 12, 31);
    EXPECT_EQ(first, -detail::kDaysTo1970);
    int64_t year = 0, month = 0, day = 0;
    int64_t expectYear = 1601, expectMonth = 1, expectDay = 1;
    for (int64_t days = first; days <= last; ++days) {
        detail::CivilFromDays(days, &year, &month, &day);
        ASSERT_EQ(year * 10000 + month * 100 + day,
                  expectYear * 10000 + expectMonth * 100 + expectDay);
        ASSERT_EQ(detail::DaysFromCivil(year, month, day), days);
        if (++expectDay > detail::DaysInMonth(expectYear, expectMonth)) {
            expectDay = 1;
            if (++expectMonth > 12) expectMonth = 1, ++expectYear;
        }
    }
    // Out-of-range months and days roll into their neighbours.
    EXPECT_EQ(detail::DaysFromCivil(2024, 0, 1), detail::DaysFromCivil(2023, 12, 1));
    EXPECT_EQ(detail::DaysFromCivil(2024, 3, 0), detail::DaysFromCivil(2024, 2, 29));
    EXPECT_EQ(detail::DaysFromCivil(2024, 13, 1), detail::DaysFromCivil(2025, 1, 1));
}

TEST(BlobTime, SystemTimeAndCpTimevalConversions) {
    const _blob_timestamp t{2024, 1, 31, 13, 5, 9, 250999999};
    _SYSTEMTIME st;
    st.wDayOfWeek = 42;
    ASSERT_EQ(BlobTimeToSystemTime(&st, t), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(st.wDayOfWeek, 42);  // not written
    _blob_timestamp back{};
    ASSERT_EQ(SystemTimeToBlobTime(&back, st), BLOB_STATUS_SUCCESS);
    EXPECT_TRUE(Same(back, {2024, 1, 31, 13, 5, 9, 250000000}));

    const struct {
        _blob_timestamp time;
        blob_status status;
        uint32_t seconds, microseconds;
    } cases[] = {
        {{2024, 1, 31, 13, 5, 9, 250999999}, BLOB_STATUS_SUCCESS, 1706706309, 250000},
        {{2106, 2, 7, 6, 28, 15, 999000000}, BLOB_STATUS_SUCCESS, 4294967295u, 999000},
        {{2106, 2, 7, 6, 28, 16, 0}, BLOB_STATUS_CANNOT_CONVERT, 1, 1},
        {{1969, 12, 31, 23, 59, 59, 0}, BLOB_STATUS_CANNOT_CONVERT, 1, 1},
        {{2024, 1, 1, 0, 0, 0, 1000000000}, BLOB_STATUS_CANNOT_CONVERT, 1, 1},
    };
    for (const auto& c : cases) {
        cp_timeval tv{1, 1};
        EXPECT_EQ(BlobTimeToCpTimeval(&tv, c.time), c.status) << c.time.year;
        EXPECT_EQ(tv.seconds, c.seconds) << c.time.year;
        EXPECT_EQ(tv.microseconds, c.microseconds) << c.time.year;
    }
}

TEST(BlobTime, CompareAndRangeLookOnlyAtChosenFields) {
    const _blob_timestamp a{2024, 1, 31, 13, 5, 9, 5};
    const struct {
        _blob_timestamp b;
        blobtime_compare fields;
        int expected;
    } cases[] = {
        {{2024, 1, 31, 13, 5, 9, 6}, BLOBTIME_COMPARE_ALL, -1},
        {{2023, 12, 31, 23, 59, 59, 999}, BLOBTIME_COMPARE_ALL, 1},  // the year decides
        {{1999, 1, 31, 13, 5, 9, 5}, BLOBTIME_COMPARE_TIME_NANOSECONDS, 0},
        {{2024, 1, 31, 13, 5, 9, 4}, BLOBTIME_COMPARE_DATE | BLOBTIME_COMPARE_TIME, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(CompareBlobTimeByField(a, c.b, c.fields), c.expected) << c.fields;
        EXPECT_EQ(CompareBlobTimeByField(c.b, a, c.fields), -c.expected) << c.fields;
    }
    // Ranges are inclusive and wrap past midnight without their end.
    const auto at = [](uint16_t hour) { return _blob_timestamp{2024, 1, 31, hour, 0, 0, 0}; };
    const auto in = [&](uint16_t value, uint16_t start, uint16_t end) {
        return IsBlobTimeInRange(at(value), at(start), at(end), BLOBTIME_COMPARE_HOUR);
    };
    EXPECT_EQ(in(9, 9, 17), 1);
    EXPECT_EQ(in(8, 9, 17), 0);
    // A night from 22 to 6: the start counts, the end does not.
    EXPECT_EQ(in(23, 22, 6), 1);
    EXPECT_EQ(in(6, 22, 6), 0);
    // Equal ends under the chosen fields take every value.
    EXPECT_EQ(in(3, 7, 7), 1);
    EXPECT_EQ(IsBlobTimeInRange(at(3), {2020, 1, 1, 7, 0, 0, 0}, at(7), BLOBTIME_COMPARE_HOUR), 1);
}

TEST(BlobTime, DifferenceInEachUnit) {
    const _blob_timestamp a{2024, 3, 1, 0, 0, 1, 500000000};
    const _blob_timestamp b{2024, 2, 28, 23, 59, 59, 750000000};
    // 2024 is a leap year: one day, one second and 750 ms apart.
    const int64_t ns = (86400LL + 1) * 1000000000LL + 750000000LL;
    EXPECT_EQ(GetBlobTimeDifference(a, b, BLOBTIME_RET_NANOSECONDS), ns);
    EXPECT_EQ(GetBlobTimeDifference(a, b, BLOBTIME_RET_SECONDS), 86401);
    EXPECT_EQ(GetBlobTimeDifference(b, a, BLOBTIME_RET_SECONDS), -86401);  // truncates towards 0
    EXPECT_EQ(GetBlobTimeDifference({65535, 12, 31, 0, 0, 0, 0}, {1, 1, 1, 0, 0, 0, 0},
                                    BLOBTIME_RET_NANOSECONDS),
              std::numeric_limits<int64_t>::max());
}

TEST(BlobTime, PrintsDateTimeAndTheirLongForm) {
    const struct {
        _blob_timestamp time;
        bool full;
        const char* text;
    } cases[] = {
        {{2024, 1, 31, 13, 5, 9, 1}, false, "01/31/2024 13:05:09"},
        {{0, 0, 0, 7, 8, 9, 0}, false, "07:08:09"},
        {{65535, 65535, 65535, 65535, 65535, 65535, 0},
         false,
         "65535/65535/65535 65535:65535:65535"},
    };
    for (const auto& c : cases) {
        char text[64];
        EXPECT_EQ(GetBlobTimeAsStr(text, sizeof text, c.time, c.full), BLOB_STATUS_SUCCESS);
        EXPECT_STREQ(text, c.text);
    }
    char text[11];
    const _blob_timestamp t{2024, 1, 31, 13, 5, 9, 0};
    EXPECT_EQ(GetBlobTimeAsStr(text, sizeof text, t, false), BLOB_STATUS_BUFFER_TOO_SMALL);
    EXPECT_STREQ(text, "01/31/2024");
}

TEST(BlobTime, LocalAndUtcFollowTheZoneRules) {
    tolven_test::ScopedTimeZone zone(kNewYork);
    ASSERT_TRUE(zone.Applied());
    const struct {
        _blob_timestamp local, utc;
    } cases[] = {
        {{2024, 1, 15, 12, 0, 0, 123456789}, {2024, 1, 15, 17, 0, 0, 123456789}},
        {{2024, 7, 15, 12, 0, 0, 5}, {2024, 7, 15, 16, 0, 0, 5}},
        {{2024, 12, 31, 22, 30, 0, 0}, {2025, 1, 1, 3, 30, 0, 0}},
    };
    for (const auto& c : cases) {
        _blob_timestamp t = c.local;
        ASSERT_EQ(CurrentToGmtBlobTime(&t), BLOB_STATUS_SUCCESS);
        EXPECT_TRUE(Same(t, c.utc)) << t.hour;
        ASSERT_EQ(GmtToCurrentBlobTime(&t), BLOB_STATUS_SUCCESS);
        EXPECT_TRUE(Same(t, c.local)) << t.hour;
    }
    _blob_timestamp bad{2024, 0, 15, 12, 0, 0, 0};
    EXPECT_EQ(CurrentToGmtBlobTime(&bad), BLOB_STATUS_CANNOT_CONVERT);
    EXPECT_TRUE(Same(bad, {2024, 0, 15, 12, 0, 0, 0}));
}

TEST(BlobTime, LocalClockAgreesWithTheUtcClock) {
    tolven_test::ScopedTimeZone zone("XST-5:30");  // a fixed offset, so no ambiguous hour
    ASSERT_TRUE(zone.Applied());
    // The local clock, turned into UTC, lies between two readings of the UTC clock.
    _blob_timestamp before{}, local{}, after{};
    ASSERT_EQ(GetGmtBlobTime(&before), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetCurrentBlobTime(&local), BLOB_STATUS_SUCCESS);
    ASSERT_EQ(GetGmtBlobTime(&after), BLOB_STATUS_SUCCESS);
    EXPECT_EQ(local.nanoseconds % 1000000, 0u);
    ASSERT_EQ(CurrentToGmtBlobTime(&local), BLOB_STATUS_SUCCESS);
    EXPECT_LE(CompareBlobTime(before, local), 0);
    EXPECT_LE(CompareBlobTime(local, after), 0);
}

TEST(TimeZoneStandard, MidnightOfTheZoneAndMillisecondsAfterIt) {
    const struct {
        int32_t hours;
        bool adjustDst, daylight;
        detail::CivilTime utcNow;
        uint32_t midnightSeconds;  // UNIX time of the zone's last midnight
    } cases[] = {
        // UTC-5 at 03:30 UTC is still the evening before: midnight was 05:00 UTC that day.
        {5, true, true, {2024, 1, 31, 3, 30, 0, 0}, 1706587200},     // one hour taken off
        {-9, false, false, {2024, 1, 31, 16, 0, 0, 0}, 1706713200},  // east of UTC
    };
    for (const auto& c : cases) {
        TimeZoneStandard zone;
        EXPECT_TRUE(zone.InitAt(c.hours, c.adjustDst, c.daylight, Ticks(c.utcNow)));
        EXPECT_EQ(zone.IsDstAdjusted(), c.adjustDst && c.daylight);
        cp_timeval tv{};
        zone.SetTime(0, tv);
        EXPECT_EQ(tv.seconds, c.midnightSeconds) << c.hours;
        zone.SetTime(((13 * 60 + 5) * 60 + 9) * 1000 + 250, tv);
        EXPECT_EQ(tv.seconds, c.midnightSeconds + (13 * 60 + 5) * 60 + 9) << c.hours;
        EXPECT_EQ(tv.microseconds, 250000u);
    }
}

TEST(TimeZoneStandard, InitAsksThePlatformForDaylightTime) {
    {
        // Daylight time from the first Sunday two months back to the first Sunday two months
        // ahead (wrapping past the year's end as southern zones do), so it is in force now.
        const auto today = std::chrono::year_month_day{
            std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now())};
        const unsigned month = static_cast<unsigned>(today.month());
        char rule[64];
        std::snprintf(rule, sizeof rule, "EST5EDT4,M%u.1.0,M%u.1.0", (month + 9) % 12 + 1,
                      (month + 1) % 12 + 1);
        tolven_test::ScopedTimeZone zone(rule);
        ASSERT_TRUE(zone.Applied()) << rule;
        EXPECT_TRUE(platform::IsDaylightTimeNow()) << rule;
        EXPECT_TRUE(TimeZoneStandard(5, true).IsDstAdjusted());
    }
    tolven_test::ScopedTimeZone zone("UTC0");
    EXPECT_FALSE(platform::IsDaylightTimeNow());
    TimeZoneStandard utc(0, true);
    EXPECT_FALSE(utc.IsDstAdjusted());
    cp_timeval start{};
    utc.SetTime(0, start);
    EXPECT_EQ(start.seconds % 86400, 0u);  // midnight UTC today
}
