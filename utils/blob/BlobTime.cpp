#include <cstdio>
#include <limits>

#include "blob/civil_time.h"
#include "platform/clock.h"
#include "platform/timezone.h"
#include "tolven/blobtime.h"

namespace TOLVEN {

namespace {

using detail::CivilTime;

constexpr uint32_t kNsPerMs = 1000000;

// The civil fields of a timestamp, its nanoseconds cut to milliseconds.
CivilTime ToCivil(const _blob_timestamp& t) noexcept {
    return CivilTime{t.year, t.month, t.day, t.hour, t.minute, t.second, t.nanoseconds / kNsPerMs};
}

// Writes the date and time of day of `c` into `t`, leaving its nanoseconds.
void StoreCivil(const CivilTime& c, _blob_timestamp* t) noexcept {
    t->year = static_cast<uint16_t>(c.year);
    t->month = static_cast<uint16_t>(c.month);
    t->day = static_cast<uint16_t>(c.day);
    t->hour = static_cast<uint16_t>(c.hour);
    t->minute = static_cast<uint16_t>(c.minute);
    t->second = static_cast<uint16_t>(c.second);
}

// Converts `time` in place through `convert`, a local/UTC conversion of counts.
blob_status ConvertZone(_blob_timestamp* time, bool (*convert)(uint64_t, uint64_t*)) noexcept {
    if (time == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    CivilTime civil = ToCivil(*time);
    civil.millisecond = 0;
    uint64_t from = 0;
    uint64_t to = 0;
    if (!detail::CivilToTicks(civil, &from) || !convert(from, &to))
        return BLOB_STATUS_CANNOT_CONVERT;
    StoreCivil(detail::TicksToCivil(to), time);
    return BLOB_STATUS_SUCCESS;
}

int Sign(int64_t difference) noexcept {
    return difference > 0 ? 1 : (difference < 0 ? -1 : 0);
}

// Seconds since 1970 of the date and time of day, with civil roll-over of odd fields.
int64_t LenientSeconds(const _blob_timestamp& t) noexcept {
    return detail::DaysFromCivil(t.year, t.month, t.day) * 86400 + int64_t{t.hour} * 3600 +
           int64_t{t.minute} * 60 + int64_t{t.second};
}

}  // namespace

blob_status GetCurrentBlobTime(_blob_timestamp* out) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    platform::LocalTime now;
    platform::GetLocalTimeNow(&now);
    out->year = now.year;
    out->month = now.month;
    out->day = now.day;
    out->hour = now.hour;
    out->minute = now.minute;
    out->second = now.second;
    out->nanoseconds = now.nanosecond / kNsPerMs * kNsPerMs;
    return BLOB_STATUS_SUCCESS;
}

blob_status GetGmtBlobTime(_blob_timestamp* out) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    const CivilTime now = detail::TicksToCivil(platform::SystemTime100ns());
    StoreCivil(now, out);
    out->nanoseconds = static_cast<uint32_t>(now.millisecond) * kNsPerMs;
    return BLOB_STATUS_SUCCESS;
}

blob_status CurrentToGmtBlobTime(_blob_timestamp* time) {
    return ConvertZone(time, &platform::LocalToUtc100ns);
}

blob_status GmtToCurrentBlobTime(_blob_timestamp* time) {
    return ConvertZone(time, &platform::UtcToLocal100ns);
}

blob_status BlobTimeToSystemTime(_SYSTEMTIME* out, const _blob_timestamp& time) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    out->wYear = time.year;
    out->wMonth = time.month;
    out->wDay = time.day;
    out->wHour = time.hour;
    out->wMinute = time.minute;
    out->wSecond = time.second;
    out->wMilliseconds = static_cast<uint16_t>(time.nanoseconds / kNsPerMs);
    return BLOB_STATUS_SUCCESS;
}

blob_status SystemTimeToBlobTime(_blob_timestamp* out, const _SYSTEMTIME& time) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    out->year = time.wYear;
    out->month = time.wMonth;
    out->day = time.wDay;
    out->hour = time.wHour;
    out->minute = time.wMinute;
    out->second = time.wSecond;
    out->nanoseconds = uint32_t{time.wMilliseconds} * kNsPerMs;
    return BLOB_STATUS_SUCCESS;
}

blob_status BlobTimeToCpTimeval(cp_timeval* out, const _blob_timestamp& time) {
    if (out == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    uint64_t ticks = 0;
    if (!detail::CivilToTicks(ToCivil(time), &ticks) || ticks < detail::kTicksTo1970)
        return BLOB_STATUS_CANNOT_CONVERT;
    const uint64_t micros = (ticks - detail::kTicksTo1970) / 10;
    const uint64_t seconds = micros / 1000000;
    if (seconds > std::numeric_limits<uint32_t>::max()) return BLOB_STATUS_CANNOT_CONVERT;
    out->seconds = static_cast<uint32_t>(seconds);
    out->microseconds = static_cast<uint32_t>(micros % 1000000);
    return BLOB_STATUS_SUCCESS;
}

int CompareBlobTime(const _blob_timestamp& a, const _blob_timestamp& b) noexcept {
    return CompareBlobTimeByField(a, b, BLOBTIME_COMPARE_ALL);
}

int CompareBlobTimeByField(const _blob_timestamp& a, const _blob_timestamp& b,
                           blobtime_compare fields) noexcept {
    const int64_t differences[] = {
        int64_t{a.year} - b.year,
        int64_t{a.month} - b.month,
        int64_t{a.day} - b.day,
        int64_t{a.hour} - b.hour,
        int64_t{a.minute} - b.minute,
        int64_t{a.second} - b.second,
        int64_t{a.nanoseconds} - b.nanoseconds,
    };
    for (uint32_t i = 0; i < 7; ++i) {
        if ((fields & (1u << i)) != 0 && differences[i] != 0) return Sign(differences[i]);
    }
    return 0;
}

int IsBlobTimeInRange(const _blob_timestamp& value, const _blob_timestamp& start,
                      const _blob_timestamp& end, blobtime_compare fields) noexcept {
    const int order = CompareBlobTimeByField(start, end, fields);
    const bool fromStart = CompareBlobTimeByField(value, start, fields) >= 0;
    const int toEnd = CompareBlobTimeByField(value, end, fields);
    if (order == 0) return 1;
    if (order < 0) return fromStart && toEnd <= 0 ? 1 : 0;
    return fromStart || toEnd < 0 ? 1 : 0;  // wraps: the end is left out
}

int64_t GetBlobTimeDifference(const _blob_timestamp& a, const _blob_timestamp& b,
                              blobtime_rettype unit) noexcept {
    if (unit == 0) return 0;
    __extension__ using Wide = __int128;
    const Wide nanoseconds = Wide{LenientSeconds(a) - LenientSeconds(b)} * 1000000000 +
                             (int64_t{a.nanoseconds} - int64_t{b.nanoseconds});
    const Wide result = nanoseconds / Wide{static_cast<int64_t>(unit)};
    if (result > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
    if (result < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(result);
}

blob_status GetBlobTimeAsStr(char* buffer, uint64_t size, const _blob_timestamp& time, bool full) {
    if (buffer == nullptr) return BLOB_STATUS_INVALID_PARAMETER;
    const bool hasDate = time.month != 0 && time.day != 0 && time.year != 0;
    const bool hasTime = time.hour != 0 || time.minute != 0 || time.second != 0;
    // The longest text, with five digits in every field, is 35 characters.
    char text[64];
    int length;
    if (hasDate && !hasTime && !full) {
        length = std::snprintf(text, sizeof text, "%-2.2i/%-2.2i/%-4.4i", time.month, time.day,
                               time.year);
    } else if (!hasDate && hasTime && !full) {
        length = std::snprintf(text, sizeof text, "%-2.2i:%-2.2i:%-2.2i", time.hour, time.minute,
                               time.second);
    } else {
        length =
            std::snprintf(text, sizeof text, "%-2.2i/%-2.2i/%-4.4i %-2.2i:%-2.2i:%-2.2i",
                          time.month, time.day, time.year, time.hour, time.minute, time.second);
    }
    if (size == 0) return BLOB_STATUS_BUFFER_TOO_SMALL;
    const uint64_t needed = static_cast<uint64_t>(length);
    const uint64_t copied = needed < size ? needed : size - 1;
    for (uint64_t i = 0; i < copied; ++i)
        buffer[i] = text[i];
    buffer[copied] = '\0';
    return needed < size ? BLOB_STATUS_SUCCESS : BLOB_STATUS_BUFFER_TOO_SMALL;
}

}  // namespace TOLVEN
