// Timetable text into the schedule parsers: the first byte picks the day, the rest is the
// text. No two well-formed ranges of one day may meet; the run times made of them must carry
// at least one day.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tolven/schedulehandler.h"

using namespace TOLVEN;

namespace {
void Check(bool ok) {
    if (!ok) __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const unsigned int day = data[0] % 7;
    const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);

    ScheduleHandler week;
    (void)week.ParseDayScheduleTimes(text.c_str(), day);
    (void)week.ParseDayScheduleTimes(text.c_str(), (day + 3) % 7);
    const auto& times = week.Times();
    // The member form takes numbers as they come: only a first half cut at midnight may
    // start after its end (a start beyond 2359). Two well-formed ranges of a day never meet.
    for (size_t i = 0; i < times.size(); ++i) {
        Check(times[i].day < 7);
        Check(times[i].spansMidnight || times[i].start <= times[i].end);
        if (times[i].start > times[i].end) continue;
        for (size_t j = i + 1; j < times.size(); ++j)
            if (times[i].day == times[j].day && times[j].start <= times[j].end)
                Check(times[i].end < times[j].start || times[j].end < times[i].start);
    }
    std::vector<_COMMAND_RUN_TIMES> out;
    (void)week.GetSODMaintCommandTimes(&out);
    (void)week.GetConnectMaintCommandTimes(&out);
    (void)week.GetEODMaintCommandTimes(&out);
    (void)week.GetDisconnectMaintCommandTimes(&out);
    for (const _COMMAND_RUN_TIMES& run : out) {
        int days = 0;
        for (int d : run.runDays)
            days += d;
        Check(days >= 1 && days <= 7);
    }

    _COMMAND_RUN_TIMES first, second;
    static const char* const kDays[] = {"Su", "M", "tu", "W", "TH", "f", "sat", "bogus"};
    const int count =
        ScheduleHandler::ParseDayScheduleTimes(text.c_str(), kDays[data[0] % 8], first, second);
    Check(count >= 0 && count <= 2);
    if (count >= 1)
        Check(first.runHour <= 23 && first.finishHour <= 23 && first.runMinute <= 59 &&
              first.finishMinute <= 59);

    int runDays[7];
    ParseRunDays(runDays, text.c_str());
    for (int d : runDays)
        Check(d == 0 || d == 1);
    (void)ScheduleHandler::GetDayIndex(text.c_str());
    return 0;
}
