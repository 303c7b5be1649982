// Dated text log files: `simplelogfile`, its file names, and the clearing of old files.
//
// A line is built in a pooled block and handed to the background writer (asyncfile.h);
// the caller never waits for the disk unless the writer's queue is full. A dated file
// moves to the next day's file by itself with the first line of the new day. Lines end in
// carriage return and line feed on every platform, and a stamped line begins with the time
// of day to ten microseconds: "(13:05:09.12345) text".
#pragma once

#include <cstdarg>
#include <cstdint>

#include "tolven/asyncfile.h"
#include "tolven/blobtime.h"
#include "tolven/detail/critical_section.h"
#include "tolven/logapi.h"

namespace TOLVEN {

// Room of every text field of simplelogfile_info, with its NUL.
inline constexpr int kLogFilePathSize = 260;

// What a log file was set up with, and the path it has open. A plain record, copied by
// value; not thread-safe.
struct simplelogfile_info {
    char path[kLogFilePathSize];              // the file open now
    char name[kLogFilePathSize];              // the name stem given to Init
    char directory[kLogFilePathSize];         // no trailing separators; empty: the current one
    char rollText[kLogFilePathSize];          // text of the roll line; empty: no roll line
    int keepDays;                             // age at which old files go; 0 or below: never
    bool dated;                               // the file name carries the date
    bool stamped;                             // lines carry the time stamp
    char archiveDirectory[kLogFilePathSize];  // where old files go; empty: they are deleted
    char extension[kLogFilePathSize];         // the extension at the last open
};

// A dated text log file. Every public operation takes the object's lock, so any thread may
// call any of them; the line order in the file is the order of the calls.
class simplelogfile {
  public:
    // A closed file; `stamped` puts the time of day in front of every line.
    explicit simplelogfile(bool stamped);
    virtual ~simplelogfile();
    simplelogfile(const simplelogfile&) = delete;
    simplelogfile& operator=(const simplelogfile&) = delete;

    // Opens the file `name` in `directory` (null or empty: the current one), closing what
    // was open. With `dated` the name carries today's date. `rollText` (may be null) is
    // written as "LOGROLL: <rollText>" at the top of each new day's file. `keepDays` and
    // `archiveDirectory` (may be null; made when missing) say how old files are cleared.
    // A file held by another writer is opened as "<name><date>.<process id>.<extension>".
    // False for an empty name, a bad archive directory, or a file that cannot be opened.
    bool Init(const char* name, const char* directory, const char* rollText, int keepDays,
              bool dated, const char* archiveDirectory);
    // Waits for the pending lines, closes the file and forgets the settings.
    void Term();

    // Writes `text` as a line. False when the file is not open.
    bool Log(const char* text);
    // Writes "<prefix> <text>" as a line; `prefix` may be null, `length` -1 takes `text` up
    // to its NUL. A text longer than the line's room is cut; a prefix that does not fit
    // drops the line (false).
    bool LogEx(const char* prefix, const char* text, int length);
    // Formats a line as printf does, cut at 4094 characters.
    bool LogV(const char* format, ...) TOLVEN_PRINTF_FORMAT(2, 3);
    bool LogVptr(const char* format, va_list args);
    // Waits for the pending lines. True when the file is open and every line since the last
    // Flush reached it.
    bool Flush();
    // Copies the path of the open file into `buffer` (cut to `size`, always terminated);
    // false when no file is open.
    bool GetFileName(char* buffer, int size);
    // The file beneath, for its figures.
    const asyncfile& GetFile() const noexcept { return file_; }

    // Builds the file's path; the default is the free CreateFileName.
    virtual bool CreateFileName(const char* directory, const char* name, const char* extension,
                                char* out, int* inOutSize, const _SYSTEMTIME* date, bool dated);
    // The file's extension: "txt".
    virtual const char* GetExtension();

  private:
    bool OpenFile(const _blob_timestamp& now);
    bool WriteLine(const _blob_timestamp& now, const char* prefix, const char* text,
                   uint32_t length);

    detail::CriticalSection lock_;
    asyncfile file_;
    _blob_timestamp openDate_{};
    simplelogfile_info info_{};
};

// What NukeFiles hands its callback for each old file. Not thread-safe.
struct NUKE_INFO {
    const char* path;      // the file's full path
    _SYSTEMTIME fileDate;  // year, month and day read from the name; all else 0
    void* context;         // the callback's context
};

// Decides about one old file; false stops the walk.
using NukeCallback = bool (*)(NUKE_INFO* info);

// Builds a log file's path into `out`: "<directory>/<name>" and, with `dated`,
// "YYYY_MM_DD" of `date` (null: today), then ".<extension>" when `extension` is not null
// (its leading dots and blanks dropped). `directory` null or empty is the current
// directory; its trailing separators and blanks are dropped. `inOutSize` gives the room of
// `out` and gets the length, or -1 when the path does not fit (false). Thread-safe.
bool CreateFileName(const char* directory, const char* name, const char* extension, char* out,
                    int* inOutSize, const _SYSTEMTIME* date, bool dated);

// Clears the dated files "<name>YYYY_MM_DD.<extension>" of `directory` (null: the current
// one) that are `days` days old or older (0: up to today). Names are compared without
// regard to case; files with anything else in the date part, such as the process id of a
// second writer, are never touched. Each such file goes to `callback` (with `context`) or,
// without one, is deleted; `outCount` (may be null) gets how many. False for a null name
// or extension, a directory that cannot be read, or a callback that answers false.
// Thread-safe.
bool NukeFiles(const char* directory, const char* name, const char* extension, int* outCount,
               int days, NukeCallback callback, void* context);

// The process's private debug log "<name>YYYY_MM_DD.txt" in the current directory, stamped,
// kept 7 days: one object per name, compared without regard to case, made on first use and
// closed at exit. Null when it cannot be opened. Thread-safe.
simplelogfile* GetDebugPrintLogFile(const char* name);

// Enters (`add`) or removes the log file `path` of `file` in the process's list of open log
// files. Adding a path already listed is true; removing one not listed is false.
// Thread-safe.
bool LogAddFile(const char* path, simplelogfile* file, bool add);

}  // namespace TOLVEN
