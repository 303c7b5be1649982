#include "tolven/event.h"

#include <algorithm>
#include <chrono>

#include "platform/atomic.h"
#include "platform/thread.h"
#include "tolven/quicklock.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {

// ---- Event ----------------------------------------------------------------------------

void Event::LockList() noexcept {
    if (noLock != 0) return;
    uint32_t expected = 0;
    if (spin.load(std::memory_order_relaxed) != 1 &&
        spin.compare_exchange_strong(expected, 1, std::memory_order_acquire))
        return;
    // The holder may be a signaller pre-empted inside a detector's notify; after a short
    // spin, give it the processor instead of burning the time slice.
    for (uint32_t tries = 0;; ++tries) {
        expected = 0;
        if (spin.compare_exchange_weak(expected, 1, std::memory_order_acquire)) return;
        if (tries < 128) {
            platform::CpuRelax();
        } else {
            platform::YieldThread();
        }
    }
}

void Event::UnlockList() noexcept {
    if (noLock == 0) spin.store(0, std::memory_order_release);
}

void Event::MakeValid(bool autoResetFlag) noexcept {
    autoReset = autoResetFlag ? 1 : 0;
    valid = 1;
}

event_status Event::Set() {
    if (valid == 0) return event_invalid;
    if (signalled.exchange(1, std::memory_order_seq_cst) == 1) return event_success;
    // Nobody registered: the exchange above was the whole job. A detector added later
    // scans the signalled word before it parks, so it cannot miss this signal.
    if (listeners_.load(std::memory_order_seq_cst) == 0) return event_success;
    if (EnforceUserMode()) return event_success;
    LockList();
    if (detector != nullptr && notify != nullptr) notify({detector, this, 0});
    for (auto& entry : moreDetectors)
        entry.second({entry.first, this, 0});
    UnlockList();
    return event_success;
}

event_status Event::AddDetector(EventDetectorType* d, EventNotifyFn fn) {
    LockList();
    if (valid == 0) {
        UnlockList();
        return event_invalid;
    }
    if (detector == nullptr) {
        detector = d;
        notify = fn;
    } else {
        moreDetectors.emplace_back(d, fn);
    }
    listeners_.fetch_add(1, std::memory_order_seq_cst);
    UnlockList();
    return event_success;
}

event_status Event::RemoveDetector(EventDetectorType* d) {
    LockList();
    if (detector == d && detector != nullptr) {
        detector = nullptr;
        notify = nullptr;
        listeners_.fetch_sub(1, std::memory_order_seq_cst);
    } else {
        auto it = std::find_if(moreDetectors.begin(), moreDetectors.end(),
                               [d](const auto& e) { return e.first == d; });
        if (it != moreDetectors.end()) {
            moreDetectors.erase(it);
            listeners_.fetch_sub(1, std::memory_order_seq_cst);
        }
    }
    UnlockList();
    return event_success;
}

// ---- EventDetectorType ----------------------------------------------------------------

EventDetectorType::EventDetectorType() : EventDetectorType(DetectorOptions()) {}

EventDetectorType::EventDetectorType(const DetectorOptions& options)
    : options_(options), notify_(&EventDetectorType::Notify) {}

EventDetectorType::~EventDetectorType() {
    Clear();
}

event_status EventDetectorType::Add(Event* event, std::function<void()> callback) {
    if (event == nullptr) return event_bad_argument;
    if (count_ + 1 >= kMaxEntries) return event_full;
    const event_status st = event->AddDetector(this, notify_);
    if (st != event_success) return st;
    Entry& e = entries_[count_];
    e.event = event;
    e.callback = std::move(callback);
    ++count_;
    return event_success;
}

void EventDetectorType::Clear() {
    for (int32_t i = 0; i < count_; ++i) {
        Entry& e = entries_[i];
        if (e.event != nullptr) (void)e.event->RemoveDetector(this);
        e.event = nullptr;
        e.lastFiredMs = 0;
        e.periodMs = 0;
        e.callback = nullptr;
    }
    count_ = 0;
}

void EventDetectorType::Notify(const EventNotifyRecord& record) {
    EventDetectorType* d = record.detector;
    if (record.onlyIfWaiting != 0 && d->waiting.load(std::memory_order_acquire) != 1) return;
    if (d->options_.spinThread || d->options_.enforceUserMode) return;
    std::unique_lock<std::mutex> lock(d->mutex_);
    if (d->notified_ == 0) {
        d->notified_ = 1;
        lock.unlock();
        d->cond_.notify_all();
    }
}

bool EventDetectorType::Scan(uint32_t* timeoutMs) {
    bool fired = false;
    for (int32_t i = 0; i < count_; ++i) {
        Entry& e = entries_[i];
        if (e.event != nullptr) {
            if (e.event->signalled.load(std::memory_order_acquire) != 1) continue;
            // An auto-reset signal is consumed by exactly one scan, even across detectors.
            if (e.event->autoReset != 0 &&
                e.event->signalled.exchange(0, std::memory_order_acq_rel) != 1)
                continue;
            if (e.callback) e.callback();
            fired = true;
        } else if (e.callback) {
            // A periodic entry: fires when its period has passed since the last firing.
            const uint32_t now = OrrelTickCounter::Instance()->GetTicks();
            const uint32_t elapsed = now - e.lastFiredMs;
            if (elapsed <= e.periodMs) {
                if (timeoutMs != nullptr && elapsed > *timeoutMs) *timeoutMs = elapsed;
            } else {
                e.callback();
                e.lastFiredMs = now;
                fired = true;
            }
        }
    }
    return fired;
}

event_status EventDetectorType::Wait(uint32_t timeoutMs) {
    if (count_ == 0) return event_no_events;
    if (Scan(&timeoutMs)) return event_success;

    OrrelTickCounter* ticks = OrrelTickCounter::Instance();
    const uint64_t start = ticks->GetTicks64();
    auto elapsed = [&] { return ticks->GetTicks64() - start; };

    if (options_.spinThread) {
        for (;;) {
            if (Scan(&timeoutMs)) return event_success;
            if (options_.pause) platform::CpuRelax();
            if (timeoutMs != kInfinite && elapsed() >= timeoutMs) return event_timeout;
        }
    }

    std::unique_lock<std::mutex> lock(mutex_);
    if (Scan(&timeoutMs)) return event_success;
    notified_ = 0;
    auto isNotified = [this] { return notified_ > 0; };
    const uint32_t lazy = std::max<uint32_t>(options_.lazyCheckInterval, 1);

    if (timeoutMs == kInfinite || timeoutMs >= lazy) {
        for (;;) {
            // Each chunk is capped at the time that remains, so a waiter never sleeps past
            // its own time-out because of the look interval.
            uint64_t chunk = lazy;
            if (timeoutMs != kInfinite) {
                const uint64_t gone = elapsed();
                chunk = gone >= timeoutMs ? 0 : std::min<uint64_t>(lazy, timeoutMs - gone);
            }
            if (cond_.wait_for(lock, std::chrono::milliseconds(chunk), isNotified)) break;
            if (Scan(&timeoutMs)) return event_success;
            if (timeoutMs != kInfinite && elapsed() >= timeoutMs) return event_timeout;
        }
    } else {
        if (!cond_.wait_for(lock, std::chrono::milliseconds(timeoutMs), isNotified))
            return event_timeout;
    }
    notified_ = 0;
    lock.unlock();
    (void)Scan(&timeoutMs);
    return event_success;
}

}  // namespace TOLVEN

extern "C" bool atomic_cas2(void* target, const uint64_t words[4]) {
    return TOLVEN::platform::CompareExchange16(target, words[3], words[1], words[0], words[2]);
}
