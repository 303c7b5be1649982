// The library's wall-clock records: conversions, comparison, printing and the text parser.
#pragma once

#include <cstdint>

#include "tolven/blobstatus.h"
#include "tolven/utilerror.h"

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

// A civil time field by field, with the layout of the Windows SYSTEMTIME record (eight
// 16-bit words), so a caller holding one may pass it by a pointer cast. Plain value;
// not thread-safe.
struct _SYSTEMTIME {
    uint16_t wYear;
    uint16_t wMonth;
    uint16_t wDayOfWeek;
    uint16_t wDay;
    uint16_t wHour;
    uint16_t wMinute;
    uint16_t wSecond;
    uint16_t wMilliseconds;
};
static_assert(sizeof(_SYSTEMTIME) == 16, "_SYSTEMTIME mirrors the Windows record");

// Flag bits choosing the fields a comparison looks at.
enum blobtime_compare : uint32_t {
    BLOBTIME_COMPARE_YEAR = 1,
    BLOBTIME_COMPARE_MONTH = 2,
    BLOBTIME_COMPARE_DAY = 4,
    BLOBTIME_COMPARE_HOUR = 8,
    BLOBTIME_COMPARE_MINUTE = 16,
    BLOBTIME_COMPARE_SECOND = 32,
    BLOBTIME_COMPARE_NANOSECONDS = 64,
    // Year, month and day.
    BLOBTIME_COMPARE_DATE = 7,
    // Hour, minute and second.
    BLOBTIME_COMPARE_TIME = 56,
    // Hour, minute, second and nanoseconds.
    BLOBTIME_COMPARE_TIME_NANOSECONDS = 120,
    // Every field.
    BLOBTIME_COMPARE_ALL = 127,
};

// Combines comparison flags.
constexpr blobtime_compare operator|(blobtime_compare a, blobtime_compare b) noexcept {
    return static_cast<blobtime_compare>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

// The unit of GetBlobTimeDifference: each value is the divisor applied to nanoseconds.
enum blobtime_rettype : int64_t {
    BLOBTIME_RET_NANOSECONDS = 1,
    BLOBTIME_RET_MICROSECONDS = 1000,
    BLOBTIME_RET_MILLISECONDS = 1000000,
    BLOBTIME_RET_SECONDS = 1000000000,
};

// Fills `out` with the local time, nanoseconds being milliseconds x 1000000.
// Status 2 for a null target. Thread-safe.
blob_status GetCurrentBlobTime(_blob_timestamp* out);

// Fills `out` with the UTC time, nanoseconds being milliseconds x 1000000.
// Status 2 for a null target. Thread-safe.
blob_status GetGmtBlobTime(_blob_timestamp* out);

// Turns a local time into UTC in place, through the zone rules of the platform;
// `nanoseconds` is kept. Status 12 when the fields do not form a valid civil time
// (years 1601 to 30827), the target unchanged. Thread-safe.
blob_status CurrentToGmtBlobTime(_blob_timestamp* time);

// Turns a UTC time into local time in place; `nanoseconds` is kept. Status 12 when
// the fields do not form a valid civil time, the target unchanged. Thread-safe.
blob_status GmtToCurrentBlobTime(_blob_timestamp* time);

// Copies field by field; milliseconds = nanoseconds / 1000000. The day of the week is
// not written. Status 2 for a null target.
blob_status BlobTimeToSystemTime(_SYSTEMTIME* out, const _blob_timestamp& time);

// Copies field by field; nanoseconds = milliseconds x 1000000. Status 2 for a null target.
blob_status SystemTimeToBlobTime(_blob_timestamp* out, const _SYSTEMTIME& time);

// Seconds and microseconds since 1970 of a UTC time, to the millisecond (the microseconds
// are a multiple of 1000). Status 12 when the fields do not form a valid civil time or
// the instant lies outside 1970 to 2106, the target unchanged.
blob_status BlobTimeToCpTimeval(cp_timeval* out, const _blob_timestamp& time);

// 1, 0 or -1 as `a` is after, equal to or before `b`, year first and nanoseconds last.
int CompareBlobTime(const _blob_timestamp& a, const _blob_timestamp& b) noexcept;

// The same, looking only at the fields chosen by `fields`; no bit set gives 0.
int CompareBlobTimeByField(const _blob_timestamp& a, const _blob_timestamp& b,
                           blobtime_compare fields) noexcept;

// 1 if `value` lies in [start, end] under the chosen fields. When `start` is after `end`
// the range wraps (a night across midnight): 1 if `value` is not before `start` or is
// before `end` (the end does not count then). `start` equal to `end` gives 1 always.
int IsBlobTimeInRange(const _blob_timestamp& value, const _blob_timestamp& start,
                      const _blob_timestamp& end, blobtime_compare fields) noexcept;

// `a` minus `b` in nanoseconds, divided (truncating) by `unit`. A unit of 0 gives 0.
// Out-of-range fields roll over as in civil arithmetic (month 0 is December of the year
// before, day 0 the last day of the month before), so two times of day alone with a
// zero date subtract as times of day. Results beyond 64 bits saturate.
int64_t GetBlobTimeDifference(const _blob_timestamp& a, const _blob_timestamp& b,
                              blobtime_rettype unit) noexcept;

// Prints "MM/DD/YYYY HH:MM:SS"; "MM/DD/YYYY" for a date at midnight and "HH:MM:SS" for a
// time with a zero date field, unless `full` asks for the long form. Nanoseconds are never
// printed. Status 2 for a null buffer, 1 when the text does not fit (it is cut and
// terminated, if `size` is not 0).
blob_status GetBlobTimeAsStr(char* buffer, uint64_t size, const _blob_timestamp& time, bool full);

// Parses an operator or message time into `time`, which is zeroed first. Accepted forms:
// year first ("2024-01-31 13:05:09.25"), month first with numbers or month names
// ("01/31/2024 1:05:09 pm", "Jan-31-2024"), FIX ("20240131-13:05:09.250") and a time of
// day alone ("13:05:09"); "am", "a.m.", "pm" or "p.m." anywhere selects the 12-hour clock.
// Gives 1 if good, 0 if bad with a message in `error` (when given and still empty); the
// fields read before an error stay set. A bad fraction in the year-first form still gives
// 1, with nanoseconds 0 and a message. Thread-safe.
int ConvertStringToTime(const char* text, _blob_timestamp* time, UtilError* error);

// Parses "HH[:MM[:SS[.fraction]]]" with the 12-hour marks into the hour, minute and second
// of `time`, and with `fraction` true also its nanoseconds (1 to 9 digits). Gives 1 if
// good, 0 if bad with a message in `error`. Thread-safe.
int ConvertStringToHMS(const char* text, _blob_timestamp* time, UtilError* error, bool fraction);

// Turns milliseconds since a zone's midnight into a UNIX time, for a zone given by its
// offset from UTC. The midnight is fixed when `Init` runs: an object used across midnight
// keeps the old date until `Init` is called again. Written by Init, then safe for
// concurrent reads; not thread-safe while Init runs.
class TimeZoneStandard {
  public:
    // An object that is not initialised.
    TimeZoneStandard() noexcept;
    // Calls Init(hours, adjustDst).
    TimeZoneStandard(int32_t hours, bool adjustDst) noexcept;

    // Sets up the zone `hours` behind UTC (UTC-5 gives 5). With `adjustDst`, while the
    // platform's zone is in daylight time one hour is taken off. Always true.
    bool Init(int32_t hours, bool adjustDst) noexcept;
    // Init for a given UTC instant (100-nanosecond units since 1601) and daylight state.
    bool InitAt(int32_t hours, bool adjustDst, bool daylightNow, uint64_t utcNow) noexcept;

    // True when Init took an hour off for daylight time.
    bool IsDstAdjusted() const noexcept { return dstAdjusted; }
    // True once Init has run.
    bool IsInitialised() const noexcept { return initialised; }

    // The UNIX time of `milliseconds` after the zone's midnight.
    void SetTime(uint32_t milliseconds, cp_timeval& out) const noexcept;

  private:
    // A 100-nanosecond count since 1601-01-01 UTC as two halves, low first.
    struct CountHalves {
        uint32_t low;
        uint32_t high;
    };

    bool initialised;
    CountHalves midnight;
    int32_t offsetMilliseconds;
    bool dstAdjusted;
};

}  // namespace TOLVEN
