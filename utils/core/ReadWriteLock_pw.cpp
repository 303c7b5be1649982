// Read/write lock over a table of reader threads, with writer priority.
//
// `lock` guards every counter and the table. It is a leaf lock: it is never held across a
// wait, and events are set only after it is left. Blocked readers wait on the manual-reset
// readEvent, blocked writers on the auto-reset writeEvent.
#include "platform/thread.h"
#include "tolven/quicklock.h"
#include "tolven/rwlock.h"
#include "tolven/tickcounter.h"

namespace TOLVEN {

ReadWriteLock_pw::ReadWriteLock_pw() : ReadWriteLock_pw(4000) {}

ReadWriteLock_pw::ReadWriteLock_pw(uint32_t spin) : lock(spin) {
    slots.resize(10);
}

ReadWriteLock_pw::~ReadWriteLock_pw() = default;

bool ReadWriteLock_pw::AddReader(uint32_t threadId) {
    // A thread that already reads goes in again, even past a waiting writer.
    for (int32_t i = 0; i < slotCount; ++i) {
        if (slots[static_cast<std::size_t>(i)].threadId == threadId) {
            ++slots[static_cast<std::size_t>(i)].count;
            return true;
        }
    }
    // Writers go first; only the writer itself may read while one holds or waits.
    if ((writerCount != 0 || waitingWriters != 0) && writerThread != threadId) return false;
    ThreadData* td = GetEmptyReadSlot();
    td->threadId = threadId;
    td->count = 1;
    return true;
}

ReadWriteLock_pw::ThreadData* ReadWriteLock_pw::GetEmptyReadSlot(void) {
    for (int32_t i = 0; i < slotCount; ++i) {
        if (slots[static_cast<std::size_t>(i)].threadId == 0)
            return &slots[static_cast<std::size_t>(i)];
    }
    if (static_cast<std::size_t>(slotCount) == slots.size()) slots.resize(slots.size() + 1);
    return &slots[static_cast<std::size_t>(slotCount++)];
}

bool ReadWriteLock_pw::AddWriter(uint32_t threadId) {
    if (writerThread != 0) {
        if (writerThread != threadId) return false;
        ++writerCount;
        return true;
    }
    // Any reader, the caller included, keeps a writer out: a read lock cannot be upgraded.
    if (slotCount != 0) return false;
    writerCount = 1;
    writerThread = threadId;
    return true;
}

rwl_status ReadWriteLock_pw::LockReader(unsigned int timeoutMs) {
    const uint32_t self = platform::CurrentThreadId();
    detail::EnterHouse(lock);
    if (AddReader(self)) {
        lock.Leave();
        return rwl_success;
    }
    ++waitingReaders;
    lock.Leave();
    return WaitTurn(true, self, timeoutMs);
}

rwl_status ReadWriteLock_pw::UnlockReader(void) {
    const uint32_t self = platform::CurrentThreadId();
    detail::EnterHouse(lock);
    int32_t found = -1;
    for (int32_t i = 0; i < slotCount; ++i) {
        if (slots[static_cast<std::size_t>(i)].threadId == self) {
            found = i;
            break;
        }
    }
    if (found < 0) {
        lock.Leave();
        return rwl_not_locked;
    }
    ThreadData& td = slots[static_cast<std::size_t>(found)];
    if (--td.count == 0) {
        td.threadId = 0;
        // Trailing empty slots go; an empty slot in the middle stays for the next reader.
        if (found == slotCount - 1) {
            while (slotCount > 0 && slots[static_cast<std::size_t>(slotCount - 1)].threadId == 0)
                --slotCount;
        }
    }
    const bool wakeWriter = slotCount == 0 && waitingWriters > 0;
    lock.Leave();
    if (wakeWriter) (void)writeEvent.Set();
    return rwl_success;
}

rwl_status ReadWriteLock_pw::LockWriter(unsigned int timeoutMs) {
    return LockWriterImpl(timeoutMs, false);
}

rwl_status ReadWriteLock_pw::TryLockWriter(void) {
    return LockWriterImpl(0, true);
}

rwl_status ReadWriteLock_pw::LockWriterImpl(unsigned int timeoutMs, bool tryOnly) {
    const uint32_t self = platform::CurrentThreadId();
    detail::EnterHouse(lock);
    if (tryOnly && writerThread != 0) {
        lock.Leave();
        return rwl_busy;
    }
    if (AddWriter(self)) {
        lock.Leave();
        return rwl_success;
    }
    ++waitingWriters;
    lock.Leave();
    return WaitTurn(false, self, timeoutMs);
}

rwl_status ReadWriteLock_pw::UnlockWriter(void) {
    const uint32_t self = platform::CurrentThreadId();
    detail::EnterHouse(lock);
    if (writerCount < 1 || writerThread != self) {
        lock.Leave();
        return rwl_not_locked;
    }
    Event* wake = nullptr;
    if (--writerCount == 0) {
        writerThread = 0;
        // Writers go first.
        if (waitingWriters >= 1)
            wake = &writeEvent;
        else if (waitingReaders > 0)
            wake = &readEvent;
    }
    lock.Leave();
    if (wake != nullptr) (void)wake->Set();
    return rwl_success;
}

namespace {
// Looks at the event this many times before parking. A reader or writer usually holds the
// lock for a few hundred nanoseconds, so most hand-overs end here without a kernel call.
constexpr uint32_t kSpinBeforePark = 100;

// Spins on the event's word; true when it fired (an auto-reset signal is consumed, exactly
// as a detector's scan would).
bool SpinOn(Event& event) {
    for (uint32_t i = 0; i < kSpinBeforePark; ++i) {
        if (event.signalled.load(std::memory_order_acquire) == 1) {
            if (event.autoReset == 0 || event.signalled.exchange(0, std::memory_order_acq_rel) == 1)
                return true;
        }
        platform::CpuRelax();
    }
    return false;
}
}  // namespace

rwl_status ReadWriteLock_pw::WaitTurn(bool reader, uint32_t self, unsigned int timeoutMs) {
    Event& event = reader ? readEvent : writeEvent;
    OrrelTickCounter* ticks = OrrelTickCounter::Instance();
    const uint32_t start = ticks->GetTicks();
    // Taken from the thread's cache only when a short spin did not see the event fire.
    EventDetectorType* detector = nullptr;

    // Leaves the waiting count. A writer that gives up may be the last thing that kept new
    // readers out; with no writer left, those readers are woken so they do not sleep on.
    auto stopWaiting = [&]() -> bool {
        if (reader) {
            --waitingReaders;
            return false;
        }
        --waitingWriters;
        return waitingWriters == 0 && writerCount == 0 && waitingReaders > 0;
    };

    uint32_t remaining = timeoutMs;
    rwl_status result = rwl_success;
    bool wakeReaders = false;
    for (;;) {
        event_status st = event_success;
        if (remaining == 0 || !SpinOn(event)) {
            if (detector == nullptr) {
                detector = GetCachedDetectorType();
                (void)detector->Add(&event, {});
            }
            detector->waiting.store(1, std::memory_order_release);
            st = detector->Wait(remaining);
            detector->waiting.store(0, std::memory_order_release);
        }
        if (st == event_timeout) {
            detail::EnterHouse(lock);
            wakeReaders = stopWaiting();
            lock.Leave();
            result = rwl_timeout;
            break;
        }
        if (st != event_success) continue;

        detail::EnterHouse(lock);
        if (reader ? AddReader(self) : AddWriter(self)) {
            if (reader) {
                if (--waitingReaders == 0) readEvent.Reset();
            } else {
                --waitingWriters;
            }
            lock.Leave();
            break;
        }
        // Someone else got in first. The manual-reset readEvent is cleared under the lock,
        // so the next writer's release sets it afresh.
        if (reader) readEvent.Reset();
        if (remaining != kInfinite) {
            // Each pass takes off the whole time since the first wait: a contended wait may
            // end early, never late.
            const uint32_t next = remaining - (ticks->GetTicks() - start);
            if (next > remaining) {
                wakeReaders = stopWaiting();
                lock.Leave();
                result = rwl_timeout;
                break;
            }
            remaining = next;
        }
        lock.Leave();
    }
    if (wakeReaders) (void)readEvent.Set();
    if (detector != nullptr) {
        detector->Clear();
        ReturnToCache(detector);
    }
    return result;
}

uint32_t ReadWriteLock_pw::WaitingReaders() const {
    detail::EnterHouse(lock);
    const uint32_t n = waitingReaders;
    lock.Leave();
    return n;
}

int32_t ReadWriteLock_pw::WaitingWriters() const {
    detail::EnterHouse(lock);
    const int32_t n = waitingWriters;
    lock.Leave();
    return n;
}

int32_t ReadWriteLock_pw::SlotCount() const {
    detail::EnterHouse(lock);
    const int32_t n = slotCount;
    lock.Leave();
    return n;
}

}  // namespace TOLVEN
