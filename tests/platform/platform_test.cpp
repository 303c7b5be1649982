#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "platform/thread.h"

namespace platform = TOLVEN::platform;

TEST(Platform, ThreadNameReachesTheOs) {
    // Each case runs on its own thread, so the test runner's thread keeps its name.
    auto nameAndReadBack = [](const std::string& name, std::string* seen) {
        bool known = false;
        std::thread([&] {
            platform::SetCurrentThreadName(name.c_str());
            char buffer[512];
            known = platform::GetCurrentThreadName(buffer, sizeof(buffer));
            if (known) *seen = buffer;
        }).join();
        return known;
    };
    std::string seen;
    if (!nameAndReadBack("tolven-namer", &seen))
        GTEST_SKIP() << "this OS cannot report a thread's name (Windows before 10)";
    EXPECT_EQ(seen, "tolven-namer");

    // A long name may be cut by the OS, never changed: what it keeps is a prefix.
    const std::string longName(300, 'n');
    ASSERT_TRUE(nameAndReadBack(longName, &seen));
    EXPECT_GE(seen.size(), 15u);
    EXPECT_EQ(longName.compare(0, seen.size(), seen), 0) << seen;

    char tiny[4];
    std::thread([&] {
        platform::SetCurrentThreadName("abcdefgh");
        EXPECT_TRUE(platform::GetCurrentThreadName(tiny, sizeof(tiny)) || tiny[0] == '\0');
    }).join();
    EXPECT_LT(std::strlen(tiny), sizeof(tiny)) << "the copy is always terminated";
}

TEST(Platform, ThreadPriorityNeedsALiveThread) {
    EXPECT_FALSE(platform::SetThreadPriority(0, 0));
    EXPECT_FALSE(platform::SetThreadPriority(0xFFFFFFF0u, 0)) << "no such thread";
    std::thread([] {
        EXPECT_TRUE(platform::SetThreadPriority(platform::CurrentThreadId(), -1));
    }).join();
}

namespace {
// Seconds from 1970-01-01 to a civil date and time, with no time zone applied.
int64_t CivilSeconds(const platform::LocalTime& t) {
    const int64_t y = int64_t{t.year} - (t.month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const int64_t yoe = y - era * 400;
    const int64_t mp = (int64_t{t.month} + 9) % 12;
    const int64_t doy = (153 * mp + 2) / 5 + t.day - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    const int64_t days = era * 146097 + doe - 719468;
    return days * 86400 + int64_t{t.hour} * 3600 + int64_t{t.minute} * 60 + t.second;
}
}  // namespace

TEST(Platform, LocalTimeIsTheUnixTimeShiftedByAZoneOffset) {
    const int64_t before = platform::UnixTimeSeconds();
    platform::LocalTime now;
    platform::GetLocalTimeNow(&now);
    const int64_t after = platform::UnixTimeSeconds();
    const int64_t cruntime = static_cast<int64_t>(std::time(nullptr));

    EXPECT_LE(before, after);
    EXPECT_LE(after, cruntime);
    EXPECT_LE(cruntime - after, 1) << "the Unix time of the platform and the C runtime agree";
    EXPECT_LT(now.nanosecond, 1000000000u);
    ASSERT_GE(now.month, 1u);
    ASSERT_LE(now.month, 12u);

    // Whatever the zone, local time is the Unix time plus a whole number of quarter hours,
    // at most 14 hours. A wrong field (month off by one, a lost second) breaks that.
    const int64_t local = CivilSeconds(now);
    bool zoneShift = false;
    for (int64_t t = before; t <= after + 1; ++t) {
        const int64_t offset = local - t;
        zoneShift |= offset % 900 == 0 && offset >= -14 * 3600 && offset <= 14 * 3600;
    }
    EXPECT_TRUE(zoneShift) << now.year << "-" << now.month << "-" << now.day << " " << now.hour
                           << ":" << now.minute << ":" << now.second << " vs unix " << before;
}
