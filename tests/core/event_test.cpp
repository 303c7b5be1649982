#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tolven/autothread.h"
#include "tolven/event.h"
#include "tolven/tickcounter.h"

using namespace TOLVEN;

namespace {
// Detectors are reference counted; this holder gives one back at scope end.
struct DetectorRef {
    EventDetectorType* d;
    explicit DetectorRef(EventDetectorType* p) : d(p) {}
    ~DetectorRef() { d->Release(); }
    EventDetectorType* operator->() const { return d; }
};
DetectorOptions Parked(uint32_t lazy) {
    DetectorOptions o;
    o.lazyCheckInterval = lazy;
    return o;
}
}  // namespace

TEST(Event, InvalidEventRefusesSetAndDetectors) {
    Event e{Event::InvalidTag{}};
    EXPECT_EQ(e.Set(), event_invalid);
    DetectorRef d(new EventDetectorType());
    EXPECT_EQ(d->Add(&e), event_invalid);
    EXPECT_EQ(d->Add(nullptr), event_bad_argument);
    e.MakeValid(true);
    EXPECT_EQ(e.Set(), event_success);
    EXPECT_TRUE(e.IsSignalled());
}

TEST(Event, AutoResetFiresOncePerSetManualResetUntilReset) {
    Event autoEv(true), manualEv(false);
    int autoFired = 0, manualFired = 0;
    DetectorRef d(new EventDetectorType(Parked(10)));
    ASSERT_EQ(d->Add(&autoEv, [&] { ++autoFired; }), event_success);
    ASSERT_EQ(d->Add(&manualEv, [&] { ++manualFired; }), event_success);
    (void)autoEv.Set();
    (void)manualEv.Set();
    EXPECT_EQ(d->Wait(0), event_success);
    EXPECT_EQ(d->Wait(0), event_success);
    EXPECT_EQ(autoFired, 1);
    EXPECT_EQ(manualFired, 2);
    manualEv.Reset();
    EXPECT_EQ(d->Wait(0), event_timeout);
}

TEST(Event, WaitWithoutEventsAndDetectorCapacity) {
    DetectorRef d(new EventDetectorType());
    EXPECT_EQ(d->Wait(0), event_no_events);
    Event events[64];
    for (int i = 0; i < 63; ++i)
        ASSERT_EQ(d->Add(&events[i]), event_success) << i;
    EXPECT_EQ(d->Add(&events[63]), event_full);
    EXPECT_EQ(d->Count(), 63);
    d->Clear();
    EXPECT_EQ(d->Count(), 0);
    // Cleared: a Set must not reach the detector any more.
    EXPECT_EQ(events[0].Set(), event_success);
    EXPECT_EQ(events[0].detector, nullptr);
}

TEST(Event, SecondSetOfManualEventNotifiesOnce) {
    Event e(false);
    int notifies = 0;
    static int* counter;
    counter = &notifies;
    ASSERT_EQ(e.AddDetector(reinterpret_cast<EventDetectorType*>(&e),
                            [](const EventNotifyRecord&) { ++*counter; }),
              event_success);
    (void)e.Set();
    (void)e.Set();
    EXPECT_EQ(notifies, 1);
    (void)e.RemoveDetector(reinterpret_cast<EventDetectorType*>(&e));
}

TEST(Event, SetFromAnotherThreadWakesParkedWaiter) {
    Event e(true);
    DetectorRef d(new EventDetectorType(Parked(60000)));
    ASSERT_EQ(d->Add(&e), event_success);
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        (void)e.Set();
    });
    // The look interval is a minute: only the notification can end this wait in time.
    const uint64_t t0 = GetTickCount64Ms();
    EXPECT_EQ(d->Wait(kInfinite), event_success);
    EXPECT_LT(GetTickCount64Ms() - t0, 50000u);
    setter.join();
}

TEST(Event, UserModeSetterReachesParkedWaiterByLazyLook) {
    Event e(true);
    DetectorRef d(new EventDetectorType(Parked(10)));
    ASSERT_EQ(d->Add(&e), event_success);
    std::atomic<bool> setterNotified{false};
    std::thread setter([&] {
        unsigned prio = 50;
        ConfigureCurrentThread("usermode-setter", &prio, nullptr);
        GetCurrentThreadData()->enforceUserMode = true;
        EXPECT_TRUE(EnforceUserMode());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        (void)e.Set();
        setterNotified = true;
    });
    // A 30 s bound with 10 ms looks: the wait ends by a look, never by the time-out.
    EXPECT_EQ(d->Wait(30000), event_success);
    setter.join();
    EXPECT_TRUE(setterNotified);
}

TEST(Event, TimedWaitEndsNoEarlierThanItsTimeout) {
    Event e(true);
    DetectorRef d(new EventDetectorType(Parked(20)));
    ASSERT_EQ(d->Add(&e), event_success);
    for (uint32_t timeout : {5u, 30u, 75u}) {
        const uint64_t t0 = GetTickCount64Ms();
        EXPECT_EQ(d->Wait(timeout), event_timeout);
        EXPECT_GE(GetTickCount64Ms() - t0 + 1, timeout);
    }
}

TEST(Event, SpinningDetectorSeesSignalAndTimesOut) {
    DetectorOptions o;
    o.spinThread = true;
    o.pause = true;
    Event e(true);
    DetectorRef d(new EventDetectorType(o));
    ASSERT_EQ(d->Add(&e), event_success);
    EXPECT_EQ(d->Wait(5), event_timeout);
    std::thread setter([&] { (void)e.Set(); });
    EXPECT_EQ(d->Wait(kInfinite), event_success);
    setter.join();
}

TEST(Event, OneAutoResetSignalFiresOneOfTwoDetectors) {
    Event e(true);
    DetectorRef a(new EventDetectorType()), b(new EventDetectorType());
    ASSERT_EQ(a->Add(&e), event_success);
    ASSERT_EQ(b->Add(&e), event_success);
    (void)e.Set();
    const int fired = (a->Wait(0) == event_success) + (b->Wait(0) == event_success);
    EXPECT_EQ(fired, 1);
}

TEST(AtomicCas2, SwapsOnlyOnMatch) {
    alignas(16) uint64_t target[2] = {10, 20};  // low, high
    const uint64_t miss[4] = {1, 99, 2, 10};
    EXPECT_FALSE(atomic_cas2(target, miss));
    EXPECT_EQ(target[0], 10u);
    const uint64_t hit[4] = {1, 20, 2, 10};  // new low, exp high, new high, exp low
    EXPECT_TRUE(atomic_cas2(target, hit));
    EXPECT_EQ(target[0], 1u);
    EXPECT_EQ(target[1], 2u);
}
