// Weekly timetables into run times, and run-day lists.
#include "tolven/schedulehandler.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "tolven/logapi.h"
#include "tolven/osutils.h"
#include "service/ServiceText.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "ScheduleHandler";
constexpr size_t kTextSize = 1024;      // room of a copied schedule text
constexpr size_t kRunDaysSize = 255;    // room of a copied run-day list
constexpr size_t kConfigTextSize = 64;  // room of a schedule read from configuration

bool InList(const char* word, std::initializer_list<const char*> names) {
    for (const char* name : names)
        if (detail::EqualNoCase(word, name)) return true;
    return false;
}

// Removes blanks at both ends, in place.
char* Trim(char* text) {
    while (*text == ' ' || *text == '\t')
        ++text;
    size_t length = std::strlen(text);
    while (length > 0 && (text[length - 1] == ' ' || text[length - 1] == '\t'))
        text[--length] = '\0';
    return text;
}

// Copies at most `room` - 1 characters of `text` into `out`.
void CopyText(char* out, size_t room, const char* text) {
    size_t length = std::strlen(text);
    if (length >= room) length = room - 1;
    std::memcpy(out, text, length);
    out[length] = '\0';
}

// Cuts the next "start-end" pair; false when either token is missing. `*found` tells
// whether a start token was there at all.
bool NextRange(char* text, char** state, int* start, int* end, bool* found) {
    const char* first = OS::strtok_reentrant(text, "-", state);
    *found = first != nullptr;
    if (first == nullptr) return false;
    char* second = OS::strtok_reentrant(nullptr, ";", state);
    if (second == nullptr) return false;
    *start = std::atoi(first);
    *end = std::atoi(Trim(second));
    return true;
}

void SetRunTime(_COMMAND_RUN_TIMES& out, int start, int end) {
    out.runHour = static_cast<unsigned int>(start / 100);
    out.runMinute = static_cast<unsigned int>(start % 100);
    out.finishHour = static_cast<unsigned int>(end / 100);
    out.finishMinute = static_cast<unsigned int>(end % 100);
}

// Both ends within a day and the start strictly before the end.
bool ValidWithinDay(int start, int end) {
    auto good = [](int value) { return value >= 0 && value / 100 <= 23 && value % 100 <= 59; };
    return good(start) && good(end) && start < end;
}

_COMMAND_RUN_TIMES RunTimeOf(const _RUN_CONNECT_TIMES& time, bool endOnly) {
    _COMMAND_RUN_TIMES out;
    const unsigned int run = endOnly ? time.end : time.start;
    out.runHour = run / 100;
    out.runMinute = run % 100;
    out.finishHour = time.end / 100;
    out.finishMinute = time.end % 100;
    out.runDays[time.day % 7] = 1;
    return out;
}

}  // namespace

int ScheduleHandler::ParseDayScheduleTimes(const char* text, unsigned int day) {
    if (text == nullptr) return 1;
    char copy[kTextSize];
    CopyText(copy, sizeof(copy), text);
    char* state = nullptr;
    char* cursor = copy;
    for (;;) {
        int start = 0, end = 0;
        bool found = false;
        if (!NextRange(cursor, &state, &start, &end, &found)) return found ? 0 : 1;
        cursor = nullptr;
        _RUN_CONNECT_TIMES time;
        time.day = day;
        time.start = static_cast<unsigned int>(start);
        time.end = static_cast<unsigned int>(end);
        if (AddScheduleTime(time) == 0) return 0;
    }
}

int ScheduleHandler::AddScheduleTime(_RUN_CONNECT_TIMES& time) {
    if (time.start <= time.end) {
        if (IsvalidRunTime(&time) == 0) return 0;
        times_.push_back(time);
        return 1;
    }
    _RUN_CONNECT_TIMES first;
    first.day = time.day;
    first.start = time.start;
    first.end = 2359;
    first.spansMidnight = true;
    _RUN_CONNECT_TIMES second;
    second.day = time.day >= 6 ? 0 : time.day + 1;
    second.start = 0;
    second.end = time.end;
    if (IsvalidRunTime(&first) == 0) return 0;
    times_.push_back(first);
    if (IsvalidRunTime(&second) == 0) return 0;
    times_.push_back(second);
    return 1;
}

int ScheduleHandler::IsvalidRunTime(_RUN_CONNECT_TIMES* time) {
    for (const _RUN_CONNECT_TIMES& stored : times_) {
        if (stored.day != time->day) continue;
        const bool endInside = time->end >= stored.start && time->end <= stored.end;
        const bool storedEndInside = stored.end >= time->start && stored.end <= time->end;
        const bool encloses = time->start <= stored.start && time->end >= stored.end;
        if (endInside || storedEndInside || encloses) {
            TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::ScheduleHandler::IsvalidRunTime",
                       "Time (%d-%d) on day (%d) conflicts with an existing time!",
                       static_cast<int>(time->start), static_cast<int>(time->end),
                       static_cast<int>(time->day));
            return 0;
        }
    }
    return 1;
}

void ScheduleHandler::ClearCreatedScheduleFlag() {
    for (_RUN_CONNECT_TIMES& time : times_)
        time.created = false;
}

// The frame the four lists share: each range not yet used either opens a run time (when
// `opens` says so) or is passed over; the later unused ranges that `joins` accepts add their
// days to it. `take` marks the ranges of a run time. 1 when something was appended.
template <class Opens, class Joins, class Take>
int ScheduleHandler::MakeRunTimes(std::vector<_COMMAND_RUN_TIMES>* out, bool endOnly, Opens opens,
                                  Joins joins, Take take) {
    if (out == nullptr) return 0;
    ClearCreatedScheduleFlag();
    int made = 0;
    for (size_t i = 0; i < times_.size(); ++i) {
        _RUN_CONNECT_TIMES& open = times_[i];
        if (open.created) continue;
        open.created = true;
        if (!opens(i)) continue;
        take(open);
        _COMMAND_RUN_TIMES run = RunTimeOf(open, endOnly);
        for (size_t j = i + 1; j < times_.size(); ++j) {
            _RUN_CONNECT_TIMES& other = times_[j];
            if (other.created || !joins(open, other)) continue;
            other.created = true;
            take(other);
            run.runDays[other.day % 7] = 1;
        }
        out->push_back(run);
        made = 1;
    }
    return made;
}

int ScheduleHandler::GetSODMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out) {
    // The earliest range of its day, or a first half cut at midnight.
    auto opens = [this](size_t i) {
        const _RUN_CONNECT_TIMES& open = times_[i];
        if (open.spansMidnight) return true;
        for (size_t j = 0; j < times_.size(); ++j)
            if (j != i && times_[j].day == open.day && times_[j].start < open.start) return false;
        return true;
    };
    auto joins = [](const _RUN_CONNECT_TIMES& a, const _RUN_CONNECT_TIMES& b) {
        return a.start == b.start && a.end == b.end;
    };
    return MakeRunTimes(out, false, opens, joins,
                        [](_RUN_CONNECT_TIMES& t) { t.startOfDayTaken = true; });
}

int ScheduleHandler::GetConnectMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out) {
    auto opens = [this](size_t i) { return !times_[i].startOfDayTaken; };
    auto joins = [](const _RUN_CONNECT_TIMES& a, const _RUN_CONNECT_TIMES& b) {
        return !b.startOfDayTaken && a.start == b.start && a.end == b.end;
    };
    return MakeRunTimes(out, false, opens, joins, [](_RUN_CONNECT_TIMES&) {});
}

int ScheduleHandler::GetEODMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out) {
    // The latest end of its day; halves before midnight neither open nor count.
    auto opens = [this](size_t i) {
        const _RUN_CONNECT_TIMES& open = times_[i];
        if (open.spansMidnight) return false;
        for (size_t j = 0; j < times_.size(); ++j)
            if (j != i && times_[j].day == open.day && !times_[j].spansMidnight &&
                times_[j].end > open.end)
                return false;
        return true;
    };
    auto joins = [](const _RUN_CONNECT_TIMES& a, const _RUN_CONNECT_TIMES& b) {
        return !b.spansMidnight && a.end == b.end;
    };
    return MakeRunTimes(out, true, opens, joins,
                        [](_RUN_CONNECT_TIMES& t) { t.endOfDayTaken = true; });
}

int ScheduleHandler::GetDisconnectMaintCommandTimes(std::vector<_COMMAND_RUN_TIMES>* out) {
    auto opens = [this](size_t i) { return !times_[i].endOfDayTaken && !times_[i].spansMidnight; };
    auto joins = [](const _RUN_CONNECT_TIMES& a, const _RUN_CONNECT_TIMES& b) {
        return !b.endOfDayTaken && !b.spansMidnight && a.end == b.end;
    };
    return MakeRunTimes(out, true, opens, joins, [](_RUN_CONNECT_TIMES&) {});
}

int ScheduleHandler::GetDayIndex(const char* name) {
    if (name == nullptr) return -1;
    if (InList(name, {"M", "Mon", "Monday"})) return 1;
    if (InList(name, {"T", "Tu", "Tuesday"})) return 2;
    if (InList(name, {"W", "Wed", "Wednesday"})) return 3;
    if (InList(name, {"Th", "Thur", "Thursday"})) return 4;
    if (InList(name, {"F", "Fri", "Friday"})) return 5;
    if (InList(name, {"S", "Sat", "Saturday"})) return 6;
    if (InList(name, {"Su", "Sun", "Sunday"})) return 0;
    return -1;
}

int ScheduleHandler::ParseDayScheduleTimes(const char* text, const char* dayName,
                                           _COMMAND_RUN_TIMES& first, _COMMAND_RUN_TIMES& second) {
    if (text == nullptr || dayName == nullptr) return 0;
    first = _COMMAND_RUN_TIMES{};
    second = _COMMAND_RUN_TIMES{};
    char copy[kTextSize];
    CopyText(copy, sizeof(copy), text);
    char* state = nullptr;
    int start = 0, end = 0;
    bool found = false;
    if (!NextRange(copy, &state, &start, &end, &found)) return 0;
    SetRunTime(first, start, end);
    const int day = GetDayIndex(dayName);
    if (day < 0) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::ScheduleHandler::ParseDayScheduleTimes",
                   "Invalid day '%s'.", dayName);
        return 0;
    }
    first.runDays[day] = 1;
    if (!ValidWithinDay(start, end)) return 0;
    const int firstEnd = end;
    if (!NextRange(nullptr, &state, &start, &end, &found)) return found ? 0 : 1;
    SetRunTime(second, start, end);
    second.runDays[day] = 1;
    return ValidWithinDay(start, end) && start > firstEnd ? 2 : 0;
}

bool ScheduleHandler::ProcessTimes(const char* dayName, const char* section, const char* item,
                                   ConfigReader* reader, std::vector<_COMMAND_RUN_TIMES>& first,
                                   std::vector<_COMMAND_RUN_TIMES>& second, int expected) {
    constexpr const char* kFunction = "TOLVEN::ScheduleHandler::ProcessTimes";
    char text[kConfigTextSize] = {};
    size_t size = sizeof(text);
    if (reader == nullptr ||
        reader->ReadString(section, item, text, &size) != configreader_success) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction, "Missing config item '%s' from section '%s'.",
                   item != nullptr ? item : "", section != nullptr ? section : "");
        return false;
    }
    text[sizeof(text) - 1] = '\0';
    _COMMAND_RUN_TIMES one, two;
    const int count = ParseDayScheduleTimes(text, dayName, one, two);
    if (expected >= 0 && count != expected) {
        TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction,
                   "Expected %u number of times from '%s' but received %u. Section: '%s' "
                   "Item: '%s'",
                   static_cast<unsigned int>(expected), text, static_cast<unsigned int>(count),
                   section != nullptr ? section : "", item != nullptr ? item : "");
        return false;
    }
    switch (count) {
        case 1:
            first.push_back(one);
            return true;
        case 2:
            first.push_back(one);
            second.push_back(two);
            return true;
        case 0:
            if (expected == 0) return true;
            TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction,
                       "Expected at least 1 of the times to be valid from '%s' but received %u. "
                       "Section: '%s' Item: '%s'",
                       text, static_cast<unsigned int>(count), section != nullptr ? section : "",
                       item != nullptr ? item : "");
            return false;
        default:
            TOLVEN_LOG(LOGGER_ERROR, kFile, kFunction,
                       "Expected %d number of times from '%s' to be value but received %u. "
                       "Section: '%s' Item: '%s'",
                       expected, text, static_cast<unsigned int>(count),
                       section != nullptr ? section : "", item != nullptr ? item : "");
            return false;
    }
}

void ParseRunDays(int (&days)[7], const char* text) {
    for (int& day : days)
        day = 0;
    if (text == nullptr) return;
    char copy[kRunDaysSize];
    CopyText(copy, sizeof(copy), text);
    char* state = nullptr;
    for (char* token = OS::strtok_reentrant(copy, ",| ", &state); token != nullptr;
         token = OS::strtok_reentrant(nullptr, ",| ", &state)) {
        if (InList(token, {"M", "MO", "MON", "MONDAY"}))
            days[1] = 1;
        else if (InList(token, {"T", "TU", "TUE", "TUES", "TUESDAY"}))
            days[2] = 1;
        else if (InList(token, {"W", "WE", "WED", "WEDNESDAY"}))
            days[3] = 1;
        else if (InList(token, {"R", "TH", "THU", "THUR", "THURS", "THURSDAY"}))
            days[4] = 1;
        else if (InList(token, {"F", "FR", "FRI", "FRIDAY"}))
            days[5] = 1;
        else if (InList(token, {"S", "SA", "SAT", "SATURDAY"}))
            days[6] = 1;
        else if (InList(token, {"U", "SU", "SUN", "SUND", "SUNDAY"}))
            days[0] = 1;
    }
}

}  // namespace TOLVEN
