// The local time as the logging subsystem reads it: the date and time of day are kept per
// thread for the current second, so most reads cost a clock read and nothing else.
#pragma once

#include <chrono>
#include <cstdint>

#include "tolven/blobtime.h"

namespace TOLVEN::detail {

// The local time now, as GetCurrentBlobTime gives it (nanoseconds to the millisecond).
inline void LocalBlobTimeNow(_blob_timestamp* out) {
    struct Cache {
        int64_t second = -1;
        _blob_timestamp time{};
    };
#if defined(__GNUC__)
    __attribute__((tls_model("initial-exec")))
#endif
    thread_local Cache cache;
    using namespace std::chrono;
    const int64_t ns = duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    const int64_t second = ns / 1000000000;
    if (second == cache.second) {
        *out = cache.time;
        out->nanoseconds = static_cast<uint32_t>(ns % 1000000000 / 1000000 * 1000000);
        return;
    }
    (void)GetCurrentBlobTime(out);
    // Keep the fields only when both clock readings fall in the same second.
    const int64_t after =
        duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
    if (after / 1000000000 == second) {
        cache.second = second;
        cache.time = *out;
    }
}

}  // namespace TOLVEN::detail
