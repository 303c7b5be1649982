// The log door: producers, the log thread, callback tables and the API's life.
#include "tolven/logapi.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include "log/LocalClock.h"
#include "log/LogApiInternal.h"
#include "log/LogFormat.h"
#include "log/LogRing.h"
#include "platform/thread.h"
#include "tolven/autothread.h"
#include "tolven/quicklock.h"
#include "tolven/refobj.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {
namespace {

constexpr uint32_t kRingCapacity = 1000000;
constexpr uint32_t kDrainTimeoutMs = 2000;
constexpr uint8_t kKindLog = 'L';
constexpr uint8_t kKindFlush = 'F';
constexpr uint32_t kNoId = 0xFFFFFFFFu;
// How long the log thread keeps looking at an empty ring before it goes to sleep. A
// producer that finds it awake pays for no wake-up call.
constexpr auto kIdleSpin = std::chrono::microseconds(50);

// A message as it travels through the ring: this header, then the text and its NUL.
struct LogFrame {
    uint8_t kind;
    uint8_t pad0[3];
    uint32_t line;
    uint32_t level;
    _blob_timestamp timestamp;
    uint32_t threadId;
    const char* file;
    const char* function;
    uint32_t userValue;
    uint32_t pad1;
    char text[kLogMaxText + 1];
};
constexpr uint32_t kFrameHeader = offsetof(LogFrame, text);
static_assert(kFrameHeader + 1 == 57, "a frame's payload is its text length plus 57");
constexpr uint32_t kMaxPayload = kFrameHeader + kLogMaxText + 1;

// The waiter of a LogFlush. Shared by count with the log thread, so that neither side
// can free the event while the other still touches it.
class FlushToken : public ReferencedObj {
  public:
    Event done{true};
};

// The flush frame: the kind, and the token at the frame's second half.
struct FlushFrame {
    uint8_t kind;
    uint8_t pad[7];
    FlushToken* token;
};
static_assert(sizeof(FlushFrame) == 16, "a flush frame is 16 bytes");

struct CallbackRecord {
    uint32_t id;
    void* context;
    logger_event_level level;
    LogCallbackFunc callback;
    bool removed;
};

// Constant initialised and trivially destroyed, so they can be read at any time of the
// process. Every producer reads these; they change only when callbacks or references come and go.
alignas(64) constinit std::atomic<int32_t> g_refCount{0};
constinit std::atomic<uint32_t> g_nextId{0};
constinit std::atomic<uint32_t> g_capacityLimit{0};
// Written for every message delivered: kept off the producers' lines.
alignas(64) constinit std::atomic<uint32_t> g_sequence{0};
#if defined(__GNUC__)
__attribute__((tls_model("initial-exec")))
#endif
thread_local bool t_consumer = false;
// Set while a thread configures itself: see SetLogNeverWait.
thread_local bool t_neverWait = false;

struct LogApiState {
    detail::CriticalSection apiLock{4000};
    detail::CriticalSection occurrenceLock{4000};
    std::vector<CallbackRecord> active;
    std::vector<CallbackRecord> pending;
    bool dispatching = false;
    bool changesPending = false;
    bool terminating = false;
    auto_thread thread;
    detail::LogRing ring;
};

// Never destroyed: other subsystems log from their destructors at exit.
LogApiState& State() {
    static LogApiState* state = new LogApiState;
    return *state;
}

bool IsNamedLevel(uint32_t level) noexcept {
    return level == LOGGER_TRACE || level == LOGGER_NORMAL || level == LOGGER_WARN ||
           level == LOGGER_ERROR;
}

// A callback at `level` counts in every named level at or above it.
void AdjustCounts(uint32_t level, int32_t delta) noexcept {
    if (!IsNamedLevel(level)) return;
    for (uint32_t named : {LOGGER_TRACE, LOGGER_NORMAL, LOGGER_WARN, LOGGER_ERROR})
        if (named >= level)
            detail::logLevelListeners[named].fetch_add(delta, std::memory_order_relaxed);
}

// Copies a frame of at least 57 bytes in 16-byte pieces, the last one overlapping the one
// before, which beats a string move for the usual message of a hundred bytes.
void CopyFrame(uint8_t* to, const void* from, uint32_t length) {
    const auto* src = static_cast<const uint8_t*>(from);
    uint32_t i = 0;
    for (; i + 16 <= length; i += 16)
        std::memcpy(to + i, src + i, 16);
    if (i < length) std::memcpy(to + length - 16, src + length - 16, 16);
}

// Calls the callbacks for one message, under the API lock.
void Dispatch(const LogFrame& frame) {
    LogApiState& s = State();
    _LOGGER_CB_DATA data;
    data.text = frame.text;
    data.file = frame.file;
    data.function = frame.function;
    data.line = frame.line;
    data.level = static_cast<logger_event_level>(frame.level);
    data.timestamp = frame.timestamp;
    data.threadId = frame.threadId;
    data.userValue = frame.userValue;
    // Only the one delivering thread counts.
    data.sequence = g_sequence.load(std::memory_order_relaxed) + 1;
    g_sequence.store(data.sequence, std::memory_order_relaxed);

    HouseLockGuard guard(s.apiLock);
    s.dispatching = true;
    // Records are only marked during a dispatch, never moved, so indexes stay valid.
    for (size_t i = 0; i < s.active.size(); ++i) {
        const CallbackRecord record = s.active[i];
        if (record.removed || record.level > frame.level) continue;
        try {
            record.callback(&data, record.context);
        } catch (...) {
            // A throwing callback must not end the log thread; its message is done.
        }
    }
    s.dispatching = false;
    if (s.changesPending) {
        s.changesPending = false;
        s.active.erase(std::remove_if(s.active.begin(), s.active.end(),
                                      [](const CallbackRecord& r) { return r.removed; }),
                       s.active.end());
        for (const CallbackRecord& record : s.pending) {
            AdjustCounts(record.level, 1);
            s.active.push_back(record);
        }
        s.pending.clear();
    }
}

// Acts on one payload taken out of the ring.
void Deliver(uint8_t* payload, uint32_t length) {
    if (length == 0) return;
    if (payload[0] == kKindFlush && length >= sizeof(FlushFrame)) {
        FlushToken* token;
        std::memcpy(&token, payload + offsetof(FlushFrame, token), sizeof(token));
        (void)token->done.Set();
        token->Release();
        return;
    }
    if (payload[0] != kKindLog || length <= kFrameHeader) return;
    payload[length - 1] = '\0';
    Dispatch(*reinterpret_cast<const LogFrame*>(payload));
}

// Looks at an empty ring for a short while before the reader announces that it sleeps.
detail::ring_status SpinPeek(detail::LogRing& ring, const uint8_t** payload, uint32_t* length) {
    const auto until = std::chrono::steady_clock::now() + kIdleSpin;
    for (uint32_t i = 1;; ++i) {
        // Each look reads the write offset, which a producer must then take back from this
        // processor's cache: look every microsecond or so, not continuously.
        for (int pause = 0; pause < 64; ++pause)
            platform::CpuRelax();
        const detail::ring_status st = ring.Peek(payload, length);
        if (st != detail::ring_status::empty) return st;
        if ((i & 1) == 0) {
            if (std::chrono::steady_clock::now() >= until) return st;
            // On a busy machine the producer may wait for this very processor.
            if ((i & 31) == 0) platform::YieldThread();
        }
    }
}

// Takes frames out of the ring and delivers them until the ring is empty and, with a
// timeout, until no frame came for `timeoutMs`. `detector` waits for the data event (and
// the shutdown event, which ends the drain once the ring is empty).
void Drain(uint32_t timeoutMs, EventDetectorType* detector, Event* shutdown) {
    detail::LogRing& ring = State().ring;
    const bool wasConsumer = t_consumer;
    t_consumer = true;
    alignas(LogFrame) uint8_t local[sizeof(LogFrame)];
    for (;;) {
        const uint8_t* payload;
        uint32_t length;
        // What is known to be there is taken without reading the write offset; a look for
        // more comes after a pause (below), so that a producer in a burst finds that offset
        // still in its own cache.
        detail::ring_status st = ring.Peek(&payload, &length, timeoutMs == 0);
        if (st == detail::ring_status::empty && timeoutMs != 0) {
            // Writers that wait for room get it all now.
            ring.WakeWriters(true);
            st = SpinPeek(ring, &payload, &length);
            if (st == detail::ring_status::empty) {
                // Announce the sleep, then look again: a frame committed in between is
                // seen here, and a later one sets the data event.
                ring.Control()->readersWaiting.fetch_add(1, std::memory_order_seq_cst);
                st = ring.Peek(&payload, &length);
            }
            const uint64_t start = GetTickCount64Ms();
            while (st == detail::ring_status::empty) {
                if (shutdown != nullptr && shutdown->IsSignalled()) break;
                const uint64_t gone = GetTickCount64Ms() - start;
                if (gone >= timeoutMs) break;
                (void)detector->Wait(static_cast<uint32_t>(timeoutMs - gone));
                st = ring.Peek(&payload, &length);
                if (st == detail::ring_status::empty) {
                    // A wake with nothing to read may have come from a producer that took
                    // the announcement for a frame already read: announce again.
                    ring.Control()->readersWaiting.fetch_add(1, std::memory_order_seq_cst);
                    st = ring.Peek(&payload, &length);
                }
            }
        }
        if (st == detail::ring_status::empty) {
            ring.WakeWriters(true);
            break;
        }
        if (st != detail::ring_status::ok) break;
        const uint32_t take = std::min(length, kMaxPayload);
        std::memcpy(local, payload, take);
        ring.CommitRead();
        ring.WakeWriters(false);
        Deliver(local, take);
    }
    t_consumer = wasConsumer;
}

void LogThreadBody() {
    LogApiState& s = State();
    Event* shutdown = GetShutdownEvent();
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(&s.ring.DataEvent());
    (void)detector->Add(shutdown);
    while (!shutdown->IsSignalled())
        Drain(kDrainTimeoutMs, detector, shutdown);
    // What producers queued before the stop still goes out, from here and in order.
    Drain(0, nullptr, nullptr);
    detector->Clear();
    ReturnToCache(detector);
}

// Enters the API lock and waits out a termination under way. False (and not locked) on a
// delivering thread, which would otherwise wait for itself.
bool EnterOutsideTermination(LogApiState& s) {
    detail::EnterHouse(s.apiLock);
    while (s.terminating) {
        s.apiLock.Leave();
        if (t_consumer) return false;
        platform::SleepMs(200);
        detail::EnterHouse(s.apiLock);
    }
    return true;
}

CallbackRecord* Find(std::vector<CallbackRecord>& table, uint32_t id) {
    for (CallbackRecord& record : table)
        if (record.id == id && !record.removed) return &record;
    return nullptr;
}

}  // namespace

namespace detail {

// Constant initialised and trivially destroyed, so it can be read at any time of the process.
alignas(64) constinit std::atomic<int32_t> logLevelListeners[LOGGER_ERROR + 1] = {};

bool SetLogNeverWait(bool neverWait) noexcept {
    const bool was = t_neverWait;
    t_neverWait = neverWait;
    return was;
}

CriticalSection& LogApiLock() {
    return State().apiLock;
}

CriticalSection& LogOccurrenceLock() {
    return State().occurrenceLock;
}

void SetLogRingCapacityLimitForTest(uint32_t bytes) {
    // An entry that does not fit in the tail goes to the start, so a ring of less than two
    // of the largest entries could refuse one forever even when empty.
    constexpr uint32_t kSmallest = 2 * (kMaxPayload + 4) + 8;
    g_capacityLimit.store(bytes != 0 && bytes < kSmallest ? kSmallest : bytes,
                          std::memory_order_relaxed);
}

uint64_t LogBlockedWriteCount() noexcept {
    return State().ring.BlockedWrites();
}

bool IsLogConsumerThread() noexcept {
    return t_consumer;
}

}  // namespace detail

const char* LoggerLevelName(uint32_t level) {
    switch (level) {
        case LOGGER_TRACE:
            return "TRACE";
        case LOGGER_NORMAL:
            return "NORMAL";
        case LOGGER_WARN:
            return "WARN";
        case LOGGER_ERROR:
            return "ERROR";
        default:
            return "UNDEFINED";
    }
}

logger_event_level LoggerLevelFromName(const char* name) {
    if (name == nullptr) return static_cast<logger_event_level>(0);
    auto same = [name](const char* upper) {
        size_t i = 0;
        for (; name[i] != '\0' && upper[i] != '\0'; ++i) {
            char c = name[i];
            if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
            if (c != upper[i]) return false;
        }
        return name[i] == upper[i];
    };
    for (logger_event_level level : {LOGGER_TRACE, LOGGER_NORMAL, LOGGER_WARN, LOGGER_ERROR})
        if (same(LoggerLevelName(level))) return level;
    return static_cast<logger_event_level>(0);
}

log_status LogInitApi() {
    LogApiState& s = State();
    if (!EnterOutsideTermination(s)) return LOG_NOT_AVAILABLE;
    if (g_refCount.load(std::memory_order_relaxed) > 0) {
        g_refCount.fetch_add(1, std::memory_order_relaxed);
        s.apiLock.Leave();
        return LOG_SUCCESS;
    }
    bool created;
    {
        HouseLockGuard writer(s.ring.WriterLock());
        created = s.ring.Create(kRingCapacity, g_capacityLimit.load(std::memory_order_relaxed));
    }
    bool launched = false;
    if (created) {
        try {
            launched = s.thread.launch("LogThread", &LogThreadBody);
        } catch (...) {
            launched = false;
        }
    }
    if (created && !launched) {
        HouseLockGuard writer(s.ring.WriterLock());
        s.ring.Destroy();
        created = false;
    }
    if (created) g_refCount.store(1, std::memory_order_release);
    s.apiLock.Leave();
    return created ? LOG_SUCCESS : LOG_NOT_AVAILABLE;
}

void LogTermApi() {
    LogApiState& s = State();
    for (;;) {
        detail::EnterHouse(s.apiLock);
        const int32_t count = g_refCount.load(std::memory_order_relaxed);
        // The last reference cannot be dropped from a callback: that would stop the very
        // thread the callback runs on.
        if (count == 0 || (count == 1 && t_consumer)) {
            s.apiLock.Leave();
            return;
        }
        if (count > 1) {
            g_refCount.fetch_sub(1, std::memory_order_relaxed);
            s.apiLock.Leave();
            return;
        }
        if (!s.terminating) break;
        s.apiLock.Leave();
        platform::SleepMs(200);
    }
    g_refCount.store(0, std::memory_order_release);
    s.terminating = true;
    s.apiLock.Leave();

    // The log thread delivers what it finds on its way out; this thread then takes the
    // rest, with producers held off by the writer lock, so that flushes waiting in the ring
    // are answered before the ring goes.
    (void)s.thread.join_shutdown();
    detail::EnterHouse(s.apiLock);
    {
        HouseLockGuard writer(s.ring.WriterLock());
        Drain(0, nullptr, nullptr);
        s.ring.Destroy();
    }
    (void)s.ring.DataEvent().Set();
    (void)s.ring.SpaceEvent().Set();
    s.terminating = false;
    s.apiLock.Leave();
}

log_status detail::LogProcessEnabledEvent(logger_event_level level, const char* file, uint32_t line,
                                          const char* function, const char* format, va_list args,
                                          uint32_t userValue) {
    if (g_refCount.load(std::memory_order_acquire) == 0) return LOG_NOT_AVAILABLE;
    if (file == nullptr || function == nullptr || format == nullptr) return LOG_BAD_ARGUMENT;

    LogFrame frame;
    frame.kind = kKindLog;
    frame.line = line;
    frame.level = level;
    detail::LocalBlobTimeNow(&frame.timestamp);
    frame.threadId = platform::CurrentThreadId();
    frame.file = file;
    frame.function = function;
    frame.userValue = userValue;
    std::memset(frame.pad0, 0, sizeof(frame.pad0));
    frame.pad1 = 0;

    log_status status = LOG_SUCCESS;
    const int formatted = detail::FormatText(frame.text, sizeof(frame.text), format, args);
    uint32_t length;
    if (formatted < 0) {
        frame.text[0] = '\0';
        length = 0;
    } else if (static_cast<uint32_t>(formatted) >= kLogMaxText) {
        length = kLogMaxText;
        frame.text[kLogMaxText] = '\0';
        status = LOG_TRUNCATED;
    } else {
        length = static_cast<uint32_t>(formatted);
    }

    detail::LogRing& ring = State().ring;
    const uint32_t payloadLength = length + kFrameHeader + 1;
    uint8_t* target;
    // A delivering thread must not wait for room: only it could make some.
    if (ring.AcquireWrite(payloadLength, &target, !t_consumer && !t_neverWait) !=
        detail::ring_status::ok)
        return status;
    CopyFrame(target, &frame, payloadLength);
    ring.ReleaseWrite();
    return status;
}

bool IsLogged(logger_event_level level) {
    return IsNamedLevel(level) && detail::LevelHasListeners(level);
}

log_status GetLoggingLevel(logger_event_level* level, uint32_t id) {
    if (level == nullptr) return LOG_BAD_ARGUMENT;
    LogApiState& s = State();
    HouseLockGuard guard(s.apiLock);
    const CallbackRecord* record = Find(s.active, id);
    if (record == nullptr) record = Find(s.pending, id);
    if (record == nullptr) {
        *level = static_cast<logger_event_level>(0);
        return LOG_NOT_AVAILABLE;
    }
    *level = record->level;
    return LOG_SUCCESS;
}

log_status SetLoggingLevel(logger_event_level level, uint32_t id) {
    LogApiState& s = State();
    HouseLockGuard guard(s.apiLock);
    if (CallbackRecord* record = Find(s.active, id)) {
        AdjustCounts(record->level, -1);
        AdjustCounts(level, 1);
        record->level = level;
        return LOG_SUCCESS;
    }
    if (CallbackRecord* record = Find(s.pending, id)) {
        record->level = level;
        return LOG_SUCCESS;
    }
    return LOG_NOT_AVAILABLE;
}

log_status LogAddCallbackFunc(LogCallbackFunc callback, void* context, uint32_t* id,
                              logger_event_level level) {
    if (id != nullptr) *id = kNoId;
    if (callback == nullptr) return LOG_BAD_ARGUMENT;
    LogApiState& s = State();
    HouseLockGuard guard(s.apiLock);
    if (g_refCount.load(std::memory_order_relaxed) == 0) return LOG_NOT_AVAILABLE;
    const CallbackRecord record{g_nextId.fetch_add(1, std::memory_order_relaxed) + 1, context,
                                level, callback, false};
    try {
        if (s.dispatching) {
            // Only a callback can be here now: the record joins after this message.
            s.pending.push_back(record);
            s.changesPending = true;
        } else {
            s.active.push_back(record);
            AdjustCounts(level, 1);
        }
    } catch (...) {
        return LOG_NOT_AVAILABLE;
    }
    if (id != nullptr) *id = record.id;
    return LOG_SUCCESS;
}

log_status LogRemoveCallback(uint32_t id) {
    // Everything queued before the removal still reaches the callback.
    (void)LogFlush();
    LogApiState& s = State();
    HouseLockGuard guard(s.apiLock);
    if (g_refCount.load(std::memory_order_relaxed) == 0) return LOG_NOT_AVAILABLE;
    for (auto it = s.active.begin(); it != s.active.end(); ++it) {
        if (it->id != id || it->removed) continue;
        AdjustCounts(it->level, -1);
        if (s.dispatching) {
            it->removed = true;
            s.changesPending = true;
        } else {
            s.active.erase(it);
        }
        return LOG_SUCCESS;
    }
    for (auto it = s.pending.begin(); it != s.pending.end(); ++it) {
        if (it->id == id) {
            s.pending.erase(it);
            return LOG_SUCCESS;
        }
    }
    return LOG_SUCCESS;
}

bool LogFlush() {
    if (t_consumer) return false;
    FlushToken* token = new (std::nothrow) FlushToken;
    if (token == nullptr) return false;
    token->AddRef();  // the log thread's reference, given back when it sets the event
    FlushFrame frame{};
    frame.kind = kKindFlush;
    frame.token = token;

    detail::LogRing& ring = State().ring;
    uint8_t* target;
    if (ring.AcquireWrite(sizeof(frame), &target, true) != detail::ring_status::ok) {
        token->Release();
        token->Release();
        return false;
    }
    std::memcpy(target, &frame, sizeof(frame));
    ring.ReleaseWrite();

    bool fired = false;
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(&token->done, [&fired] { fired = true; });
    while (!fired)
        (void)detector->Wait(kInfinite);
    detector->Clear();
    ReturnToCache(detector);
    token->Release();
    return fired;
}

log_status LogAt(const LogSite& site, uint32_t userValue, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const log_status status =
        LogProcessEvent(site.level, site.file, site.line, site.function, format, args, userValue);
    va_end(args);
    return status;
}

}  // namespace TOLVEN
