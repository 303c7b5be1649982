#include <algorithm>
#include <vector>

#include "platform/periodictimer.h"
#include "tolven/timer.h"

namespace TOLVEN {

struct HiResTimer::Record {
    uint32_t id;
    void* context;
    TimerFunction function;
};

struct HiResTimer::Records {
    std::vector<Record> list;
};

namespace {

std::atomic<uint32_t> g_nextHiResId{0};

// The HiResTimer whose callbacks this thread is running, if any, and the platform's timer
// that called them.
thread_local const HiResTimer* t_inCallbacksOf = nullptr;
thread_local platform::PeriodicTimer* t_ticking = nullptr;

}  // namespace

HiResTimer::HiResTimer() : records_(new Records), callbackLock_(4000) {}

HiResTimer::~HiResTimer() {
    (void)Shutdown();
    delete records_;
}

hrt_status HiResTimer::GetDeviceRange(unsigned int* minMs, unsigned int* maxMs) {
    uint32_t lo = 0, hi = 0;
    if (!platform::PeriodicTimerRange(&lo, &hi)) return hrt_failed;
    if (minMs != nullptr) *minMs = lo;
    if (maxMs != nullptr) *maxMs = hi;
    return hrt_success;
}

hrt_status HiResTimer::Startup(unsigned int periodMs) {
    if (t_inCallbacksOf == this)
        return periodMs != 0 && periodMs == Period() ? hrt_success : hrt_failed;
    HouseLockGuard guard(startStop_);
    if (periodMs != 0 && periodMs == Period()) return hrt_success;
    (void)Shutdown();
    uint32_t lo = 0, hi = 0;
    if (!platform::PeriodicTimerRange(&lo, &hi)) return hrt_failed;
    if (std::clamp<uint32_t>(periodMs, lo, hi) != periodMs) return hrt_bad_period;

    platform::RaiseTimerResolution(periodMs);
    periodMs_.store(periodMs, std::memory_order_relaxed);
    platform::PeriodicTimer* t =
        platform::StartPeriodicTimer(periodMs, &TimerCallback, this, &OnTimerThreadStart);
    if (t == nullptr) {
        periodMs_.store(0, std::memory_order_relaxed);
        return hrt_failed;
    }
    timer_.store(t, std::memory_order_release);
    return hrt_success;
}

hrt_status HiResTimer::Shutdown() {
    if (t_inCallbacksOf == this) {
        // Waiting for the running callback would wait for this very call: stop the ticks
        // only, and leave the timer to be closed from another thread.
        periodMs_.store(0, std::memory_order_relaxed);
        platform::CancelPeriodicTimer(t_ticking);
        return hrt_success;
    }
    HouseLockGuard guard(startStop_);
    CloseTimer();
    periodMs_.store(0, std::memory_order_relaxed);
    return hrt_success;
}

void HiResTimer::CloseTimer() {
    platform::ClosePeriodicTimer(timer_.exchange(nullptr, std::memory_order_acq_rel));
}

hrt_status HiResTimer::AddCallback(TimerFunction function, void* context, unsigned int* id) {
    const uint32_t newId = g_nextHiResId.fetch_add(1, std::memory_order_relaxed) + 1;
    if (id != nullptr) *id = newId;
    HouseLockGuard guard(callbackLock_);
    records_->list.push_back({newId, context, function});
    return hrt_success;
}

hrt_status HiResTimer::RemoveCallback(unsigned int id) {
    HouseLockGuard guard(callbackLock_);
    auto& list = records_->list;
    auto it = std::find_if(list.begin(), list.end(), [id](const Record& r) { return r.id == id; });
    if (it != list.end()) list.erase(it);
    return hrt_success;
}

void HiResTimer::TimerCallback(void* self, platform::PeriodicTimer* ticking) {
    static_cast<HiResTimer*>(self)->DoTimerProc(ticking);
}

void HiResTimer::OnTimerThreadStart(void*) {
    ConfigureCurrentThread("HiResTimer", nullptr, nullptr);
}

void HiResTimer::DoTimerProc(platform::PeriodicTimer* ticking) {
    HouseLockGuard guard(callbackLock_);
    const HiResTimer* outer = t_inCallbacksOf;
    platform::PeriodicTimer* outerTicking = t_ticking;
    t_inCallbacksOf = this;
    t_ticking = ticking;
    // By index and by copy: a callback that adds or removes records against the rules
    // changes the list under the walk, which must then stay within it.
    auto& list = records_->list;
    for (size_t i = 0; i < list.size(); ++i) {
        const Record r = list[i];
        if (r.function != nullptr) (void)r.function(r.context);
    }
    t_inCallbacksOf = outer;
    t_ticking = outerTicking;
}

}  // namespace TOLVEN
