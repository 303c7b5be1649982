// The latency tracker: its file line by line, the choice of key, appending across runs, and
// many threads recording at once.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "blob/tz_guard.h"
#include "log/logfile_test_util.h"
#include "platform/clock.h"
#include "threads/LatencyTrackerHooks.h"
#include "threads/registry_util.h"
#include "tolven/latencytracker.h"

using namespace TOLVEN;
using tolven_test::CrlfLines;
using tolven_test::ScratchDir;
using tolven_test::Slurp;

namespace {

// Five past nine and seven seconds, every time.
struct FixedClock {
    detail::LatencyClock previous;
    FixedClock() {
        previous = detail::SetLatencyClockForTest(
            [](_blob_timestamp* t) { *t = _blob_timestamp{2026, 3, 4, 9, 5, 7, 0}; });
    }
    ~FixedClock() { (void)detail::SetLatencyClockForTest(previous); }
};

uint64_t SecondsAgo(double seconds) {
    return platform::MonotonicCounter() -
           static_cast<uint64_t>(seconds * static_cast<double>(platform::MonotonicFrequency()));
}

// The line without its trailing latency, and the latency.
std::pair<std::string, double> Split(const std::string& line) {
    const size_t comma = line.rfind(", ");
    return {line.substr(0, comma), std::strtod(line.c_str() + comma + 2, nullptr)};
}

}  // namespace

TEST(LatencyTracker, LinesOfTheFile) {
    ScratchDir dir;
    FixedClock clock;
    LatencyTracker t;
    ASSERT_TRUE(t.Init((dir / "lat.txt").c_str()));
    EXPECT_TRUE(t.LatencyChecksEnabled());
    // The writer enters the registry once it runs.
    bool named = false;
    for (int i = 0; i < 10000 && !named; ++i) {
        named = TOLVEN::test::IsRegistered("LatencyTracker");
        if (!named) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(named);
    const std::string longKey(70, 'k');
    t.AddLatencyStats(longKey.c_str(), SecondsAgo(2.5), "sent", "gateway.cpp", 42, "Gateway::Send");
    t.AddLatencyStats("no key", "x.cpp", 1, "F");  // no key anywhere: nothing
    t.AddLatencyStats(nullptr, SecondsAgo(1), "l", "f", 1, "F");
    t.SetKey("order-7", SecondsAgo(0.25));
    t.AddLatencyStats("booked", "book.cpp", 7, "Book::Add");
    EXPECT_GE(t.GetCurrentLatency(), 250.0);
    t.Term();  // what was queued is written before the file closes
    EXPECT_FALSE(t.LatencyChecksEnabled());

    const auto lines = CrlfLines(Slurp(dir / "lat.txt"));
    ASSERT_EQ(lines.size(), 2u);
    auto [first, ms1] = Split(lines[0]);
    EXPECT_EQ(first,
              "09:05:07, " + longKey.substr(0, 63) + ", gateway.cpp, 42, Gateway::Send, sent");
    EXPECT_GE(ms1, 2500.0);
    EXPECT_LT(ms1, 60000.0);
    EXPECT_NE(lines[0].find('.', lines[0].rfind(", ")), std::string::npos);
    auto [second, ms2] = Split(lines[1]);
    EXPECT_EQ(second, "09:05:07, order-7, book.cpp, 7, Book::Add, booked");
    EXPECT_GE(ms2, 250.0);

    // The next run appends.
    ASSERT_TRUE(t.Init((dir / "lat.txt").c_str()));
    t.AddLatencyStats("k2", SecondsAgo(0), "again", "a.cpp", 3, "A");
    t.Term();
    EXPECT_EQ(CrlfLines(Slurp(dir / "lat.txt")).size(), 3u);
    EXPECT_FALSE(t.Init((dir / "no/such/lat.txt").c_str()));
    EXPECT_FALSE(t.LatencyChecksEnabled());
}

TEST(LatencyTracker, ThreadKeyBeforeProcessKey) {
    ScratchDir dir;
    FixedClock clock;
    LatencyTracker t;
    ASSERT_TRUE(t.Init((dir / "keys.txt").c_str()));
    EXPECT_EQ(t.GetCurrentLatency(), 0.0);
    t.SetKey("process", SecondsAgo(0));
    t.SetThreadKey("mine", SecondsAgo(0));
    t.AddLatencyStats("1", "f", 1, "F");
    std::thread other([&] { t.AddLatencyStats("2", "f", 2, "F"); });  // has no key of its own
    other.join();
    t.SetThreadKey(nullptr, 0);
    t.AddLatencyStats("3", "f", 3, "F");
    t.Term();
    const auto lines = CrlfLines(Slurp(dir / "keys.txt"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(Split(lines[0]).first, "09:05:07, mine, f, 1, F, 1");
    EXPECT_EQ(Split(lines[1]).first, "09:05:07, process, f, 2, F, 2");
    EXPECT_EQ(Split(lines[2]).first, "09:05:07, process, f, 3, F, 3");
}

// The time of a record is the local time, in whatever zone the process is put.
TEST(LatencyTracker, RecordsTakeTheLocalTime) {
    ScratchDir dir;
    LatencyTracker t;
    ASSERT_TRUE(t.Init((dir / "tz.txt").c_str()));
    std::vector<int> hours;
    for (const auto& [zone, east] : {std::pair{"UTC0", 0}, {"ABC-5", 5}, {"UTC0", 0}}) {
        tolven_test::ScopedTimeZone tz(zone);
        if (!tz.Applied()) GTEST_SKIP() << "the platform ignores zone rules";
        t.AddLatencyStats(zone, SecondsAgo(0), "l", "f", 1, "F");
        hours.push_back(static_cast<int>((platform::UnixTimeSeconds() / 3600 + east) % 24));
    }
    t.Term();
    const auto lines = CrlfLines(Slurp(dir / "tz.txt"));
    ASSERT_EQ(lines.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const int hour = std::atoi(lines[i].c_str());
        // The clock may pass an hour between the record and the check.
        EXPECT_TRUE(hour == hours[i] || (hour + 1) % 24 == hours[i]) << lines[i];
    }
    EXPECT_NE(std::atoi(lines[0].c_str()), std::atoi(lines[1].c_str()));
}

TEST(LatencyTracker, ManyThreadsLoseNothing) {
    ScratchDir dir;
    LatencyTracker t;
    ASSERT_TRUE(t.Init((dir / "many.txt").c_str()));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&t, i] {
            static const char* kKeys[] = {"t0", "t1", "t2", "t3"};
            t.SetThreadKey(kKeys[i], SecondsAgo(0));
            for (int n = 0; n < 2000; ++n)
                t.AddLatencyStats("step", "m.cpp", n, "Run");
        });
    for (auto& th : threads)
        th.join();
    t.Term();
    const auto lines = CrlfLines(Slurp(dir / "many.txt"));
    EXPECT_EQ(lines.size(), 8000u);
}
