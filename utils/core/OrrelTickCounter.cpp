#include "tolven/tickcounter.h"

#include <atomic>

#include "platform/clock.h"
#include "platform/thread.h"

namespace TOLVEN {
namespace {
std::atomic<OrrelTickCounter*> g_instance{nullptr};
std::atomic<uint32_t> g_buildLock{0};
}  // namespace

OrrelTickCounter::OrrelTickCounter() noexcept
    : frequency_(static_cast<int64_t>(platform::MonotonicFrequency())),
      start_(static_cast<int64_t>(platform::MonotonicCounter())) {}

OrrelTickCounter* OrrelTickCounter::Instance() {
    OrrelTickCounter* p = g_instance.load(std::memory_order_acquire);
    return p != nullptr ? p : BuildTickCounter();
}

// Built under a private spin lock that sleeps between tries; the instance is never freed,
// so threads that outlive static destruction can still read it.
OrrelTickCounter* OrrelTickCounter::BuildTickCounter() {
    uint32_t expected = 0;
    while (!g_buildLock.compare_exchange_strong(expected, 1, std::memory_order_acquire)) {
        expected = 0;
        platform::SleepMs(100);
    }
    OrrelTickCounter* p = g_instance.load(std::memory_order_relaxed);
    if (p == nullptr) {
        p = new OrrelTickCounter();
        g_instance.store(p, std::memory_order_release);
    }
    g_buildLock.fetch_sub(1, std::memory_order_release);
    return p;
}

uint64_t OrrelTickCounter::GetTicks64() const noexcept {
    const int64_t now = static_cast<int64_t>(platform::MonotonicCounter());
    return static_cast<uint64_t>(static_cast<double>(now - start_) /
                                 static_cast<double>(frequency_) * 1000.0);
}

uint64_t GetTickCount64Ms() {
    return OrrelTickCounter::Instance()->GetTicks64();
}

}  // namespace TOLVEN
