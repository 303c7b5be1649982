// Shared by the benchmark programs.
#pragma once

#include "tolven/autothread.h"
#include "tolven/event.h"

namespace TOLVEN::bench {

// Starts a thread that waits for the shutdown event. Services are multi-threaded: with a
// second thread alive the C library leaves its single-threaded shortcuts (an uncontended
// std::mutex then pays its atomics), so the peers cost what they cost in production.
inline void ParkAThread(auto_thread& parked) {
    (void)parked.launch("parked", [] {
        EventDetectorType* d = GetCachedDetectorType();
        (void)d->Add(GetShutdownEvent());
        (void)d->Wait(kInfinite);
        d->Clear();
        ReturnToCache(d);
    });
}

}  // namespace TOLVEN::bench
