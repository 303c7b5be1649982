#include "platform/periodictimer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace TOLVEN::platform {

struct PeriodicTimer {
    int timerFd = -1;
    int wakeFd = -1;  // written by CancelPeriodicTimer to end the thread's wait
    PeriodicCallback callback = nullptr;
    void* context = nullptr;
    void (*onThreadStart)(void*) = nullptr;
    std::atomic<bool> cancelled{false};
    std::thread thread;
};

namespace {

constexpr uint32_t kMaxPeriodMs = 1000000;

void CloseFds(PeriodicTimer* t) noexcept {
    if (t->timerFd >= 0) ::close(t->timerFd);
    if (t->wakeFd >= 0) ::close(t->wakeFd);
}

void Run(PeriodicTimer* t) {
    if (t->onThreadStart != nullptr) t->onThreadStart(t->context);
    pollfd fds[2] = {{t->timerFd, POLLIN, 0}, {t->wakeFd, POLLIN, 0}};
    while (!t->cancelled.load(std::memory_order_acquire)) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        // The count of expirations is dropped: ticks missed while a callback ran late are
        // not made up in a burst.
        uint64_t expirations = 0;
        if (::read(t->timerFd, &expirations, sizeof(expirations)) != sizeof(expirations)) continue;
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
    t->wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    itimerspec spec{};
    spec.it_interval.tv_sec = periodMs / 1000;
    spec.it_interval.tv_nsec = static_cast<long>(periodMs % 1000) * 1000000L;
    spec.it_value = spec.it_interval;
    if (t->timerFd < 0 || t->wakeFd < 0 || ::timerfd_settime(t->timerFd, 0, &spec, nullptr) != 0) {
        CloseFds(t);
        delete t;
        return nullptr;
    }
    try {
        t->thread = std::thread(Run, t);
    } catch (...) {
        CloseFds(t);
        delete t;
        return nullptr;
    }
    return t;
}

void CancelPeriodicTimer(PeriodicTimer* timer) noexcept {
    if (timer == nullptr) return;
    if (timer->cancelled.exchange(true, std::memory_order_acq_rel)) return;
    const uint64_t one = 1;
    (void)!::write(timer->wakeFd, &one, sizeof(one));
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
    CloseFds(timer);
    delete timer;
}

}  // namespace TOLVEN::platform
