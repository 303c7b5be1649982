// The parser that turns operator and message text into a _blob_timestamp.
#include <cmath>
#include <cstring>
#include <limits>

#include "tolven/blobtime.h"

namespace TOLVEN {

namespace {

const char kBadFormat[] = "Invalid date format.";
const char kBadYear[] = "Invalid date format.  The year is incorrect.";
const char kBadMonth[] = "Invalid date format.  The month is incorrect.";
const char kBadDay[] = "Invalid date format.  The day is incorrect.";
const char kBadHour[] = "Invalid date format.  The hour is incorrect.";
const char kBadMinute[] = "Invalid date format.  The minute is incorrect.";
const char kBadSecond[] = "Invalid date format.  The second is incorrect.";
const char kBadNanoseconds[] = "Invalid date format.  The nanoseconds are incorrect.";
const char kFixTooShort[] = "Invalid FIX timestamp format.  The string is too short.";
const char kFixTooLong[] = "Invalid FIX timestamp format.  The string is too long.";

// Token delimiters of the date parts and of the year's end.
const char kDateDelimiters[] = " \t-/\\";
const char kBlanks[] = " \t";

// Room of the work area, terminator included.
constexpr size_t kWorkAreaSize = 255;
// A text with more separators than this is refused outright.
constexpr uint32_t kMaxSeparators = 8;
// The largest year a timestamp can hold.
constexpr int32_t kMaxYear = std::numeric_limits<uint16_t>::max();

// Stores `message` as the call's error (if the caller gave an error object that is still
// empty) and gives the failing result.
int Fail(UtilError* error, const char* message) {
    if (error != nullptr) error->SetError(message);
    return 0;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

char FoldCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// atoi in the "C" locale: leading white space, one optional sign, then digits up to the
// first other character. Values beyond 32 bits saturate.
int32_t ParseInt(const char* text) {
    const char* p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        ++p;
    const bool negative = *p == '-';
    if (*p == '+' || *p == '-') ++p;
    int64_t value = 0;
    for (; IsDigit(*p); ++p) {
        value = value * 10 + (*p - '0');
        if (value > int64_t{std::numeric_limits<int32_t>::max()} + 1) {
            value = int64_t{std::numeric_limits<int32_t>::max()} + 1;
        }
    }
    if (negative) return static_cast<int32_t>(-value);
    return value > std::numeric_limits<int32_t>::max() ? std::numeric_limits<int32_t>::max()
                                                       : static_cast<int32_t>(value);
}

// True if `needle` occurs in `text`, letters compared without case.
bool ContainsNoCase(const char* text, const char* needle) {
    const size_t length = std::strlen(needle);
    for (const char* p = text; *p != '\0'; ++p) {
        size_t i = 0;
        while (i < length && FoldCase(p[i]) == needle[i])
            ++i;
        if (i == length) return true;
    }
    return false;
}

// A private copy of the text, cut to 254 characters, with its 12-hour marks.
struct WorkArea {
    char text[kWorkAreaSize];
    size_t length;
    bool twelveHour;  // "am", "a.m.", "pm" or "p.m." was found
    bool afternoon;   // "pm" or "p.m." was found; it overrides a morning mark

    explicit WorkArea(const char* source) {
        length = 0;
        while (length < kWorkAreaSize - 1 && source[length] != '\0') {
            text[length] = source[length];
            ++length;
        }
        text[length] = '\0';
        const bool morning = ContainsNoCase(text, "am") || ContainsNoCase(text, "a.m.");
        afternoon = ContainsNoCase(text, "pm") || ContainsNoCase(text, "p.m.");
        twelveHour = morning || afternoon;
    }
};

// Cuts tokens out of a writable text the way strtok does (leading delimiters skipped, the
// delimiter behind a token overwritten), with its own position instead of shared state.
class Tokenizer {
  public:
    explicit Tokenizer(char* text) : next_(text) {}

    // The next token ending at one of `delimiters`, or null when the text is used up.
    char* Next(const char* delimiters) {
        if (next_ == nullptr) return nullptr;
        char* p = next_;
        while (*p != '\0' && std::strchr(delimiters, *p) != nullptr)
            ++p;
        if (*p == '\0') {
            next_ = nullptr;
            return nullptr;
        }
        char* token = p;
        while (*p != '\0' && std::strchr(delimiters, *p) == nullptr)
            ++p;
        if (*p != '\0') *p++ = '\0';
        next_ = p;
        return token;
    }

  private:
    char* next_;
};

// Applies the 12-hour marks to `hour`. With `strict`, an hour of 0 or above 12 next to a
// mark is refused. Gives true when the result is a valid hour of the day.
bool AdjustHour(int32_t* hour, const WorkArea& work, bool strict) {
    if (work.twelveHour) {
        if (strict && (*hour == 0 || *hour > 12)) return false;
        if (work.afternoon) {
            if (*hour < 12) *hour += 12;
        } else if (*hour == 12) {
            *hour = 0;
        }
    }
    return *hour >= 0 && *hour <= 23;
}

// The month of a token: a number, or an English month name in full or in three letters;
// 0 for anything else.
int32_t MonthValue(const char* token) {
    const char* p = token;
    if (*p == '+' || *p == '-') ++p;
    bool digits = false;
    for (; IsDigit(*p); ++p)
        digits = true;
    while (IsBlank(*p))
        ++p;
    if (digits && *p == '\0') return ParseInt(token);

    static constexpr const char* kNames[12][2] = {
        {"january", "jan"},   {"february", "feb"}, {"march", "mar"},    {"april", "apr"},
        {"may", "may"},       {"june", "jun"},     {"july", "jul"},     {"august", "aug"},
        {"september", "sep"}, {"october", "oct"},  {"november", "nov"}, {"december", "dec"},
    };
    for (int32_t month = 0; month < 12; ++month) {
        for (const char* name : kNames[month]) {
            size_t i = 0;
            while (name[i] != '\0' && FoldCase(token[i]) == name[i])
                ++i;
            if (name[i] == '\0' && token[i] == '\0') return month + 1;
        }
    }
    return 0;
}

// What ParseClock gives when it read a whole hour, minute and second.
constexpr int kClockRead = 2;

// Hour, minute and second behind a date: 0 for an error, 1 when there is no hour (a date
// alone is good), kClockRead when all three were read; an hour needs a minute and a minute
// needs a second. The second ends at one of `secondDelimiters`.
int ParseClock(Tokenizer& tokens, const WorkArea& work, const char* secondDelimiters,
               _blob_timestamp* time, UtilError* error) {
    const char* token = tokens.Next(":");
    if (token == nullptr) return 1;
    int32_t hour = ParseInt(token);
    if (!AdjustHour(&hour, work, true)) return Fail(error, kBadHour);
    time->hour = static_cast<uint16_t>(hour);

    token = tokens.Next(":");
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t minute = ParseInt(token);
    if (minute < 0 || minute > 59) return Fail(error, kBadMinute);
    time->minute = static_cast<uint16_t>(minute);

    token = tokens.Next(secondDelimiters);
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t second = ParseInt(token);
    if (second < 0 || second > 59) return Fail(error, kBadSecond);
    time->second = static_cast<uint16_t>(second);
    return kClockRead;
}

// Checks and stores the year.
bool StoreYear(int32_t year, _blob_timestamp* time) {
    if (year < 100 || year > kMaxYear) return false;
    time->year = static_cast<uint16_t>(year);
    return true;
}

// "20240131-13:05:09[.250]": fixed positions, the punctuation not looked at.
int ParseFix(const WorkArea& work, _blob_timestamp* time, UtilError* error) {
    if (work.length < 17) return Fail(error, kFixTooShort);
    if (work.length > 26) return Fail(error, kFixTooLong);
    const auto piece = [&work](size_t position, size_t count) {
        char digits[5];
        std::memcpy(digits, work.text + position, count);
        digits[count] = '\0';
        return ParseInt(digits);
    };
    const int32_t year = piece(0, 4);
    const int32_t month = piece(4, 2);
    const int32_t day = piece(6, 2);
    int32_t hour = piece(9, 2);
    const int32_t minute = piece(12, 2);
    const int32_t second = piece(15, 2);
    // Three digits of fraction at most; lengths 19, 20 and 22 carry none.
    const int32_t milliseconds = work.length >= 21 && work.length != 22 ? piece(18, 3) : 0;
    const bool hourValid = AdjustHour(&hour, work, false);

    if (!StoreYear(year, time)) return Fail(error, kBadYear);
    if (month < 0 || month > 12) return Fail(error, kBadMonth);
    time->month = static_cast<uint16_t>(month);
    if (day < 0 || day > 31) return Fail(error, kBadDay);
    time->day = static_cast<uint16_t>(day);
    if (!hourValid) return Fail(error, kBadHour);
    time->hour = static_cast<uint16_t>(hour);
    if (minute < 0 || minute > 59) return Fail(error, kBadMinute);
    time->minute = static_cast<uint16_t>(minute);
    if (second < 0 || second > 59) return Fail(error, kBadSecond);
    time->second = static_cast<uint16_t>(second);
    if (milliseconds > 0) time->nanoseconds = static_cast<uint32_t>(milliseconds) * 1000000u;
    return 1;
}

// "01/31/2024 13:05:09", "Jan-31-2024 1:05:09 pm" or a date alone.
int ParseMonthFirst(WorkArea& work, _blob_timestamp* time, UtilError* error) {
    Tokenizer tokens(work.text);
    const char* token = tokens.Next(kDateDelimiters);
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t month = MonthValue(token);
    if (month < 1 || month > 12) return Fail(error, kBadMonth);
    time->month = static_cast<uint16_t>(month);

    token = tokens.Next(kDateDelimiters);
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t day = ParseInt(token);
    if (day < 0 || day > 31) return Fail(error, kBadDay);
    time->day = static_cast<uint16_t>(day);

    token = tokens.Next(kBlanks);
    if (token == nullptr) return Fail(error, kBadFormat);
    if (!StoreYear(ParseInt(token), time)) return Fail(error, kBadYear);

    return ParseClock(tokens, work, ":", time, error) != 0 ? 1 : 0;
}

// "2024-01-31 13:05:09.25" or a date alone. A bad fraction leaves the nanoseconds at 0
// with a message, and the text still counts as good.
int ParseYearFirst(WorkArea& work, _blob_timestamp* time, UtilError* error) {
    Tokenizer tokens(work.text);
    const char* token = tokens.Next(kDateDelimiters);
    if (token == nullptr) return Fail(error, kBadFormat);
    if (!StoreYear(ParseInt(token), time)) return Fail(error, kBadYear);

    token = tokens.Next(kDateDelimiters);
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t month = ParseInt(token);
    if (month < 0 || month > 12) return Fail(error, kBadMonth);
    time->month = static_cast<uint16_t>(month);

    token = tokens.Next(kBlanks);
    if (token == nullptr) return Fail(error, kBadFormat);
    const int32_t day = ParseInt(token);
    if (day < 0 || day > 31) return Fail(error, kBadDay);
    time->day = static_cast<uint16_t>(day);

    const int clock = ParseClock(tokens, work, ".", time, error);
    if (clock != kClockRead) return clock;

    token = tokens.Next(":");
    if (token == nullptr) return 1;
    const size_t length = std::strlen(token);
    const int32_t value = ParseInt(token);
    if (length < 1 || length > 9 || value < 0) {
        if (error != nullptr) error->SetError(kBadNanoseconds);
        return 1;
    }
    static constexpr double kPowersOfTen[10] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9};
    const double nanoseconds = std::trunc(static_cast<double>(value) / kPowersOfTen[length] * 1e9);
    time->nanoseconds = nanoseconds < 1e9 ? static_cast<uint32_t>(nanoseconds) : 999999999u;
    return 1;
}

}  // namespace

int ConvertStringToHMS(const char* text, _blob_timestamp* time, UtilError* error, bool fraction) {
    if (time == nullptr) return 0;
    if (text == nullptr) return Fail(error, kBadFormat);
    WorkArea work(text);
    Tokenizer tokens(work.text);
    const char* token = tokens.Next(":");
    if (token == nullptr) return Fail(error, kBadFormat);
    int32_t hour = ParseInt(token);
    if (!AdjustHour(&hour, work, true)) return Fail(error, kBadHour);
    time->hour = static_cast<uint16_t>(hour);

    token = tokens.Next(":");
    if (token == nullptr) return 1;
    const int32_t minute = ParseInt(token);
    if (minute < 0 || minute > 59) return Fail(error, kBadMinute);
    time->minute = static_cast<uint16_t>(minute);

    token = tokens.Next(":");
    if (token == nullptr) return 1;
    const int32_t second = ParseInt(token);
    if (second < 0 || second > 59) return Fail(error, kBadSecond);
    time->second = static_cast<uint16_t>(second);

    if (fraction) {
        const char* point = std::strchr(token, '.');
        if (point != nullptr) {
            uint32_t digits = 0;
            while (IsDigit(point[1 + digits]))
                ++digits;
            if (digits >= 1 && digits <= 9) {
                uint32_t scale = 1;
                for (uint32_t i = digits; i < 9; ++i)
                    scale *= 10;
                time->nanoseconds = static_cast<uint32_t>(ParseInt(point + 1)) * scale;
            }
        }
    }
    return 1;
}

int ConvertStringToTime(const char* text, _blob_timestamp* time, UtilError* error) {
    if (time == nullptr) return 0;
    *time = _blob_timestamp{};
    if (text == nullptr) return Fail(error, kBadFormat);

    // Classify by the separators, blanks ignored; only the first segment's length counts.
    uint32_t dateSeparators = 0;
    uint32_t timeSeparators = 0;
    size_t firstSegment = 0;
    for (const char* p = text; *p != '\0' && dateSeparators + timeSeparators <= kMaxSeparators;
         ++p) {
        if (IsBlank(*p)) continue;
        if (*p == '-' || *p == '/' || *p == '\\') {
            ++dateSeparators;
        } else if (*p == ':') {
            ++timeSeparators;
        } else if (dateSeparators + timeSeparators == 0) {
            ++firstSegment;
        }
    }
    const uint32_t separators = dateSeparators + timeSeparators;
    if (separators > kMaxSeparators || separators < 2) return Fail(error, kBadFormat);

    if (dateSeparators > 0) {
        WorkArea work(text);
        if (dateSeparators == 1 && firstSegment == 8) return ParseFix(work, time, error);
        if (firstSegment < 4) return ParseMonthFirst(work, time, error);
        return ParseYearFirst(work, time, error);
    }
    if (timeSeparators >= 2) return ConvertStringToHMS(text, time, error, false);
    return Fail(error, kBadFormat);
}

}  // namespace TOLVEN
