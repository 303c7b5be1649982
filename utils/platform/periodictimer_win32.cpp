#include "platform/periodictimer.h"

#include <atomic>
#include <new>

#include "platform/win32_api.h"

#include <mmsystem.h>

namespace TOLVEN::platform {

struct PeriodicTimer {
    UINT id = 0;
    PeriodicCallback callback = nullptr;
    void* context = nullptr;
    std::atomic<bool> cancelled{false};
    std::atomic<uint32_t> running{0};  // callbacks under way
};

namespace {

void CALLBACK Trampoline(UINT, UINT, DWORD_PTR user, DWORD_PTR, DWORD_PTR) {
    auto* t = reinterpret_cast<PeriodicTimer*>(user);
    t->running.fetch_add(1, std::memory_order_acq_rel);
    if (!t->cancelled.load(std::memory_order_acquire)) t->callback(t->context, t);
    t->running.fetch_sub(1, std::memory_order_acq_rel);
}

}  // namespace

bool PeriodicTimerRange(uint32_t* minMs, uint32_t* maxMs) noexcept {
    TIMECAPS caps{};
    if (::timeGetDevCaps(&caps, sizeof(caps)) != MMSYSERR_NOERROR) return false;
    if (minMs != nullptr) *minMs = caps.wPeriodMin;
    if (maxMs != nullptr) *maxMs = caps.wPeriodMax;
    return true;
}

void RaiseTimerResolution(uint32_t periodMs) noexcept {
    (void)::timeBeginPeriod(periodMs);
}

PeriodicTimer* StartPeriodicTimer(uint32_t periodMs, PeriodicCallback callback, void* context,
                                  void (*)(void*)) noexcept {
    if (periodMs == 0 || callback == nullptr) return nullptr;
    auto* t = new (std::nothrow) PeriodicTimer;
    if (t == nullptr) return nullptr;
    t->callback = callback;
    t->context = context;
    // Killed synchronously: once timeKillEvent returns, no callback of it starts.
    t->id = ::timeSetEvent(periodMs, 0, Trampoline, reinterpret_cast<DWORD_PTR>(t),
                           TIME_PERIODIC | TIME_CALLBACK_FUNCTION | TIME_KILL_SYNCHRONOUS);
    if (t->id == 0) {
        delete t;
        return nullptr;
    }
    return t;
}

void CancelPeriodicTimer(PeriodicTimer* timer) noexcept {
    if (timer != nullptr) timer->cancelled.store(true, std::memory_order_release);
}

void ClosePeriodicTimer(PeriodicTimer* timer) noexcept {
    if (timer == nullptr) return;
    CancelPeriodicTimer(timer);
    (void)::timeKillEvent(timer->id);
    while (timer->running.load(std::memory_order_acquire) != 0)
        ::Sleep(1);
    delete timer;
}

}  // namespace TOLVEN::platform
