// A periodic callback at a period in milliseconds, on a thread that is not the caller's.
//
// On Linux each timer is a periodic timerfd on CLOCK_MONOTONIC with one thread of its own;
// on Windows it is a multimedia timer, whose callbacks run on the system's timer thread.
// One callback of a timer runs at a time; a tick that comes while the callback still runs
// is not queued up behind it.
#pragma once

#include <cstdint>

namespace TOLVEN::platform {

// An opaque running timer.
struct PeriodicTimer;

// The periods, in milliseconds, the timer device supports (timeGetDevCaps; 1 to 1000000 on
// Linux). False when the device cannot say.
bool PeriodicTimerRange(uint32_t* minMs, uint32_t* maxMs) noexcept;

// Raises the system timer resolution to `periodMs` for the rest of the process
// (timeBeginPeriod). Nothing to do where timers are exact anyway.
void RaiseTimerResolution(uint32_t periodMs) noexcept;

// What a timer calls on each tick, with its context and the timer itself, which may be
// cancelled from there even before StartPeriodicTimer has returned it.
using PeriodicCallback = void (*)(void* context, PeriodicTimer* timer);

// Calls `callback(context, timer)` every `periodMs` milliseconds from now on.
// `onThreadStart`, if not null, is called once with `context` on the timer's thread before
// its first tick, where the timer has a thread of its own. Null when the timer cannot be had.
PeriodicTimer* StartPeriodicTimer(uint32_t periodMs, PeriodicCallback callback, void* context,
                                  void (*onThreadStart)(void*)) noexcept;

// Stops ticks: no callback starts after it returns. It neither waits nor frees, so the
// callback itself may call it. Safe to call more than once.
void CancelPeriodicTimer(PeriodicTimer* timer) noexcept;

// Cancels the timer, waits for a callback that is still running, and frees the timer.
// Must not be called from the timer's own callback.
void ClosePeriodicTimer(PeriodicTimer* timer) noexcept;

}  // namespace TOLVEN::platform
