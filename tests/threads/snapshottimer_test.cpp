// Stopwatches: the arithmetic of the readings, the stamp list and what it prints, and the
// precise wall clock.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>

#include "platform/clock.h"
#include "tolven/snapshottimer.h"

using namespace TOLVEN;

TEST(SnapshotTimer, ReadingsMeasureFromTheStart) {
    SnapshotTimer empty;
    EXPECT_TRUE(empty.IsEmpty());
    EXPECT_EQ(empty.GetFrequency(), platform::MonotonicFrequency());
    // An empty timer measures from the counter's epoch: the counter's own reading.
    EXPECT_GE(
        empty.CMS_DOUBLE() / 1000.0,
        static_cast<double>(platform::MonotonicCounter() / platform::MonotonicFrequency()) - 1);
    EXPECT_TRUE(SnapshotTimer(false).IsEmpty());
    SnapshotTimer started(true);
    EXPECT_FALSE(started.IsEmpty());
    started.Clear();
    EXPECT_TRUE(started.IsEmpty());

    // Started 1.5 seconds before now, by a reading taken elsewhere.
    const uint64_t f = platform::MonotonicFrequency();
    const uint64_t counter = platform::MonotonicCounter() - f * 3 / 2;
    SnapshotTimer t(counter);
    EXPECT_EQ(t.GetCounter(), counter);
    const uint64_t whole = t.CMS_CSUI64();
    const uint32_t truncated = t.CMS_DWORD();
    const double exact = t.CMS_DOUBLE();
    EXPECT_GE(whole, 1500u);
    EXPECT_GE(truncated, whole);
    EXPECT_GE(exact, static_cast<double>(truncated));
    EXPECT_LT(exact, 1500.0 + 60000.0);
    EXPECT_DOUBLE_EQ(t.CMS_DOUBLE_START(),
                     static_cast<double>(counter) / static_cast<double>(f) * 1000.0);
    t.Start(counter + f);  // a second later: a second less
    EXPECT_LT(t.CMS_DOUBLE(), exact);
    EXPECT_GE(t.CMS_DOUBLE(), 500.0);
}

TEST(RdtscTimer, StampsAndWhatTheyPrint) {
    RdtscTimer idle(false);
    EXPECT_TRUE(idle.IsEmpty());
    idle.Stamp();  // appends all the same
    EXPECT_EQ(idle.GetResults().size(), 1u);
    EXPECT_GT(RdtscTimer::m_liTimerFrequency.QuadPart, 0);

    EXPECT_FALSE(RdtscTimer(true).IsEmpty());
    EXPECT_GE(RdtscTimer(true).GetResults().capacity(), 100u);
    RdtscTimer t;
    t.Start(4);
    EXPECT_TRUE(t.GetResults().empty());
    for (int i = 0; i < 5; ++i)
        t.Stamp();
    EXPECT_EQ(t.GetResults().capacity(), 6u);  // grown by half
    t.Clear();
    EXPECT_TRUE(t.IsEmpty());
    EXPECT_EQ(t.GetResults().size(), 5u);

    RdtscTimer p(true);
    p.Stamp();
    p.Stamp();
    ::testing::internal::CaptureStdout();
    p.PublishResults("run");
    p.PublishResults(nullptr);
    std::istringstream out(::testing::internal::GetCapturedStdout());
    std::string line;
    std::getline(out, line);
    EXPECT_EQ(line, "start - run");
    double previous = -1;
    for (int i = 0; i < 4; ++i) {
        std::getline(out, line);
        if (i == 2) {
            EXPECT_EQ(line, "end - run");
            std::getline(out, line);
            previous = -1;
        }
        const double ms = std::strtod(line.c_str(), nullptr);
        EXPECT_TRUE(std::isfinite(ms)) << line;
        EXPECT_GE(ms, previous) << line;
        EXPECT_LT(ms, 60000.0) << line;
        previous = ms;
    }
    EXPECT_FALSE(std::getline(out, line)) << line;
}

TEST(HpTimestamp, ReadsTheWallClock) {
    cp_timeval now{};
    ASSERT_TRUE(hptimestamp(now));
    EXPECT_LT(now.microseconds, 1000000u);
    EXPECT_LE(std::llabs(static_cast<long long>(now.seconds) - platform::UnixTimeSeconds()), 2);
}
