// Test seam of the latency tracker: the clock its records take their time from.
#pragma once

#include "tolven/blobtime.h"

namespace TOLVEN::detail {

// Replaces the tracker's local clock by `clock`, or restores it for null; gives the
// previous replacement.
using LatencyClock = void (*)(_blob_timestamp*);
LatencyClock SetLatencyClockForTest(LatencyClock clock);

}  // namespace TOLVEN::detail
