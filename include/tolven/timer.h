// Periodic timers: Timer, a named library thread with a period corrected for the time its
// callbacks take, and HiResTimer, on the platform's millisecond timer device.
//
// Both call plain functions `unsigned int f(void* context)` in the order they were added;
// the return value is not read. A callback's exception is not caught.
#pragma once

#include <atomic>
#include <cstdint>

#include "tolven/autothread.h"
#include "tolven/detail/critical_section.h"

namespace TOLVEN {

namespace platform {
struct PeriodicTimer;
}  // namespace platform

enum [[nodiscard]] timer_status : uint32_t{
    timer_success = 0,       // done
    timer_start_failed = 1,  // the thread could not start
    timer_not_found = 3,     // no callback with that id
};

enum [[nodiscard]] hrt_status : uint32_t{
    hrt_success = 0,     // done
    hrt_failed = 1,      // device capabilities or the timer event could not be had
    hrt_bad_period = 2,  // the period lies outside the device's range
};

// A timer callback; the return value is not read.
using TimerFunction = unsigned int (*)(void*);

// The time a Timer measures its callbacks with. The default reads the process tick counter;
// tests give their own to check the period correction without sleeping.
class TimerClock {
  public:
    virtual ~TimerClock() = default;
    // Milliseconds on a monotonic clock.
    virtual uint64_t NowMs() = 0;
    // Told, on the timer's thread, how long the timer will wait for its next tick.
    virtual void OnNextWait(uint32_t waitMs) { (void)waitMs; }
};

// Runs its callbacks every `intervalMs` on a thread of its own, named "CSTimerThread" or
// "CSTimerThread_<name>", which the thread file configures like any library thread. The
// wait after a tick is the interval less the time the callbacks took, and none after a
// tick that took longer than the interval. Callbacks stay registered over Shutdown; a later
// Startup runs them again.
//
// Safe for concurrent use without external locking. AddCallback and RemoveCallback from
// another thread wait for a running tick to end, so after RemoveCallback returns the
// function does not run again. From inside a callback they take effect after the tick: an
// added function first runs on the next tick, and the records after a removed one still
// run on this one.
//
// From inside one of its own callbacks, Shutdown does not wait for the thread (that would
// be a join of the thread by itself): it asks the thread to stop once the tick is over and
// returns timer_success at once. The object then counts as stopped; the thread is joined by
// the next Startup, Shutdown or the destructor on another thread. Startup from inside a
// callback keeps the thread, its name and priority, and sets the interval from the next
// wait on; it returns timer_start_failed when the thread has been asked to stop. A Timer
// must not be destroyed from its own callback.
class Timer : private auto_thread {
  public:
    Timer();
    // Shuts down, then frees the callbacks.
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Starts (or restarts) the thread with `intervalMs` between ticks; `priority` is a
    // percentage from 0 to 100 (other values keep the default, 50); `name` may be null.
    timer_status Startup(unsigned int intervalMs, int priority, const char* name);
    // Stops the thread and waits for it; callbacks stay registered.
    timer_status Shutdown();
    // Adds `function(context)` to every tick; its id goes to `*id` when `id` is not null.
    timer_status AddCallback(TimerFunction function, void* context, unsigned int* id);
    // Removes a callback; timer_not_found for an unknown id.
    timer_status RemoveCallback(unsigned int id);

    // The interval in milliseconds, 0 while stopped.
    unsigned int Interval() const noexcept { return intervalMs_.load(std::memory_order_relaxed); }
    // Replaces the clock of the period correction; null restores the tick counter. Only
    // while stopped. The clock must outlive the timer's use of it.
    void SetClock(TimerClock* clock) noexcept { clock_ = clock; }

    using auto_thread::joinable;
    using auto_thread::native_id;

  private:
    struct Lists;

    void TimerProcThread();
    uint64_t NowMs();
    void ApplyListChanges();
    bool OnOwnThread() const noexcept;

    std::atomic<uint32_t> intervalMs_{0};
    bool inCallbacks_ = false;
    bool listsChanged_ = false;
    bool shuttingDown_ = false;
    bool startingUp_ = false;
    Lists* lists_;
    detail::CriticalSection startStop_;
    detail::CriticalSection callbackLock_;
    TimerClock* clock_ = nullptr;
};

// Runs its callbacks every `periodMs` from the platform's millisecond timer device: on
// Linux a periodic timerfd on CLOCK_MONOTONIC with a thread of its own per timer, named
// "HiResTimer" and configured from the thread file; on Windows the multimedia timer, whose
// callbacks run on the system's timer thread. The periods the device takes are given by
// GetDeviceRange (1 to 1000000 ms on Linux). Starting a timer raises the system timer
// resolution for the rest of the process where the platform has one.
//
// Safe for concurrent use without external locking. Shutdown from another thread returns
// once no callback runs. AddCallback and RemoveCallback are meant for outside the callbacks:
// there is no deferred list, and from a callback a change takes effect at once (a removal
// may then skip the record after the removed one on that tick).
//
// From inside one of its own callbacks, Shutdown stops further ticks and returns at once
// without waiting; the next Startup, Shutdown or the destructor on another thread waits for
// that callback to end. Startup from a callback with another period returns hrt_failed.
// A HiResTimer must not be destroyed from its own callback.
class HiResTimer {
  public:
    HiResTimer();
    // Shuts down, then frees the callbacks.
    ~HiResTimer();
    HiResTimer(const HiResTimer&) = delete;
    HiResTimer& operator=(const HiResTimer&) = delete;

    // Starts (or restarts) ticking every `periodMs`. The running period again returns at
    // once; a period outside the device's range gives hrt_bad_period and leaves the timer
    // stopped.
    hrt_status Startup(unsigned int periodMs);
    // Stops ticking. The raised timer resolution stays until the process ends.
    hrt_status Shutdown();
    // Adds `function(context)` to every tick; its id goes to `*id` when `id` is not null.
    hrt_status AddCallback(TimerFunction function, void* context, unsigned int* id);
    // Removes a callback; hrt_success whether or not the id was known.
    hrt_status RemoveCallback(unsigned int id);

    // The period in milliseconds, 0 while stopped.
    unsigned int Period() const noexcept { return periodMs_.load(std::memory_order_relaxed); }
    // The periods the timer device takes, in milliseconds; hrt_failed when it cannot say.
    static hrt_status GetDeviceRange(unsigned int* minMs, unsigned int* maxMs);

  private:
    struct Record;
    struct Records;

    // Given to the platform: forwards one tick to DoTimerProc.
    static void TimerCallback(void* self, platform::PeriodicTimer* ticking);
    static void OnTimerThreadStart(void* self);
    void DoTimerProc(platform::PeriodicTimer* ticking);
    void CloseTimer();

    std::atomic<uint32_t> periodMs_{0};
    Records* records_;
    detail::CriticalSection startStop_;
    detail::CriticalSection callbackLock_;
    std::atomic<platform::PeriodicTimer*> timer_{nullptr};  // null when none
};

}  // namespace TOLVEN
