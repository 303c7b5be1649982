// The log door: every message of the process passes through LogProcessEvent.
//
// A caller formats its message on its own stack and copies one frame into a process-wide
// byte ring; the thread "LogThread" takes the frames out in order and hands each to the
// registered callbacks. Nothing on the caller's thread touches a file, a console or a
// socket. A full ring makes producers wait for room: no message is dropped for want of
// space. Users pair LogInitApi with LogTermApi; the last LogTermApi delivers what is in
// the ring before it returns.
//
// All functions are safe for concurrent use without external locking.
//
// Callbacks run on "LogThread" with the API lock held, one message at a time, in the order
// the messages entered the ring; what the last LogTermApi finds left over is delivered on
// that caller's thread, after "LogThread" has ended. A callback may call LogAddCallbackFunc,
// GetLoggingLevel, SetLoggingLevel, IsLogged and LogProcessEvent. LogFlush called from a callback
// returns false at once (it would wait for its own thread), and LogRemoveCallback from a callback
// takes effect after the current message. A message logged from a callback while the ring
// is full is dropped, since only this thread could make room for it.
//
// A callback should not throw. If one does, the exception is caught and discarded on
// "LogThread": the message still goes to the remaining callbacks, the callback stays
// registered, and the thread carries on with the next message.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "tolven/blobtime.h"

#if defined(__GNUC__) || defined(__clang__)
#define TOLVEN_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))
#else
#define TOLVEN_PRINTF_FORMAT(fmt, first)
#endif

namespace TOLVEN {

// Message levels, compared numerically. (The enumerators carry a prefix because TRACE and
// ERROR are macros in some platform headers.)
enum logger_event_level : uint32_t {
    LOGGER_TRACE = 1,
    LOGGER_NORMAL = 16,
    LOGGER_WARN = 32,
    LOGGER_ERROR = 64,
};

// Results of the log API.
enum [[nodiscard]] log_status : uint32_t{
    LOG_SUCCESS = 0,         // done; also a message skipped because nobody listens
    LOG_TRUNCATED = 1,       // the text was cut to 4095 characters and queued all the same
    LOG_NOT_AVAILABLE = 3,   // not initialised, unknown callback id, or start-up failed
    LOG_BAD_ARGUMENT = 4,    // a required pointer was null
    LOG_COUNT_EXCEEDED = 5,  // a call site used up its occurrence limit
};

// Longest text of a message, in characters; longer texts are cut.
inline constexpr uint32_t kLogMaxText = 4095;

// What a callback receives for one message; valid only during the call. Not thread-safe.
struct _LOGGER_CB_DATA {
    const char* text;           // the formatted message, at most 4095 characters, no line end
    const char* file;           // the caller's source-file string
    const char* function;       // the caller's function string
    uint32_t line;              // the caller's line
    logger_event_level level;   // the message's level
    _blob_timestamp timestamp;  // local wall-clock time of the call
    uint32_t threadId;          // operating-system id of the calling thread
    uint32_t userValue;         // passed through from the caller
    uint32_t sequence;          // 1 for the first message delivered in the process, then +1
};

// A callback: the message and the context given at registration.
using LogCallbackFunc = void (*)(_LOGGER_CB_DATA* const data, void* context);

// The text of a level: "TRACE", "NORMAL", "WARN", "ERROR", or "UNDEFINED" for any other.
const char* LoggerLevelName(uint32_t level);
// The level named by `name` (case-insensitive); 0 for anything else, null included.
logger_event_level LoggerLevelFromName(const char* name);

// Takes a reference on the API; the first one allocates the ring and starts "LogThread".
// LOG_NOT_AVAILABLE when that fails. Waits while a last LogTermApi is under way.
log_status LogInitApi();
// Drops a reference; the last one delivers what is queued, then stops "LogThread" and
// frees the ring. Without a reference it does nothing. Callbacks stay registered. From a
// callback the last reference is kept, since dropping it would stop the calling thread.
void LogTermApi();

namespace detail {
// How many callbacks take messages of each level, by level number; only the entries of the
// four named levels ever move. Read by the inline test of LogProcessEvent.
extern std::atomic<int32_t> logLevelListeners[LOGGER_ERROR + 1];
// True when some callback takes messages of exactly `level`: a branch and one load.
inline bool LevelHasListeners(uint32_t level) noexcept {
    return level <= LOGGER_ERROR && logLevelListeners[level].load(std::memory_order_relaxed) > 0;
}
// LogProcessEvent past its level test.
log_status LogProcessEnabledEvent(logger_event_level level, const char* file, uint32_t line,
                                  const char* function, const char* format, va_list args,
                                  uint32_t userValue);
}  // namespace detail

// Formats `format` with `args` and queues the message. A level nobody listens to costs a
// branch and one load, inline at the caller, and gives LOG_SUCCESS; null `file`, `function`
// or `format` gives LOG_BAD_ARGUMENT; LOG_NOT_AVAILABLE without LogInitApi; LOG_TRUNCATED
// when the text reached 4095 characters (it is queued cut). `file` and `function` are kept
// by address until delivery: pass static strings. The format is printf's, with "%n"
// writing nothing and the "I64", "I32" and "I" length modifiers understood.
inline log_status LogProcessEvent(logger_event_level level, const char* file, uint32_t line,
                                  const char* function, const char* format, va_list args,
                                  uint32_t userValue) {
    if (!detail::LevelHasListeners(level)) return LOG_SUCCESS;
    return detail::LogProcessEnabledEvent(level, file, line, function, format, args, userValue);
}

// LogProcessEvent with a limit per call site. A site is its `line` and the text of its
// `file` (two pointers to equal names are one site). The first call of a site logs and
// counts nothing; each later call counts one, and once `maxCount` calls have been counted
// the site gives LOG_COUNT_EXCEEDED without formatting anything. So a site logs
// `maxCount` + 1 times (once for 0 or below). Each counted call stores its own `maxCount`,
// so a site may raise its limit. A call is counted even when nobody listens to its level.
// `file` must stay valid until LogNReset: the table keeps it by address.
log_status LogProcessEventEx(int maxCount, logger_event_level level, const char* file,
                             uint32_t line, const char* function, const char* format, va_list args,
                             uint32_t userValue);
// Forgets every site of LogProcessEventEx, so that all start anew.
void LogNReset();

// True when some callback takes messages of exactly `level`.
bool IsLogged(logger_event_level level);
// Stores the level of callback `id` in `level`; LOG_NOT_AVAILABLE (and 0) when unknown.
log_status GetLoggingLevel(logger_event_level* level, uint32_t id);
// Changes the level of callback `id`; LOG_NOT_AVAILABLE when unknown.
log_status SetLoggingLevel(logger_event_level level, uint32_t id);
// Registers `callback` with `context` for messages at `level` and above. `id` (may be
// null) receives the new id, or 0xFFFFFFFF on failure. A level other than the four named
// ones takes messages only while another callback keeps that message's level alive.
log_status LogAddCallbackFunc(LogCallbackFunc callback, void* context, uint32_t* id,
                              logger_event_level level);
// Delivers everything queued so far, then unregisters callback `id`; an unknown id is
// LOG_SUCCESS.
log_status LogRemoveCallback(uint32_t id);
// Waits until every message queued before the call has been delivered; false when the
// API is not running or when called from a callback.
bool LogFlush();

// A call site: where a message comes from and at which level. `file` is the source name
// without folders and extension ("simplelogfile"), `function` the qualified name
// ("TOLVEN::simplelogfile::Init"); both must be static strings. Not thread-safe; a
// function-local constant is the usual form.
struct LogSite {
    const char* file;
    uint32_t line;
    logger_event_level level;
    const char* function;
};

// Logs from a call site: LogProcessEvent with the site's fields and the arguments.
log_status LogAt(const LogSite& site, uint32_t userValue, const char* format, ...)
    TOLVEN_PRINTF_FORMAT(3, 4);

}  // namespace TOLVEN

// Logs from a call site built in place, discarding the status:
//   TOLVEN_LOG(LOGGER_WARN, "BaseAllocator", "TOLVEN::AllocateEx", "text %u", value);
#define TOLVEN_LOG(level, file, function, ...)                                                 \
    do {                                                                                       \
        if (::TOLVEN::detail::LevelHasListeners(::TOLVEN::level)) {                            \
            static constexpr ::TOLVEN::LogSite tolvenLogSite_{file, __LINE__, ::TOLVEN::level, \
                                                              function};                       \
            (void)::TOLVEN::LogAt(tolvenLogSite_, 0, __VA_ARGS__);                             \
        }                                                                                      \
    } while (0)
