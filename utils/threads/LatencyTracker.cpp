#include "tolven/latencytracker.h"

#include <cstddef>
#include <cstring>

#include "blob/civil_time.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "platform/timezone.h"
#include "threads/LatencyTrackerHooks.h"
#include "tolven/quicklock.h"

namespace TOLVEN {

// One queued measurement: a 136-byte block of the pool.
struct LatencyTracker::Record {
    Record* next;
    Record* previous;
    _blob_timestamp time;
    char key[64];
    const char* label;
    const char* file;
    int32_t line;
    const char* function;
    double latencyMs;
};

namespace {

std::atomic<detail::LatencyClock> g_testClock{nullptr};

const uint64_t g_counterFrequency = platform::MonotonicFrequency();
const double g_msPerTick = 1000.0 / static_cast<double>(g_counterFrequency);
const double g_100nsPerTick = 1e7 / static_cast<double>(g_counterFrequency);

// The local time at the performance-counter reading `counter`, to the millisecond as
// GetCurrentBlobTime gives it, with neither a second clock read nor the lock that the C
// library's local-time conversion takes. Each thread ties the counter to the wall clock
// once a second (so a step of the wall clock shows within a second), keeps the zone's
// offset for the current quarter hour of UTC (zones change offset only on such a boundary)
// and the civil date of the current local day, and asks the zone again when the quarter
// hour or the day runs out or the process's zone is replaced.
void LocalTimeAt(uint64_t counter, _blob_timestamp* out) {
    if (const detail::LatencyClock clock = g_testClock.load(std::memory_order_relaxed)) {
        clock(out);
        return;
    }
    constexpr uint64_t kQuarter = 900 * detail::kTicksPerSecond;
    struct Cache {
        uint64_t baseCounter = 0, retieAt = 0;  // counter readings
        uint64_t baseUtc = 0;                   // UTC at baseCounter
        uint64_t zoneFrom = 1, zoneTo = 0;      // [from, to) of UTC where `offset` holds
        int64_t offset = 0;
        uint64_t generation = ~uint64_t{0};
        int64_t day = INT64_MIN;
        uint16_t year = 0, month = 0, dayOfMonth = 0;
    };
    thread_local Cache c;
    const uint64_t generation = platform::TimeZoneGeneration();
    if (counter >= c.retieAt || counter < c.baseCounter || generation != c.generation) {
        c.baseCounter = counter;
        c.baseUtc = platform::SystemTime100ns();
        c.retieAt = counter + g_counterFrequency;
        if (generation != c.generation) c.zoneTo = 0;
        c.generation = generation;
    }
    const uint64_t utc =
        c.baseUtc +
        static_cast<uint64_t>(static_cast<double>(counter - c.baseCounter) * g_100nsPerTick);
    if (utc < c.zoneFrom || utc >= c.zoneTo) {
        uint64_t local = utc;
        if (!platform::UtcToLocal100ns(utc, &local)) local = utc;
        c.offset = static_cast<int64_t>(local - utc);
        c.zoneFrom = utc - utc % kQuarter;
        c.zoneTo = c.zoneFrom + kQuarter;
    }
    const uint64_t local = utc + static_cast<uint64_t>(c.offset);
    const int64_t day = static_cast<int64_t>(local / detail::kTicksPerDay) - detail::kDaysTo1970;
    if (day != c.day) {
        int64_t y, m, d;
        detail::CivilFromDays(day, &y, &m, &d);
        c.day = day;
        c.year = static_cast<uint16_t>(y);
        c.month = static_cast<uint16_t>(m);
        c.dayOfMonth = static_cast<uint16_t>(d);
    }
    const uint64_t ofDay = local % detail::kTicksPerDay;
    const uint64_t seconds = ofDay / detail::kTicksPerSecond;
    out->year = c.year;
    out->month = c.month;
    out->day = c.dayOfMonth;
    out->hour = static_cast<uint16_t>(seconds / 3600);
    out->minute = static_cast<uint16_t>(seconds / 60 % 60);
    out->second = static_cast<uint16_t>(seconds % 60);
    out->nanoseconds =
        static_cast<uint32_t>(ofDay % detail::kTicksPerSecond / detail::kTicksPerMs * 1000000);
}

const char* OrNull(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

namespace detail {
LatencyClock SetLatencyClockForTest(LatencyClock clock) {
    return g_testClock.exchange(clock, std::memory_order_acq_rel);
}
}  // namespace detail

LatencyTracker& LatencyTracker::Get() {
    static LatencyTracker tracker;
    return tracker;
}

LatencyTracker::LatencyTracker()
    : enabled_(0), pool_(nullptr), out_(nullptr), cs_(4000), head_(nullptr), tail_(nullptr) {}

LatencyTracker::~LatencyTracker() {
    Term();
}

bool LatencyTracker::Init(const char* path) {
    Term();
    HouseLockGuard guard(cs_);
    if (ExTlsAlloc(&slot_, this, &LatencyTracker::CleanupTls) && path != nullptr) {
        out_ = platform::OpenFileShared(path, "ab+");
        if (out_ != nullptr &&
            pool_.Init(sizeof(Record), 1000, 0xFFFFFFFFu) == blockalloc_success &&
            writer_.launch("LatencyTracker", [this] { WriteThread(); })) {
            enabled_.store(1, std::memory_order_relaxed);
            return true;
        }
    }
    Term();
    return false;
}

void LatencyTracker::Term() {
    enabled_.store(0, std::memory_order_relaxed);
    if (writer_.joinable()) (void)writer_.join_shutdown();
    HouseLockGuard guard(cs_);
    if (!slot_.IsEmpty()) {
        // The calling thread's key goes with the slot; an ending thread frees its own.
        delete static_cast<LatencyKey*>(ExTlsGet(&slot_));
        (void)ExTlsSet(&slot_, nullptr);
        (void)ExTlsFree(&slot_);
        slot_.Clear();
    }
    if (out_ != nullptr) {
        std::fflush(out_);
        std::fclose(out_);
        out_ = nullptr;
    }
    // Records the writer never saw (none unless a caller raced with Term) go with the pool.
    head_ = tail_ = nullptr;
    (void)pool_.Term();
}

void LatencyTracker::CleanupTls(void* tracker) {
    auto* self = static_cast<LatencyTracker*>(tracker);
    delete static_cast<LatencyKey*>(ExTlsGet(&self->slot_));
}

void LatencyTracker::SetKey(const char* key, uint64_t startCounter) {
    processKey_.key = key;
    processKey_.start.Start(startCounter);
}

void LatencyTracker::SetThreadKey(const char* key, uint64_t startCounter) {
    auto* record = static_cast<LatencyKey*>(ExTlsGet(&slot_));
    if (record == nullptr) {
        record = new LatencyKey();
        if (!ExTlsSet(&slot_, record)) {
            delete record;
            return;
        }
    }
    record->key = key;
    record->start.Start(startCounter);
}

LatencyTracker::LatencyKey* LatencyTracker::GetKey() {
    auto* record = static_cast<LatencyKey*>(ExTlsGet(&slot_));
    if (record != nullptr && record->key != nullptr) return record;
    if (processKey_.key != nullptr) return &processKey_;
    return record;
}

double LatencyTracker::GetCurrentLatency() {
    const LatencyKey* current = GetKey();
    return current != nullptr ? current->start.CMS_DOUBLE() : 0.0;
}

void LatencyTracker::AddLatencyStats(const char* key, uint64_t startCounter,
                                     const char* const label, const char* const file, int line,
                                     const char* function) {
    if (key == nullptr) return;
    Queue(key, SnapshotTimer(startCounter), label, file, line, function);
}

void LatencyTracker::AddLatencyStats(const char* const label, const char* const file, int line,
                                     const char* const function) {
    const LatencyKey* current = GetKey();
    if (current == nullptr || current->key == nullptr) return;
    Queue(current->key, current->start, label, file, line, function);
}

void LatencyTracker::Queue(const char* key, const SnapshotTimer& start, const char* label,
                           const char* file, int line, const char* function) {
    static_assert(sizeof(Record) == 136, "a record is one 136-byte block");
    auto* r = static_cast<Record*>(pool_.GetBlock());
    if (r == nullptr) return;  // not initialised
    // One counter reading serves the time of day and the latency.
    const uint64_t now = platform::MonotonicCounter();
    LocalTimeAt(now, &r->time);
    const size_t length = strnlen(key, sizeof r->key - 1);
    std::memcpy(r->key, key, length);
    r->key[length] = '\0';
    r->label = label;
    r->file = file;
    r->line = line;
    r->function = function;
    r->latencyMs =
        start.GetFrequency() == g_counterFrequency
            ? static_cast<double>(static_cast<int64_t>(now - start.GetCounter())) * g_msPerTick
            : start.CMS_DOUBLE();
    r->next = nullptr;
    detail::EnterHouse(cs_);
    if (tail_ == nullptr) tail_ = head_;  // a head alone acts as the tail
    if (tail_ != nullptr) {
        tail_->next = r;
        r->previous = tail_;
        tail_ = r;
    } else {
        r->previous = nullptr;
        head_ = tail_ = r;
    }
    cs_.Leave();
}

void LatencyTracker::WriteThread() {
    EventDetectorType* detector = GetCachedDetectorType();
    bool stop = false;
    (void)detector->Add(GetShutdownEvent(), [&stop] { stop = true; });
    char line[1024];
    while (!stop) {
        detector->waiting.store(1, std::memory_order_release);
        (void)detector->Wait(250);
        detector->waiting.store(0, std::memory_order_release);
        detail::EnterHouse(cs_);
        Record* r = head_;
        head_ = tail_ = nullptr;
        cs_.Leave();
        const bool any = r != nullptr;
        while (r != nullptr) {
            Record* next = r->next;
            const int n =
                std::snprintf(line, sizeof line, "%-2.2i:%-2.2i:%-2.2i, %s, %s, %i, %s, %s, %f\r\n",
                              r->time.hour, r->time.minute, r->time.second, r->key, OrNull(r->file),
                              r->line, OrNull(r->function), OrNull(r->label), r->latencyMs);
            if (n > 0)
                std::fwrite(
                    line, 1,
                    n < static_cast<int>(sizeof line) ? static_cast<size_t>(n) : sizeof line - 1,
                    out_);
            (void)pool_.ReleaseBlock(r);
            r = next;
        }
        if (any) std::fflush(out_);
    }
    detector->Clear();
    ReturnToCache(detector);
}

}  // namespace TOLVEN
