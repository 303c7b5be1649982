#include "tolven/timer.h"

#include <string>
#include <vector>

#include "platform/thread.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {

struct Timer::Lists {
    struct Record {
        uint32_t id;
        void* context;
        TimerFunction function;
        bool removed;
    };
    std::vector<Record> callbacks;
    std::vector<Record> pending;  // added during a tick, joined after it
};

namespace {

std::atomic<uint32_t> g_nextTimerId{0};

// The Timer whose thread this is, so that a callback that stops or restarts its own timer
// is told apart from everybody else.
thread_local const Timer* t_ownTimer = nullptr;

constexpr uint32_t kStepMs = 200;

// Waits out a flag that another caller holds, leaving the section between looks.
void WaitOut(detail::CriticalSection& cs, const bool& flag) {
    while (flag) {
        cs.Leave();
        platform::SleepMs(kStepMs);
        detail::EnterHouse(cs);
    }
}

}  // namespace

Timer::Timer() : lists_(new Lists), callbackLock_(4000) {}

Timer::~Timer() {
    (void)Shutdown();
    delete lists_;
}

bool Timer::OnOwnThread() const noexcept {
    return t_ownTimer == this;
}

uint64_t Timer::NowMs() {
    return clock_ != nullptr ? clock_->NowMs() : OrrelTickCounter::Instance()->GetTicks64();
}

timer_status Timer::Startup(unsigned int intervalMs, int priority, const char* name) {
    if (OnOwnThread()) {
        // A callback cannot restart its own thread; it changes the interval of the next wait.
        if (GetShutdownEvent()->IsSignalled()) return timer_start_failed;
        intervalMs_.store(intervalMs, std::memory_order_relaxed);
        return timer_success;
    }
    detail::EnterHouse(startStop_);
    WaitOut(startStop_, startingUp_);
    startingUp_ = true;
    startStop_.Leave();

    (void)Shutdown();
    detail::EnterHouse(startStop_);
    WaitOut(startStop_, shuttingDown_);

    intervalMs_.store(intervalMs, std::memory_order_relaxed);
    std::string threadName = "CSTimerThread";
    if (name != nullptr) threadName.append("_").append(name);
    const bool started = launch_priority(threadName.c_str(), static_cast<unsigned int>(priority),
                                         &Timer::TimerProcThread, this);
    if (!started) (void)Shutdown();

    startingUp_ = false;
    startStop_.Leave();
    return started ? timer_success : timer_start_failed;
}

timer_status Timer::Shutdown() {
    if (OnOwnThread()) {
        // Joining would wait for this very call: ask the thread to stop after the tick.
        intervalMs_.store(0, std::memory_order_relaxed);
        (void)GetShutdownEvent()->Set();
        return timer_success;
    }
    detail::EnterHouse(startStop_);
    WaitOut(startStop_, shuttingDown_);
    shuttingDown_ = true;
    if (joinable()) {
        startStop_.Leave();
        (void)join_shutdown();
        detail::EnterHouse(startStop_);
    }
    intervalMs_.store(0, std::memory_order_relaxed);
    {
        HouseLockGuard guard(callbackLock_);
        inCallbacks_ = false;
        if (listsChanged_) ApplyListChanges();
    }
    shuttingDown_ = false;
    startStop_.Leave();
    return timer_success;
}

timer_status Timer::AddCallback(TimerFunction function, void* context, unsigned int* id) {
    const uint32_t newId = g_nextTimerId.fetch_add(1, std::memory_order_relaxed) + 1;
    if (id != nullptr) *id = newId;
    HouseLockGuard guard(callbackLock_);
    // The section is held through a tick, so only a callback of this timer sees inCallbacks_.
    if (inCallbacks_) {
        lists_->pending.push_back({newId, context, function, false});
        listsChanged_ = true;
    } else {
        lists_->callbacks.push_back({newId, context, function, false});
    }
    return timer_success;
}

timer_status Timer::RemoveCallback(unsigned int id) {
    HouseLockGuard guard(callbackLock_);
    std::vector<Lists::Record>& callbacks = lists_->callbacks;
    for (auto it = callbacks.begin(); it != callbacks.end(); ++it) {
        if (it->id != id || it->removed) continue;
        if (inCallbacks_) {
            it->removed = true;
            listsChanged_ = true;
        } else {
            callbacks.erase(it);
        }
        return timer_success;
    }
    std::vector<Lists::Record>& pending = lists_->pending;
    for (auto it = pending.begin(); it != pending.end(); ++it) {
        if (it->id == id) {
            pending.erase(it);
            return timer_success;
        }
    }
    return timer_not_found;
}

void Timer::ApplyListChanges() {
    listsChanged_ = false;
    std::erase_if(lists_->callbacks, [](const Lists::Record& r) { return r.removed; });
    lists_->callbacks.insert(lists_->callbacks.end(), lists_->pending.begin(),
                             lists_->pending.end());
    lists_->pending.clear();
}

void Timer::TimerProcThread() {
    t_ownTimer = this;
    EventDetectorType* detector = GetCachedDetectorType();
    bool stop = false;
    (void)detector->Add(GetShutdownEvent(), [&stop] { stop = true; });
    uint32_t wait = intervalMs_.load(std::memory_order_relaxed);
    while (!stop) {
        detector->waiting.store(1, std::memory_order_release);
        const event_status st = detector->Wait(wait);
        detector->waiting.store(0, std::memory_order_release);
        if (st != event_timeout) continue;

        const uint64_t start = NowMs();
        {
            HouseLockGuard guard(callbackLock_);
            inCallbacks_ = true;
            // Callbacks only mark removals and queue additions while inCallbacks_ is set, so
            // the list does not change under this walk.
            for (const Lists::Record& r : lists_->callbacks)
                if (!r.removed && r.function != nullptr) (void)r.function(r.context);
            inCallbacks_ = false;
            if (listsChanged_) ApplyListChanges();
        }
        const uint64_t took = NowMs() - start;
        const uint32_t interval = intervalMs_.load(std::memory_order_relaxed);
        if (interval == kInfinite)
            wait = kInfinite;
        else
            wait = took >= interval ? 0 : interval - static_cast<uint32_t>(took);
        if (clock_ != nullptr) clock_->OnNextWait(wait);
    }
    detector->Clear();
    ReturnToCache(detector);
    t_ownTimer = nullptr;
}

}  // namespace TOLVEN
