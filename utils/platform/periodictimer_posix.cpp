#include "platform/periodictimer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace TOLVEN::platform {

struct PeriodicTimer {
    int timerFd = -1;
    PeriodicCallback callback = nullptr;
    void* context = nullptr;
    void (*onThreadStart)(void*) = nullptr;
    std::atomic<bool> cancelled{false};
    std::thread thread;
};

namespace {

constexpr uint32_t kMaxPeriodMs = 1000000;

void CloseFd(PeriodicTimer* t) noexcept {
    if (t->timerFd >= 0) ::close(t->timerFd);
}

itimerspec Every(uint32_t periodMs) noexcept {
    itimerspec spec{};
    spec.it_interval.tv_sec = periodMs / 1000;
    spec.it_interval.tv_nsec = static_cast<long>(periodMs % 1000) * 1000000L;
    spec.it_value = spec.it_interval;
    return spec;
}

// One blocking read per tick, as a bare timerfd loop does; a cancel wakes it by making the
// timer expire at once.
void Run(PeriodicTimer* t) {
    if (t->onThreadStart != nullptr) t->onThreadStart(t->context);
    while (!t->cancelled.load(std::memory_order_acquire)) {
        // The count of expirations is dropped: ticks missed while a callback ran late are
        // not made up in a burst.
        uint64_t expirations = 0;
        const ssize_t got = ::read(t->timerFd, &expirations, sizeof(expirations));
        if (got != static_cast<ssize_t>(sizeof(expirations))) {
            if (got < 0 && errno == EINTR) continue;
            return;
        }
        if (t->cancelled.load(std::memory_order_acquire)) return;
        t->callback(t->context, t);
    }
}

}  // namespace

bool PeriodicTimerRange(uint32_t* minMs, uint32_t* maxMs) noexcept {
    if (minMs != nullptr) *minMs = 1;
    if (maxMs != nullptr) *maxMs = kMaxPeriodMs;
    return true;
}

void RaiseTimerResolution(uint32_t) noexcept {}

PeriodicTimer* StartPeriodicTimer(uint32_t periodMs, PeriodicCallback callback, void* context,
                                  void (*onThreadStart)(void*)) noexcept {
    if (periodMs == 0 || callback == nullptr) return nullptr;
    auto* t = new (std::nothrow) PeriodicTimer;
    if (t == nullptr) return nullptr;
    t->callback = callback;
    t->context = context;
    t->onThreadStart = onThreadStart;
    t->timerFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec spec = Every(periodMs);
    if (t->timerFd < 0 || ::timerfd_settime(t->timerFd, 0, &spec, nullptr) != 0) {
        CloseFd(t);
        delete t;
        return nullptr;
    }
    try {
        t->thread = std::thread(Run, t);
    } catch (...) {
        CloseFd(t);
        delete t;
        return nullptr;
    }
    return t;
}

void CancelPeriodicTimer(PeriodicTimer* timer) noexcept {
    if (timer == nullptr) return;
    if (timer->cancelled.exchange(true, std::memory_order_acq_rel)) return;
    itimerspec now{};
    now.it_value.tv_nsec = 1;
    (void)::timerfd_settime(timer->timerFd, 0, &now, nullptr);
}

void ClosePeriodicTimer(PeriodicTimer* timer) noexcept {
    if (timer == nullptr) return;
    CancelPeriodicTimer(timer);
    if (timer->thread.joinable()) {
        // Closed from its own callback against the rules, or the join failed: the thread
        // is left to run out, and the timer is not freed under it.
        if (timer->thread.get_id() == std::this_thread::get_id()) {
            timer->thread.detach();
            return;
        }
        try {
            timer->thread.join();
        } catch (...) {
            timer->thread.detach();
            return;
        }
    }
    CloseFd(timer);
    delete timer;
}

}  // namespace TOLVEN::platform
