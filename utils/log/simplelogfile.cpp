// Dated text log files, their names, the clearing of old files and the debug log files.
#include "tolven/simplelogfile.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "blob/civil_time.h"
#include "log/LocalClock.h"
#include "log/LogFileInternal.h"
#include "log/LogFormat.h"
#include "platform/directory.h"
#include "platform/file.h"
#include "platform/process.h"
#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

constexpr const char* kFile = "simplelogfile";
// Data bytes of a line's block; a line takes at most this less 50.
constexpr uint32_t kLineBlockBytes = 4096;
constexpr uint32_t kLineReserve = 50;
// Longest text LogV and LogVptr format, with its NUL.
constexpr size_t kFormatRoom = 4095;
// Longest middle part of a dated file name, "YYYY_MM_DD".
constexpr size_t kDatePartMax = 10;
// Longest name of a debug log file.
constexpr size_t kDebugNameMax = 254;

constinit std::atomic<detail::LogFileClock> g_clock{nullptr};

// Copies `from` (null: empty) into a text field, cut to fit.
void CopyField(char (&to)[kLogFilePathSize], const char* from) {
    size_t n = from != nullptr ? strnlen(from, kLogFilePathSize - 1) : 0;
    if (n != 0) std::memcpy(to, from, n);
    to[n] = '\0';
}

bool IsDirectoryTail(char c) {
    return c == '\\' || c == '/' || c == ' ';
}

// Drops trailing separators and blanks, but keeps a first character, so that a root stays
// a root.
void TrimDirectory(char* text) {
    size_t n = std::strlen(text);
    while (n > 1 && IsDirectoryTail(text[n - 1]))
        text[--n] = '\0';
}

// `extension` without its leading dots and blanks.
const char* BareExtension(const char* extension) {
    while (*extension == '.' || *extension == ' ')
        ++extension;
    return extension;
}

// The directory to put files in: `directory`, or the current one when null or empty; its
// trailing separators and blanks dropped (all of them: a root becomes empty, and the
// separator put after it makes it a root again).
std::string FileDirectory(const char* directory) {
    std::string dir;
    if (directory != nullptr && directory[0] != '\0')
        dir.assign(directory, strnlen(directory, kLogFilePathSize - 1));
    else
        (void)platform::CurrentDirectory(dir);
    while (!dir.empty() && IsDirectoryTail(dir.back()))
        dir.pop_back();
    return dir;
}

bool SameTextIgnoringCase(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// Reads "YYYY_MM_DD" (three runs of digits joined by '_'); false for anything else.
bool ParseDatePart(const std::string& part, int* year, int* month, int* day) {
    int values[3];
    size_t at = 0;
    for (int piece = 0; piece < 3; ++piece) {
        const size_t start = at;
        while (at < part.size() && part[at] >= '0' && part[at] <= '9')
            ++at;
        if (at == start) return false;
        values[piece] = std::atoi(part.substr(start, at - start).c_str());
        if (piece < 2) {
            if (at >= part.size() || part[at] != '_') return false;
            ++at;
        }
    }
    if (at != part.size()) return false;
    *year = values[0];
    *month = values[1];
    *day = values[2];
    return true;
}

// Writes two digits.
char* TwoDigits(char* out, unsigned value) {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
    return out + 2;
}

// Formats the stamp "(HH:MM:SS.fffff) " into `out` (room `room`): the fraction is the first
// five of nine digits of the nanoseconds, ten microseconds. The length, or -1.
int FormatStamp(const _blob_timestamp& now, char* out, uint32_t room) {
    if (now.hour < 100 && now.minute < 100 && now.second < 100 && now.nanoseconds < 1000000000u &&
        room > 17) {
        char* p = out;
        *p++ = '(';
        p = TwoDigits(p, now.hour);
        *p++ = ':';
        p = TwoDigits(p, now.minute);
        *p++ = ':';
        p = TwoDigits(p, now.second);
        *p++ = '.';
        unsigned fraction = now.nanoseconds / 10000;
        for (int i = 4; i >= 0; --i, fraction /= 10)
            p[i] = static_cast<char>('0' + fraction % 10);
        p += 5;
        *p++ = ')';
        *p++ = ' ';
        return static_cast<int>(p - out);
    }
    char fraction[16];
    (void)std::snprintf(fraction, sizeof(fraction), "%.9u", now.nanoseconds);
    fraction[5] = '\0';
    const int n = std::snprintf(out, room, "(%-2.2i:%-2.2i:%-2.2i.%s) ", now.hour, now.minute,
                                now.second, fraction);
    return n >= 0 && static_cast<uint32_t>(n) < room ? n : -1;
}

// The debug log files by name, and the handler that closes them at exit.
struct DebugFiles {
    QuickLock lock;
    std::map<std::string, simplelogfile*> files;
    bool exitHandler = false;
};

// Never destroyed: the exit handler runs among the static destructors.
DebugFiles& Debug() {
    static DebugFiles* files = new DebugFiles;
    return *files;
}

void CloseDebugFiles() {
    DebugFiles& d = Debug();
    QuickLockGuard guard(d.lock);
    for (auto& entry : d.files) {
        entry.second->Term();
        delete entry.second;
    }
    d.files.clear();
}

}  // namespace

namespace detail {

void SetLogFileClockForTest(LogFileClock clock) {
    g_clock.store(clock, std::memory_order_release);
}

void LogFileNow(_blob_timestamp* now) {
    if (const LogFileClock clock = g_clock.load(std::memory_order_acquire))
        clock(now);
    else
        LocalBlobTimeNow(now);
}

}  // namespace detail

// ---- file names ------------------------------------------------------------------------

bool CreateFileName(const char* directory, const char* name, const char* extension, char* out,
                    int* inOutSize, const _SYSTEMTIME* date, bool dated) {
    if (name == nullptr || out == nullptr || inOutSize == nullptr) return false;
    const int room = *inOutSize;
    *inOutSize = -1;
    if (room <= 0) return false;
    const std::string dir = FileDirectory(directory);
    const char separator = platform::PathSeparator();
    int length;
    if (dated) {
        _SYSTEMTIME today;
        if (date == nullptr) {
            _blob_timestamp now;
            detail::LogFileNow(&now);
            (void)BlobTimeToSystemTime(&today, now);
            date = &today;
        }
        length = std::snprintf(out, static_cast<size_t>(room), "%s%c%s%-4.4u%s%-2.2u%s%-2.2u",
                               dir.c_str(), separator, name, unsigned{date->wYear}, "_",
                               unsigned{date->wMonth}, "_", unsigned{date->wDay});
    } else {
        length =
            std::snprintf(out, static_cast<size_t>(room), "%s%c%s", dir.c_str(), separator, name);
    }
    if (length < 0 || length >= room) return false;
    if (extension != nullptr && length > 0) {
        const int more = std::snprintf(out + length, static_cast<size_t>(room - length), ".%s",
                                       BareExtension(extension));
        if (more < 0 || more >= room - length) return false;
        length += more;
    }
    *inOutSize = length;
    return true;
}

// ---- clearing old files ----------------------------------------------------------------

bool NukeFiles(const char* directory, const char* name, const char* extension, int* outCount,
               int days, NukeCallback callback, void* context) {
    if (name == nullptr || extension == nullptr) return false;
    if (outCount != nullptr) *outCount = 0;
    const std::string dir = FileDirectory(directory);
    const std::string tail = std::string(".") + BareExtension(extension);
    const size_t nameLength = std::strlen(name);
    std::vector<std::string> names;
    if (!platform::ListDirectoryFiles(dir.empty() ? "/" : dir.c_str(), names)) return false;

    _blob_timestamp now;
    detail::LogFileNow(&now);
    const int64_t today = detail::DaysFromCivil(now.year, now.month, now.day);
    int count = 0;
    for (const std::string& file : names) {
        if (file.size() <= tail.size() || file.size() < nameLength + tail.size()) continue;
        if (!SameTextIgnoringCase(file.c_str() + file.size() - tail.size(), tail.c_str(),
                                  tail.size()) ||
            !SameTextIgnoringCase(file.c_str(), name, nameLength))
            continue;
        // Only a date may stand between the name and the extension: a second writer's file,
        // which carries its process id there too, is never touched.
        const std::string middle = file.substr(nameLength, file.size() - nameLength - tail.size());
        int year, month, day;
        if (middle.size() > kDatePartMax || !ParseDatePart(middle, &year, &month, &day)) continue;
        if (year < 1900 || year > 2200 || month < 1 || month > 12 || day < 1 || day > 31) continue;
        const int64_t age = today - detail::DaysFromCivil(year, month, day);
        if (age < 0 || age < days) continue;  // a future date, or not old enough

        const std::string path = dir + platform::PathSeparator() + file;
        if (callback != nullptr) {
            NUKE_INFO info{};
            info.path = path.c_str();
            info.fileDate.wYear = static_cast<uint16_t>(year);
            info.fileDate.wMonth = static_cast<uint16_t>(month);
            info.fileDate.wDay = static_cast<uint16_t>(day);
            info.context = context;
            if (!callback(&info)) return false;
            ++count;
        } else if (platform::RemoveFile(path.c_str())) {
            ++count;
        }
        if (outCount != nullptr) *outCount = count;
    }
    return true;
}

// ---- simplelogfile ---------------------------------------------------------------------

simplelogfile::simplelogfile(bool stamped) : lock_(4000) {
    info_.stamped = stamped;
}

simplelogfile::~simplelogfile() {
    Term();
}

bool simplelogfile::Init(const char* name, const char* directory, const char* rollText,
                         int keepDays, bool dated, const char* archiveDirectory) {
    HouseLockGuard guard(lock_);
    Term();
    if (name == nullptr || name[0] == '\0') return false;
    if (archiveDirectory != nullptr && archiveDirectory[0] != '\0') {
        char checked[kLogFilePathSize];
        CopyField(checked, archiveDirectory);
        TrimDirectory(checked);
        if (!platform::MakeDirectory(checked)) {
            TOLVEN_LOG(LOGGER_ERROR, kFile, "TOLVEN::simplelogfile::Init",
                       "ERROR log archive directory %s is invalid", archiveDirectory);
            return false;
        }
        TOLVEN_LOG(LOGGER_NORMAL, kFile, "TOLVEN::simplelogfile::Init",
                   "Log Archive Directory is set to %s", archiveDirectory);
    }
    CopyField(info_.name, name);
    CopyField(info_.directory, directory);
    CopyField(info_.rollText, rollText);
    CopyField(info_.archiveDirectory, archiveDirectory);
    TrimDirectory(info_.directory);
    TrimDirectory(info_.archiveDirectory);
    info_.keepDays = keepDays;
    info_.dated = dated;
    // The archiver of old files takes a reference here, once it exists; until then old
    // files are not cleared behind the log's back.
    _blob_timestamp now;
    detail::LogFileNow(&now);
    if (!OpenFile(now)) {
        Term();
        return false;
    }
    return true;
}

bool simplelogfile::OpenFile(const _blob_timestamp& now) {
    if (file_.IsOpen()) {
        (void)LogAddFile(info_.path, this, false);
        file_.Close();
    }
    info_.path[0] = '\0';
    CopyField(info_.extension, GetExtension());
    _SYSTEMTIME date;
    (void)BlobTimeToSystemTime(&date, now);
    const char* directory = info_.directory[0] != '\0' ? info_.directory : nullptr;
    int size = kLogFilePathSize;
    bool opened = CreateFileName(directory, info_.name, info_.extension, info_.path, &size, &date,
                                 info_.dated) &&
                  file_.Open(info_.path, kLineBlockBytes, -1);
    if (!opened) {
        // Another writer holds the file: this process takes a name of its own.
        char extension[kLogFilePathSize];
        (void)std::snprintf(extension, sizeof(extension), "%u.%s", platform::CurrentProcessId(),
                            info_.extension);
        size = kLogFilePathSize;
        opened = CreateFileName(directory, info_.name, extension, info_.path, &size, &date, true) &&
                 file_.Open(info_.path, kLineBlockBytes, -1);
    }
    if (!opened) {
        info_.path[0] = '\0';
        return false;
    }
    (void)LogAddFile(info_.path, this, true);
    // The archiver learns of the new file here, once it exists.
    openDate_ = now;
    return true;
}

void simplelogfile::Term() {
    HouseLockGuard guard(lock_);
    if (file_.IsOpen()) {
        (void)LogAddFile(info_.path, this, false);
        file_.Close();
    }
    info_.keepDays = 0;
    info_.path[0] = '\0';
    info_.name[0] = '\0';
    info_.directory[0] = '\0';
    info_.rollText[0] = '\0';
}

bool simplelogfile::Log(const char* text) {
    return LogEx(nullptr, text, -1);
}

bool simplelogfile::LogEx(const char* prefix, const char* text, int length) {
    if (text == nullptr) return false;
    HouseLockGuard guard(lock_);
    if (!file_.IsOpen()) return false;
    _blob_timestamp now;
    detail::LogFileNow(&now);
    if (now.day != openDate_.day || now.month != openDate_.month || now.year != openDate_.year) {
        // A failed open leaves the file closed, and the line writer refuses the line.
        (void)OpenFile(now);
        if (info_.rollText[0] != '\0')
            (void)WriteLine(now, "LOGROLL:", info_.rollText,
                            static_cast<uint32_t>(std::strlen(info_.rollText)));
    }
    const uint32_t size =
        length < 0 ? static_cast<uint32_t>(std::strlen(text)) : static_cast<uint32_t>(length);
    return WriteLine(now, prefix, text, size);
}

bool simplelogfile::WriteLine(const _blob_timestamp& now, const char* prefix, const char* text,
                              uint32_t length) {
    AsyncFileWrite* item = file_.NewWrite();
    if (item == nullptr) return false;
    const uint32_t room = file_.GetBufferSize() - kLineReserve;
    char* out = item->Data();
    uint32_t used = 0;
    if (info_.stamped) {
        const int n = FormatStamp(now, out, room);
        if (n < 0) {
            file_.FreeWrite(item);
            return false;
        }
        used = static_cast<uint32_t>(n);
    }
    if (prefix != nullptr) {
        const size_t n = std::strlen(prefix);
        if (n + 1 > room - used) {
            file_.FreeWrite(item);
            return false;
        }
        std::memcpy(out + used, prefix, n);
        used += static_cast<uint32_t>(n);
        out[used++] = ' ';
    }
    const uint32_t take = length < room - used ? length : room - used;
    std::memcpy(out + used, text, take);
    used += take;
    out[used++] = '\r';
    out[used++] = '\n';
    item->position = file_.GetEndPosition();
    item->length = used;
    return file_.Write(item);
}

bool simplelogfile::LogV(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool ok = LogVptr(format, args);
    va_end(args);
    return ok;
}

bool simplelogfile::LogVptr(const char* format, va_list args) {
    if (format == nullptr) return false;
    char text[kFormatRoom];
    va_list copy;
    va_copy(copy, args);
    const int n = detail::FormatText(text, sizeof(text), format, copy);
    va_end(copy);
    if (n < 0) return false;
    text[sizeof(text) - 1] = '\0';
    return Log(text);
}

bool simplelogfile::Flush() {
    HouseLockGuard guard(lock_);
    return file_.Flush();
}

bool simplelogfile::GetFileName(char* buffer, int size) {
    HouseLockGuard guard(lock_);
    if (buffer == nullptr || size <= 0) return false;
    if (!file_.IsOpen()) {
        buffer[0] = '\0';
        return false;
    }
    const size_t n = strnlen(info_.path, static_cast<size_t>(size) - 1);
    std::memcpy(buffer, info_.path, n);
    buffer[n] = '\0';
    return true;
}

bool simplelogfile::CreateFileName(const char* directory, const char* name, const char* extension,
                                   char* out, int* inOutSize, const _SYSTEMTIME* date, bool dated) {
    return ::TOLVEN::CreateFileName(directory, name, extension, out, inOutSize, date, dated);
}

const char* simplelogfile::GetExtension() {
    return "txt";
}

// ---- debug log files -------------------------------------------------------------------

simplelogfile* GetDebugPrintLogFile(const char* name) {
    if (name == nullptr || name[0] == '\0') return nullptr;
    try {
        const std::string given(name, strnlen(name, kDebugNameMax));
        std::string key = given;
        for (char& c : key)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        DebugFiles& d = Debug();
        QuickLockGuard guard(d.lock);
        const auto found = d.files.find(key);
        if (found != d.files.end()) return found->second;
        auto file = std::make_unique<simplelogfile>(true);
        if (!file->Init(given.c_str(), nullptr, nullptr, 7, true, nullptr)) return nullptr;
        simplelogfile* const result = file.get();
        d.files.emplace(key, result);
        file.release();
        if (!d.exitHandler) {
            d.exitHandler = true;
            (void)std::atexit(&CloseDebugFiles);
        }
        return result;
    } catch (...) {
        return nullptr;
    }
}

}  // namespace TOLVEN
