#include "tolven/snapshottimer.h"

#include <cstdio>
#include <mutex>

#include "platform/clock.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {

_LARGE_INTEGER SnapshotTimer::m_liTimerFrequency{0};
_LARGE_INTEGER RdtscTimer::m_liTimerFrequency{0};

namespace detail {

void EnsureSnapshotFrequency() noexcept {
    // Every writer stores the same value.
    __atomic_store_n(&SnapshotTimer::m_liTimerFrequency.QuadPart,
                     static_cast<int64_t>(platform::MonotonicFrequency()), __ATOMIC_RELAXED);
}

uint64_t ReadSnapshotCounter() noexcept {
    if (SnapshotTimer::LoadFrequency() != 0) return platform::MonotonicCounter();
    return static_cast<uint32_t>(GetTickCount64Ms());
}

}  // namespace detail

namespace {
// Milliseconds per counter tick: a multiplication instead of a division on every reading.
const double g_msPerTick = 1000.0 / static_cast<double>(platform::MonotonicFrequency());

// Milliseconds from `counter` to now, as a double, by the frequency or the tick counter.
double ElapsedMs(uint64_t counter, int64_t frequency) {
    const uint64_t now = detail::ReadSnapshotCounter();
    if (frequency == 0)
        return static_cast<double>(static_cast<uint32_t>(now) - static_cast<uint32_t>(counter));
    return static_cast<double>(static_cast<int64_t>(now - counter)) * g_msPerTick;
}
}  // namespace

double SnapshotTimer::CMS_DOUBLE() const noexcept {
    return ElapsedMs(counter_, LoadFrequency());
}

uint32_t SnapshotTimer::CMS_DWORD() const noexcept {
    return static_cast<uint32_t>(static_cast<int64_t>(CMS_DOUBLE()));
}

uint64_t SnapshotTimer::CMS_CSUI64() const noexcept {
    const int64_t frequency = LoadFrequency();
    const uint64_t now = detail::ReadSnapshotCounter();
    if (frequency == 0) return static_cast<uint32_t>(now) - static_cast<uint32_t>(counter_);
    return (now - counter_) / ((static_cast<uint64_t>(frequency) + 500) / 1000);
}

double SnapshotTimer::CMS_DOUBLE_START() const noexcept {
    const int64_t frequency = LoadFrequency();
    if (frequency == 0) return static_cast<double>(counter_);
    return static_cast<double>(counter_) / static_cast<double>(frequency) * 1000.0;
}

namespace {
// Time-stamp-counter ticks per second, measured once over two milliseconds of the
// performance counter, so that the printed figures are milliseconds.
void MeasureRdtscFrequency() {
    static std::once_flag once;
    std::call_once(once, [] {
        const uint64_t perSecond = platform::MonotonicFrequency();
        const uint64_t c0 = platform::MonotonicCounter();
        const uint64_t t0 = __builtin_ia32_rdtsc();
        uint64_t c1, t1;
        do {
            c1 = platform::MonotonicCounter();
            t1 = __builtin_ia32_rdtsc();
        } while (c1 - c0 < perSecond / 500);
        const double hz = static_cast<double>(t1 - t0) * static_cast<double>(perSecond) /
                          static_cast<double>(c1 - c0);
        __atomic_store_n(&RdtscTimer::m_liTimerFrequency.QuadPart,
                         hz >= 1.0 ? static_cast<int64_t>(hz) : int64_t{1}, __ATOMIC_RELEASE);
    });
}
}  // namespace

RdtscTimer::RdtscTimer() noexcept : start_(0) {
    try {
        MeasureRdtscFrequency();
    } catch (...) {
        // call_once can only fail to start a thread-safe init; the frequency stays 0 and
        // PublishResults says so.
    }
}

RdtscTimer::RdtscTimer(bool start) : RdtscTimer() {
    if (start) Start(100);
}

void RdtscTimer::Grow() {
    const size_t capacity = results_.capacity();
    results_.reserve(capacity + (capacity / 2 > 0 ? capacity / 2 : 1));
}

void RdtscTimer::PublishResults(const char* title) const {
    if (title != nullptr) std::printf("start - %s\n", title);
    const double frequency =
        static_cast<double>(__atomic_load_n(&m_liTimerFrequency.QuadPart, __ATOMIC_ACQUIRE));
    for (const _LARGE_INTEGER& stamp : results_) {
        const double ticks = static_cast<double>(
            static_cast<int64_t>(static_cast<uint64_t>(stamp.QuadPart) - start_));
        std::printf("%f\n", frequency > 0 ? ticks / frequency * 1000.0 : 0.0);
    }
    if (title != nullptr) std::printf("end - %s\n", title);
}

bool hptimestamp(cp_timeval& out) {
    uint64_t fileTime = 0;
    if (!platform::PreciseFileTime(&fileTime)) return false;
    const uint64_t micros = (fileTime - 116444736000000000ull) / 10;
    out.seconds = static_cast<uint32_t>(micros / 1000000);
    out.microseconds = static_cast<uint32_t>(micros % 1000000);
    return true;
}

}  // namespace TOLVEN
