#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tolven/timer.h"
#include "threads/registry_util.h"

using namespace TOLVEN;
using TOLVEN::test::IsRegistered;

namespace {

// Polls `done` for up to 20 seconds; the machine may be loaded.
template <class F>
bool WaitFor(F done) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A callback that notes the registered name of the thread it runs on ("" for none).
struct NameProbe {
    std::mutex mutex;
    std::string value = "unset";
    static unsigned int Run(void* p) {
        auto* self = static_cast<NameProbe*>(p);
        const thread_data* d = GetCurrentThreadData();
        std::lock_guard<std::mutex> lock(self->mutex);
        self->value = d != nullptr ? d->name : std::string();
        return 0;
    }
    std::string Get() {
        std::lock_guard<std::mutex> lock(mutex);
        return value;
    }
};

// What the callbacks saw, written on the timer's thread and read after it is joined or
// under the lock.
struct Log {
    std::mutex mutex;
    std::vector<std::string> entries;
    std::atomic<int> ticks{0};
    void Add(std::string s) {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(std::move(s));
    }
    std::vector<std::string> Take() {
        std::lock_guard<std::mutex> lock(mutex);
        return std::move(entries);
    }
};

// A callback that logs a fixed letter.
struct Letter {
    Log* log;
    const char* text;
    static unsigned int Run(void* p) {
        auto* self = static_cast<Letter*>(p);
        self->log->Add(self->text);
        return 0;
    }
};

unsigned int CountTick(void* p) {
    auto* log = static_cast<Log*>(p);
    log->Add("|");
    ++log->ticks;
    return 0;
}

class TimerTest : public ::testing::Test {
  protected:
    void SetUp() override { configure_mainthread(); }
};

}  // namespace

TEST_F(TimerTest, TicksRunCallbacksInOrderOnANamedThreadAndSurviveShutdown) {
    Timer timer;
    Log log;
    unsigned int tickId = 0, aId = 0, bId = 0;
    Letter a{&log, "a"}, b{&log, "b"};
    EXPECT_EQ(timer.AddCallback(&CountTick, &log, &tickId), timer_success);
    EXPECT_EQ(timer.AddCallback(&Letter::Run, &a, &aId), timer_success);
    EXPECT_EQ(timer.AddCallback(&Letter::Run, &b, &bId), timer_success);
    EXPECT_EQ(timer.AddCallback(&Letter::Run, &b, nullptr), timer_success) << "id optional";
    EXPECT_LT(tickId, aId);
    EXPECT_LT(aId, bId);
    EXPECT_EQ(timer.RemoveCallback(bId), timer_success);
    EXPECT_EQ(timer.RemoveCallback(bId), timer_not_found);
    EXPECT_EQ(timer.RemoveCallback(0xFFFFFFF0u), timer_not_found);

    unsigned int nameId = 0;
    NameProbe name;
    EXPECT_EQ(timer.AddCallback(&NameProbe::Run, &name, &nameId), timer_success);

    EXPECT_EQ(timer.Interval(), 0u);
    ASSERT_EQ(timer.Startup(10, 50, "Unit"), timer_success);
    EXPECT_EQ(timer.Interval(), 10u);
    ASSERT_TRUE(WaitFor([&] { return log.ticks >= 3; }));
    EXPECT_TRUE(IsRegistered("CSTimerThread_Unit"));
    EXPECT_EQ(timer.Shutdown(), timer_success);
    EXPECT_FALSE(timer.joinable());
    EXPECT_EQ(timer.Interval(), 0u);
    EXPECT_FALSE(IsRegistered("CSTimerThread_Unit"));
    EXPECT_EQ(name.Get(), "CSTimerThread_Unit");

    const int ticksAtShutdown = log.ticks;
    std::vector<std::string> seen = log.Take();
    ASSERT_EQ(seen.size(), static_cast<size_t>(ticksAtShutdown) * 3);
    for (size_t i = 0; i < seen.size(); i += 3) {
        EXPECT_EQ(seen[i], "|");
        EXPECT_EQ(seen[i + 1], "a");
        EXPECT_EQ(seen[i + 2], "b") << "the copy of b without an id";
    }

    // The callbacks stay over Shutdown; a restart without a name runs them again.
    EXPECT_EQ(timer.RemoveCallback(aId), timer_success);
    ASSERT_EQ(timer.Startup(10, 50, nullptr), timer_success);
    ASSERT_TRUE(WaitFor([&] { return log.ticks >= ticksAtShutdown + 2; }));
    // Startup on a running timer is a restart.
    ASSERT_EQ(timer.Startup(5, 50, "Again"), timer_success);
    ASSERT_TRUE(WaitFor([&] { return name.Get() == "CSTimerThread_Again"; }));
    EXPECT_EQ(timer.Shutdown(), timer_success);
    EXPECT_EQ(timer.Shutdown(), timer_success) << "a second Shutdown is harmless";
    for (const std::string& s : log.Take())
        EXPECT_NE(s, "a");
}

TEST_F(TimerTest, ChangesFromInsideACallbackTakeEffectAfterTheTick) {
    Timer timer;
    Log log;
    Letter b{&log, "b"}, c{&log, "c"}, d{&log, "d"};
    struct Changer {
        Timer* timer;
        Log* log;
        Letter* c;
        Letter* d;
        unsigned int selfId = 0;
        std::atomic<int> calls{0};
        timer_status removeSelf = timer_not_found, removeSelfAgain = timer_success,
                     removePending = timer_not_found;
        static unsigned int Run(void* p) {
            auto* self = static_cast<Changer*>(p);
            self->log->Add("x");
            if (self->calls++ != 0) return 0;
            self->removeSelf = self->timer->RemoveCallback(self->selfId);
            self->removeSelfAgain = self->timer->RemoveCallback(self->selfId);
            unsigned int dId = 0;
            (void)self->timer->AddCallback(&Letter::Run, self->c, nullptr);
            (void)self->timer->AddCallback(&Letter::Run, self->d, &dId);
            self->removePending = self->timer->RemoveCallback(dId);
            return 0;
        }
    } changer{&timer, &log, &c, &d};
    EXPECT_EQ(timer.AddCallback(&CountTick, &log, nullptr), timer_success);
    EXPECT_EQ(timer.AddCallback(&Changer::Run, &changer, &changer.selfId), timer_success);
    EXPECT_EQ(timer.AddCallback(&Letter::Run, &b, nullptr), timer_success);

    ASSERT_EQ(timer.Startup(10, 50, "Changes"), timer_success);
    ASSERT_TRUE(WaitFor([&] { return log.ticks >= 3; }));
    EXPECT_EQ(timer.Shutdown(), timer_success);

    EXPECT_EQ(changer.removeSelf, timer_success);
    EXPECT_EQ(changer.removeSelfAgain, timer_not_found) << "already marked for removal";
    EXPECT_EQ(changer.removePending, timer_success) << "a record added in the same tick";
    EXPECT_EQ(changer.calls.load(), 1);
    std::vector<std::string> seen = log.Take();
    // The first tick runs the remover and the records after it, not the added one; every
    // later tick runs the added one after the others.
    ASSERT_GE(seen.size(), 7u);
    const std::vector<std::string> first(seen.begin(), seen.begin() + 7);
    EXPECT_EQ(first, (std::vector<std::string>{"|", "x", "b", "|", "b", "c", "|"}));
    for (const std::string& s : seen)
        EXPECT_NE(s, "d");
}

namespace {
// A clock that only the callbacks move, recording the waits the timer computes.
struct StepClock : TimerClock {
    std::atomic<uint64_t> now{1000};
    std::mutex mutex;
    std::vector<uint32_t> waits;
    uint64_t NowMs() override { return now.load(); }
    void OnNextWait(uint32_t waitMs) override {
        std::lock_guard<std::mutex> lock(mutex);
        waits.push_back(waitMs);
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return waits.size();
    }
};
}  // namespace

TEST_F(TimerTest, TheWaitIsTheIntervalLessTheTimeTheCallbacksTook) {
    Timer timer;
    StepClock clock;
    struct Busy {
        Timer* timer;
        StepClock* clock;
        int tick = 0;
        timer_status restart = timer_start_failed;
        static unsigned int Run(void* p) {
            auto* self = static_cast<Busy*>(p);
            // Time the callbacks "take" on each tick, as the clock sees it.
            static constexpr uint64_t kTook[] = {15, 40, 100, 0, 30, 0};
            const int t = self->tick++;
            if (t < 6) self->clock->now += kTook[t];
            // On the fifth tick, a new interval from inside: read for the very next wait.
            if (t == 4) self->restart = self->timer->Startup(80, 50, "ignored");
            return 0;
        }
    } busy{&timer, &clock};
    EXPECT_EQ(timer.AddCallback(&Busy::Run, &busy, nullptr), timer_success);
    timer.SetClock(&clock);
    ASSERT_EQ(timer.Startup(40, 50, "Correct"), timer_success);
    ASSERT_TRUE(WaitFor([&] { return clock.Count() >= 6; }));
    EXPECT_EQ(timer.Shutdown(), timer_success);
    EXPECT_EQ(busy.restart, timer_success);
    const std::vector<uint32_t> first(clock.waits.begin(), clock.waits.begin() + 6);
    // A tick longer than the interval, or as long, is followed at once by the next.
    EXPECT_EQ(first, (std::vector<uint32_t>{25, 0, 0, 40, 50, 80}));
    EXPECT_FALSE(IsRegistered("CSTimerThread_ignored")) << "the thread kept its name";
}

TEST_F(TimerTest, ShutdownFromItsOwnCallbackStopsAfterTheTick) {
    Log log;
    struct Stopper {
        Timer* timer;
        Log* log;
        std::atomic<int> calls{0};
        timer_status stop = timer_start_failed, restart = timer_success;
        static unsigned int Run(void* p) {
            auto* self = static_cast<Stopper*>(p);
            ++self->calls;
            self->stop = self->timer->Shutdown();
            self->restart = self->timer->Startup(10, 50, nullptr);
            return 0;
        }
    };
    Letter after{&log, "after"};
    {
        Timer timer;
        Stopper stopper{&timer, &log};
        EXPECT_EQ(timer.AddCallback(&Stopper::Run, &stopper, nullptr), timer_success);
        EXPECT_EQ(timer.AddCallback(&Letter::Run, &after, nullptr), timer_success);
        ASSERT_EQ(timer.Startup(10, 50, "SelfStop"), timer_success);
        ASSERT_TRUE(WaitFor([&] { return stopper.calls >= 1; }));
        ASSERT_TRUE(WaitFor([&] { return !IsRegistered("CSTimerThread_SelfStop"); }));
        EXPECT_EQ(stopper.calls.load(), 1);
        EXPECT_EQ(stopper.stop, timer_success);
        EXPECT_EQ(stopper.restart, timer_start_failed) << "the thread was asked to stop";
        EXPECT_EQ(timer.Interval(), 0u);
        EXPECT_EQ(log.Take(), std::vector<std::string>{"after"}) << "the tick ran to its end";

        // Another thread restarts it: the ended thread is joined first.
        stopper.calls = 0;
        ASSERT_EQ(timer.Startup(10, 50, "SelfStop2"), timer_success);
        ASSERT_TRUE(WaitFor([&] { return stopper.calls >= 1; }));
        ASSERT_TRUE(WaitFor([&] { return !IsRegistered("CSTimerThread_SelfStop2"); }));
        EXPECT_EQ(stopper.calls.load(), 1);
    }  // destroyed from this thread after the thread stopped itself

    // An owner's Shutdown that meets a callback's own Shutdown: neither waits for the other.
    struct Racer {
        Timer* timer;
        std::atomic<bool> entered{false};
        static unsigned int Run(void* p) {
            auto* self = static_cast<Racer*>(p);
            self->entered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            (void)self->timer->Shutdown();
            return 0;
        }
    };
    for (int round = 0; round < 3; ++round) {
        Timer timer;
        Racer racer{&timer};
        EXPECT_EQ(timer.AddCallback(&Racer::Run, &racer, nullptr), timer_success);
        ASSERT_EQ(timer.Startup(5, 50, "Racer"), timer_success);
        ASSERT_TRUE(WaitFor([&] { return racer.entered.load(); }));
        EXPECT_EQ(timer.Shutdown(), timer_success);
        EXPECT_FALSE(timer.joinable());
    }
}

TEST_F(TimerTest, ConcurrentStartsStopsAndChangesSettle) {
    Timer timer;
    Log log;
    Letter churned{&log, "churn"};
    EXPECT_EQ(timer.AddCallback(&CountTick, &log, nullptr), timer_success);
    auto churn = [&](int seed) {
        for (int i = 0; i < 4; ++i) {
            unsigned int id = 0;
            (void)timer.AddCallback(&Letter::Run, &churned, &id);
            if ((i + seed) % 2 == 0)
                (void)timer.Startup(2, 50, "Churn");
            else
                (void)timer.Shutdown();
            EXPECT_EQ(timer.RemoveCallback(id), timer_success);
        }
    };
    std::thread other(churn, 1);
    churn(0);
    other.join();
    EXPECT_EQ(timer.Shutdown(), timer_success);
    (void)log.Take();
    ASSERT_EQ(timer.Startup(2, 50, "Churn"), timer_success);
    const int before = log.ticks;
    ASSERT_TRUE(WaitFor([&] { return log.ticks > before + 1; }));
    EXPECT_EQ(timer.Shutdown(), timer_success);
    for (const std::string& s : log.Take())
        EXPECT_EQ(s, "|") << "every churned callback was removed";
}

// ---- HiResTimer --------------------------------------------------------------------------

TEST_F(TimerTest, HiResTimerTicksKeepsItsPeriodAndRefusesBadOnes) {
    unsigned int lo = 0, hi = 0;
    ASSERT_EQ(HiResTimer::GetDeviceRange(&lo, &hi), hrt_success);
    EXPECT_GE(lo, 1u);
    EXPECT_GE(hi, lo);

    HiResTimer timer;
    Log log;
    Letter a{&log, "a"};
    unsigned int tickId = 0, aId = 0;
    NameProbe name;
    EXPECT_EQ(timer.AddCallback(&CountTick, &log, &tickId), hrt_success);
    EXPECT_EQ(timer.AddCallback(&Letter::Run, &a, &aId), hrt_success);
    EXPECT_EQ(timer.AddCallback(&NameProbe::Run, &name, nullptr), hrt_success);
    EXPECT_LT(tickId, aId);
    EXPECT_EQ(timer.RemoveCallback(0xFFFFFFF0u), hrt_success) << "unknown ids are no error";

    ASSERT_EQ(timer.Startup(lo + 1), hrt_success);
    EXPECT_EQ(timer.Period(), lo + 1);
    ASSERT_TRUE(WaitFor([&] { return log.ticks >= 3; }));
    EXPECT_EQ(timer.Startup(lo + 1), hrt_success) << "the running period";
    EXPECT_EQ(timer.Period(), lo + 1);
    EXPECT_EQ(timer.RemoveCallback(aId), hrt_success);
    const int removedAt = log.ticks;
    ASSERT_TRUE(WaitFor([&] { return log.ticks > removedAt; }));
    EXPECT_EQ(timer.Shutdown(), hrt_success);
    EXPECT_EQ(timer.Period(), 0u);
    // Linux runs the ticks on a configured thread of the timer's own; Windows on the
    // system's multimedia timer thread, which is nobody's.
    const std::string threadName = name.Get();
    EXPECT_TRUE(threadName == "HiResTimer" || threadName.empty()) << threadName;

    std::vector<std::string> seen = log.Take();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen[0], "|");
    EXPECT_EQ(seen[1], "a");
    EXPECT_EQ(seen.back(), "|") << "the last tick came after the removal";

    // Out of range: refused, and the timer stays stopped.
    ASSERT_EQ(timer.Startup(lo), hrt_success);
    const int before = log.ticks;
    ASSERT_TRUE(WaitFor([&] { return log.ticks > before; }));
    EXPECT_EQ(timer.Startup(0), hrt_bad_period);
    EXPECT_EQ(timer.Period(), 0u);
    if (hi < 0xFFFFFFFFu) {
        EXPECT_EQ(timer.Startup(hi + 1), hrt_bad_period);
    }
    const int stopped = log.ticks;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(log.ticks.load(), stopped);
}

TEST_F(TimerTest, HiResTimerShutdownFromItsOwnCallback) {
    struct Stopper {
        HiResTimer* timer;
        std::atomic<int> calls{0};
        std::atomic<bool> done{false};
        hrt_status stop = hrt_failed, samePeriod = hrt_failed, otherPeriod = hrt_success;
        static unsigned int Run(void* p) {
            auto* self = static_cast<Stopper*>(p);
            if (self->calls++ != 0) return 0;
            self->samePeriod = self->timer->Startup(2);
            self->otherPeriod = self->timer->Startup(3);
            self->stop = self->timer->Shutdown();
            self->done = true;
            return 0;
        }
    };
    HiResTimer timer;
    Stopper stopper{&timer};
    EXPECT_EQ(timer.AddCallback(&Stopper::Run, &stopper, nullptr), hrt_success);
    ASSERT_EQ(timer.Startup(2), hrt_success);
    ASSERT_TRUE(WaitFor([&] { return stopper.done.load(); }));
    EXPECT_EQ(timer.Period(), 0u);
    EXPECT_EQ(stopper.samePeriod, hrt_success);
    EXPECT_EQ(stopper.otherPeriod, hrt_failed);
    EXPECT_EQ(stopper.stop, hrt_success);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(stopper.calls.load(), 1) << "no tick after the callback stopped the timer";

    // Started again from here, the stopped timer is closed first and ticks anew; the
    // destructor then stops it from this thread.
    ASSERT_EQ(timer.Startup(2), hrt_success);
    ASSERT_TRUE(WaitFor([&] { return stopper.calls >= 3; }));
}
