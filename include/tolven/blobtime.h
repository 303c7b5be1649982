// The library's wall-clock records.
#pragma once

#include <cstdint>

namespace TOLVEN {

// A broken-down civil time: 16 bytes, also the on-wire value of a time stamp field.
// Date fields all 0 mean a time of day alone. Plain value; not thread-safe.
struct _blob_timestamp {
    uint16_t year;
    uint16_t month;
    uint16_t day;
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
    uint32_t nanoseconds;
};
static_assert(sizeof(_blob_timestamp) == 16, "_blob_timestamp is 16 bytes on the wire");

// Seconds since 1970-01-01 UTC and microseconds below 1000000. Plain value; not thread-safe.
struct cp_timeval {
    uint32_t seconds;
    uint32_t microseconds;
};

// Fills `out` with the local time, nanoseconds being milliseconds x 1000000; gives 0.
int GetCurrentBlobTime(_blob_timestamp* out);

}  // namespace TOLVEN
