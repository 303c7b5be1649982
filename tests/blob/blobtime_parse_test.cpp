#include <gtest/gtest.h>

#include <string>

#include "tolven/blobtime.h"

using namespace TOLVEN;

namespace {

constexpr const char* kFormat = "Invalid date format.";
constexpr const char* kYear = "Invalid date format.  The year is incorrect.";
constexpr const char* kMonth = "Invalid date format.  The month is incorrect.";
constexpr const char* kDay = "Invalid date format.  The day is incorrect.";
constexpr const char* kHour = "Invalid date format.  The hour is incorrect.";
constexpr const char* kMinute = "Invalid date format.  The minute is incorrect.";
constexpr const char* kSecond = "Invalid date format.  The second is incorrect.";
constexpr const char* kNanos = "Invalid date format.  The nanoseconds are incorrect.";
constexpr const char* kFixShort = "Invalid FIX timestamp format.  The string is too short.";
constexpr const char* kFixLong = "Invalid FIX timestamp format.  The string is too long.";

struct Good {
    const char* text;
    _blob_timestamp expected;
};

std::string Show(const _blob_timestamp& t) {
    char text[80];
    std::snprintf(text, sizeof text, "%u-%u-%u %u:%u:%u.%09u", t.year, t.month, t.day, t.hour,
                  t.minute, t.second, t.nanoseconds);
    return text;
}

}  // namespace

TEST(ConvertStringToTime, AcceptsEveryForm) {
    const Good cases[] = {
        // FIX: fixed positions; the fraction by length (19, 20 and 22 carry none).
        {"20240131-13:05:09", {2024, 1, 31, 13, 5, 9, 0}},
        {"20240131-13:05:09.250", {2024, 1, 31, 13, 5, 9, 250000000}},
        {"20240131-13:05:09.25012345", {2024, 1, 31, 13, 5, 9, 250000000}},
        {"20240131-00:05:09 pm", {2024, 1, 31, 12, 5, 9, 0}},  // no 12-hour checks here
        {"20240000-13:05:09", {2024, 0, 0, 13, 5, 9, 0}},      // month and day 0 pass
        // Month first, numbers or names.
        {"Feb-29-2024 11:59:59 p.m.", {2024, 2, 29, 23, 59, 59, 0}},
        {"01/31/2024 13:05:09.75", {2024, 1, 31, 13, 5, 9, 0}},  // no fraction in this form
        // Year first, with an optional fraction.
        {"2024-01-31 13:05:09.123456789", {2024, 1, 31, 13, 5, 9, 123456789}},
        {"2024-00-31 00:00:00", {2024, 0, 31, 0, 0, 0, 0}},  // month 0 passes here
        {"2024-Jan-31", {2024, 0, 31, 0, 0, 0, 0}},          // no names in this form
        // Eight characters but two date separators: year first, not FIX.
        {"00002024-01-31 10:00:00", {2024, 1, 31, 10, 0, 0, 0}},
        // A time of day alone.
        {"13:05:09", {0, 0, 0, 13, 5, 9, 0}},
        {"12:00:00 am", {0, 0, 0, 0, 0, 0, 0}},
        {"1:2:3:4:5:6:7:8:9", {0, 0, 0, 1, 2, 3, 0}},  // eight separators are still allowed
    };
    for (const Good& c : cases) {
        _blob_timestamp t;
        t.year = 7777;  // the parser zeroes first
        UtilError error;
        EXPECT_EQ(ConvertStringToTime(c.text, &t, &error), 1) << c.text << ": " << error.GetError();
        EXPECT_EQ(Show(t), Show(c.expected)) << c.text;
        EXPECT_FALSE(error.HasError()) << c.text << ": " << error.GetError();
    }
}

TEST(ConvertStringToTime, RefusesBadTextWithItsMessage) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        // Classification.
        {"", kFormat},
        {"1/2", kFormat},
        {"1/2/3/4/5/6/7/8/9/10", kFormat},
        // FIX.
        {"20240131-13:05", kFixShort},
        {"20240131-13:05:09.2501234567", kFixLong},
        {"00990131-13:05:09", kYear},
        {"20241331-13:05:09", kMonth},
        {"20240132-13:05:09", kDay},
        {"20240131-24:05:09", kHour},
        // Month first.
        {"13/31/2024", kMonth},
        {"Foo-31-2024", kMonth},
        {"01/31/24", kYear},
        {"01/31/2024 00:30:00 am", kHour},
        {"01/31/2024 10:60:00", kMinute},
        {"01/31/2024 10:30", kFormat},
        // Year first.
        {"January-31-2024", kYear},
        {"2024-13-01", kMonth},
        {"2024-01-31 0:00:00 a.m.", kHour},
        {"2024-01-31 10:00:61", kSecond},
        {"2024-01-31 99999999999:00:00", kHour},
        // A time of day alone.
        {"13:00:00 pm", kHour},
    };
    for (const auto& c : cases) {
        _blob_timestamp t;
        UtilError error;
        EXPECT_EQ(ConvertStringToTime(c.text, &t, &error), 0) << c.text;
        EXPECT_STREQ(error.GetError(), c.message) << c.text;
    }
}

TEST(ConvertStringToTime, BadFractionStillSucceedsWithMessage) {
    for (const char* text : {"2024-01-31 13:05:09.1234567890", "2024-01-31 13:05:09.-5"}) {
        _blob_timestamp t;
        UtilError error;
        EXPECT_EQ(ConvertStringToTime(text, &t, &error), 1) << text;
        EXPECT_STREQ(error.GetError(), kNanos) << text;
        EXPECT_EQ(Show(t), Show({2024, 1, 31, 13, 5, 9, 0})) << text;
    }
}

TEST(ConvertStringToTime, ErrorHandlingAndPartialResult) {
    _blob_timestamp t;
    UtilError error;
    ASSERT_TRUE(error.SetError("earlier"));
    EXPECT_EQ(ConvertStringToTime("01/31/2024 10:60:00", &t, &error), 0);
    EXPECT_STREQ(error.GetError(), "earlier");  // the first error wins
    // The fields read before the error stay.
    EXPECT_EQ(Show(t), Show({2024, 1, 31, 10, 0, 0, 0}));
    EXPECT_EQ(ConvertStringToTime("bad", &t, nullptr), 0);
    EXPECT_EQ(ConvertStringToTime("2024-01-31", nullptr, &error), 0);
    error.Clear();
    EXPECT_EQ(ConvertStringToTime(nullptr, &t, &error), 0);
    EXPECT_STREQ(error.GetError(), kFormat);
    // Only the first 254 characters take part: the "pm" beyond them is not seen (13 pm would
    // be refused).
    std::string longText = "2024-01-31 13:05:09.5" + std::string(300, ' ') + "pm";
    EXPECT_EQ(ConvertStringToTime(longText.c_str(), &t, nullptr), 1);
    EXPECT_EQ(t.hour, 13);
}

TEST(ConvertStringToHMS, WritesOnlyTheClockAndReadsFractions) {
    const struct {
        const char* text;
        bool fraction;
        uint16_t hour, minute, second;
        uint32_t nanoseconds;
    } cases[] = {
        {"13:05:09.123456789", true, 13, 5, 9, 123456789},
        {"13:05:09.1234567891", true, 13, 5, 9, 7},  // more than nine digits are ignored
        {"13:05:09.25", false, 13, 5, 9, 7},
    };
    for (const auto& c : cases) {
        _blob_timestamp t{2024, 1, 31, 99, 99, 99, 7};
        EXPECT_EQ(ConvertStringToHMS(c.text, &t, nullptr, c.fraction), 1) << c.text;
        EXPECT_EQ(Show(t), Show({2024, 1, 31, c.hour, c.minute, c.second, c.nanoseconds}))
            << c.text;
    }
    _blob_timestamp t{};
    UtilError error;
    EXPECT_EQ(ConvertStringToHMS("", &t, &error, true), 0);
    EXPECT_STREQ(error.GetError(), kFormat);
    EXPECT_EQ(ConvertStringToHMS("10:00", nullptr, nullptr, true), 0);
}
