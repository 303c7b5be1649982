#include "platform/clock.h"
#include "tolven/blobtime.h"

namespace TOLVEN {

int GetCurrentBlobTime(_blob_timestamp* out) {
    if (out == nullptr) return 2;
    platform::LocalTime now;
    platform::GetLocalTimeNow(&now);
    out->year = now.year;
    out->month = now.month;
    out->day = now.day;
    out->hour = now.hour;
    out->minute = now.minute;
    out->second = now.second;
    out->nanoseconds = now.nanosecond / 1000000u * 1000000u;
    return 0;
}

}  // namespace TOLVEN
