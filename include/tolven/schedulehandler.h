// Weekly timetables: day-by-day lists of time ranges turned into the run times that
// maintenance commands take, and the parsing of run-day lists.
//
// Clock values are four-digit HHMM numbers; days are 0 for Sunday to 6 for Saturday.
#pragma once

#include <vector>

#include "tolven/configreader.h"

namespace TOLVEN {

// One range of one day.
struct _RUN_CONNECT_TIMES {
    unsigned int day = 0;          // 0 Sunday .. 6 Saturday
    unsigned int start = 0;        // HHMM
    unsigned int end = 0;          // HHMM
    bool startOfDayTaken = false;  // handed out as a start of day: no connect time from it
    bool endOfDayTaken = false;    // handed out as an end of day: no disconnect time from it
    bool spansMidnight = false;    // the first half of a range cut at midnight
    bool created = false;          // used in the list being built
};

// A run time of a maintenance command.
struct _COMMAND_RUN_TIMES {
    unsigned int runHour = 0;
    unsigned int runMinute = 0;
    unsigned int finishHour = 0;
    unsigned int finishMinute = 0;
    int runDays[7] = {};  // non-zero for each day, Sunday first, on which the time holds
};
static_assert(sizeof(_COMMAND_RUN_TIMES) == 44, "_COMMAND_RUN_TIMES is 44 bytes");

// A week of ranges and the run times made of them. Call the four Get operations in the order
// SOD, Connect, EOD, Disconnect: the first and third mark the ranges the second and fourth
// then leave out. A value type; not thread-safe.
class ScheduleHandler {
  public:
    ScheduleHandler() = default;
    ScheduleHandler(const ScheduleHandler&) = default;
    ScheduleHandler& operator=(const ScheduleHandler&) = default;
    virtual ~ScheduleHandler() = default;

    // Adds the ranges "HHMM-HHMM;HHMM-HHMM..." of `day`. A range past midnight is cut in two,
    // its second half on the next day. 1 on success (an empty text adds nothing); 0 for a
    // malformed text or a range that touches or overlaps one of the same day (logged), the
    // ranges before it staying in the list.
    int ParseDayScheduleTimes(const char* text, unsigned int day);

    // Start of day: the earliest range of each day, and first halves of ranges past
    // midnight. 1 when something was appended to `out`, else 0.
    int GetSODMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out);
    // Connect: each range not handed out as a start of day.
    int GetConnectMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out);
    // End of day: the latest end of each day (halves before midnight left out).
    int GetEODMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out);
    // Disconnect: each end not handed out as an end of day, halves before midnight left out.
    int GetDisconnectMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out);

    // The index of "M"/"Mon"/"Monday" .. "Su"/"Sun"/"Sunday" (any case), or -1.
    static int GetDayIndex(const char* name);
    // Parses "HHMM-HHMM[;HHMM-HHMM]" of one day into at most two run times (each within a
    // day, the second after the first). The number of good ranges: 0, 1 or 2.
    static int ParseDayScheduleTimes(const char* text, const char* dayName,
                                     _COMMAND_RUN_TIMES& first, _COMMAND_RUN_TIMES& second);
    // Reads `item` of `section` and parses it for `dayName`, appending the first range to
    // `first` and a second one to `second`. `expected` of 0 or more must match the count
    // (0 is a free day); a negative one asks for at least one. False (logged) otherwise.
    static bool ProcessTimes(const char* dayName, const char* section, const char* item,
                             ConfigReader* reader, std::vector<_COMMAND_RUN_TIMES>& first,
                             std::vector<_COMMAND_RUN_TIMES>& second, int expected);

    // The ranges, in order of insertion.
    const std::vector<_RUN_CONNECT_TIMES>& Times() const noexcept { return times_; }

  private:
    int AddScheduleTime(_RUN_CONNECT_TIMES& time);
    int IsvalidRunTime(_RUN_CONNECT_TIMES* time);
    void ClearCreatedScheduleFlag();
    template <class Opens, class Joins, class Take>
    int MakeRunTimes(std::vector<_COMMAND_RUN_TIMES>* out, bool endOnly, Opens opens, Joins joins,
                     Take take);

    std::vector<_RUN_CONNECT_TIMES> times_;
};

// Sets `days[i]` to 1 for each day named in `text` (tokens split at ",| ", any case: "M",
// "MO", "MON", "MONDAY", ..., "R"/"TH".. for Thursday, "U"/"SU".. for Sunday) and 0 for the
// others; unknown tokens are ignored, a null text clears all.
void ParseRunDays(int (&days)[7], const char* text);

}  // namespace TOLVEN
