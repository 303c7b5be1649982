#include "log/LogRing.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>

#include "platform/thread.h"
#include "tolven/baseallocator.h"
#include "tolven/quicklock.h"

namespace TOLVEN::detail {
namespace {
constexpr uint32_t kClaimed = 0xFFFFFFFFu;  // pendingRead while a peek is working
}  // namespace

LogRing::LogRing(const char* name) {
    if (name != nullptr) {
        // Names of the ring's two shared objects, kept for a ring shared between
        // processes. This ring stays in its process, so they are not used further.
        char lockName[260];
        char unlockName[260];
        std::snprintf(lockName, sizeof(lockName), "%s_lp", name);
        std::snprintf(unlockName, sizeof(unlockName), "%s_lu", name);
    }
}

LogRing::~LogRing() {
    Destroy();
}

bool LogRing::Create(uint32_t capacity, uint32_t capacityLimit) {
    if (data_ != nullptr) return false;
    uint64_t actual = 0;
    void* memory = Allocate(static_cast<uint64_t>(capacity) + kControlBytes, &actual);
    if (memory == nullptr) return false;
    uint64_t usable = actual - kControlBytes;
    if (usable > 0xFFFFFFF0u) usable = 0xFFFFFFF0u;
    if (capacityLimit != 0 && usable > capacityLimit) usable = capacityLimit;
    control_ = new (memory) RingControl;
    capacity_ = static_cast<uint32_t>(usable);
    control_->writeOffset.store(0, std::memory_order_relaxed);
    control_->readOffset.store(capacity_, std::memory_order_relaxed);
    control_->writersWaiting.store(0, std::memory_order_relaxed);
    control_->readersWaiting.store(0, std::memory_order_relaxed);
    control_->capacity = capacity_;
    data_ = static_cast<uint8_t*>(memory) + kControlBytes;
    pendingWrite_ = 0;
    pendingRead_.store(0, std::memory_order_relaxed);
    cachedRead_ = capacity_;
    cachedWrite_ = 0;
    freedSinceWake_ = 0;
    return true;
}

void LogRing::Destroy() {
    if (control_ == nullptr) return;
    void* memory = control_;
    control_->~RingControl();
    control_ = nullptr;
    data_ = nullptr;
    capacity_ = 0;
    pendingWrite_ = 0;
    pendingRead_.store(0, std::memory_order_relaxed);
    (void)FreeAllocation(memory);
}

bool LogRing::Plan(uint64_t w, uint64_t r, uint32_t length, uint64_t* reservation) const noexcept {
    const uint64_t c = capacity_;
    const uint64_t need = static_cast<uint64_t>(length) + 4;
    if (w > r) {
        // Free: the tail from w, and the start up to r.
        const uint64_t tail = c - w;
        if (r + tail < need) return false;
        if (tail >= need) {
            *reservation = need;
            return true;
        }
        // The entry may not be split: it moves to the start, behind a wrap marker.
        *reservation = tail + 4 + length + (tail < 4 ? 4 - tail : 0);
        return r + tail >= *reservation;
    }
    if (w == r) return false;
    *reservation = need;
    return w + need < r;
}

ring_status LogRing::Reserve(uint32_t length, uint8_t** payload) noexcept {
    if (data_ == nullptr) return ring_status::not_created;
    if (pendingWrite_ != 0) return ring_status::busy;
    const uint64_t c = capacity_;
    if (static_cast<uint64_t>(length) + 4 >= c) return ring_status::too_large;
    const uint64_t w = control_->writeOffset.load(std::memory_order_relaxed);
    uint64_t reservation;
    if (!Plan(w, cachedRead_, length, &reservation)) {
        cachedRead_ = control_->readOffset.load(std::memory_order_seq_cst);
        if (!Plan(w, cachedRead_, length, &reservation)) return ring_status::full;
    }
    uint64_t at;
    const uint64_t tail = c - w;
    if (reservation == static_cast<uint64_t>(length) + 4 && tail >= reservation) {
        std::memcpy(data_ + w, &length, 4);
        at = w + 4;
    } else {
        // The marker's first bytes fill what the tail has of them, the rest open the data
        // area; the real length and the payload follow there.
        static constexpr uint8_t marker[4] = {0xFF, 0xFF, 0xFF, 0xFF};
        const uint64_t inTail = std::min<uint64_t>(tail, 4);
        std::memcpy(data_ + w, marker, inTail);
        std::memcpy(data_, marker + inTail, 4 - inTail);
        std::memcpy(data_ + (4 - inTail), &length, 4);
        at = 4 - inTail + 4;
    }
    pendingWrite_ = static_cast<uint32_t>(reservation);
    *payload = data_ + at;
    return ring_status::ok;
}

void LogRing::CommitWrite() noexcept {
    if (pendingWrite_ == 0 || data_ == nullptr) return;
    const uint64_t c = capacity_;
    const uint64_t w = control_->writeOffset.load(std::memory_order_relaxed);
    // Within the tail the offset moves by the reservation; a reservation that reaches into
    // the start leaves it at the part that lies there; the end itself is 0.
    const uint64_t tail = c - w;
    uint64_t next = pendingWrite_ <= tail ? w + pendingWrite_ : pendingWrite_ - tail;
    if (next >= c) next = 0;
    control_->writeOffset.store(static_cast<uint32_t>(next), std::memory_order_seq_cst);
    pendingWrite_ = 0;
}

ring_status LogRing::Peek(const uint8_t** payload, uint32_t* length, bool look) noexcept {
    if (data_ == nullptr) return ring_status::not_created;
    // There is one reader at a time, so a plain look at the open reservation is enough.
    if (pendingRead_.load(std::memory_order_relaxed) != 0) return ring_status::busy;
    pendingRead_.store(kClaimed, std::memory_order_relaxed);
    const uint64_t c = capacity_;
    uint64_t r = static_cast<uint64_t>(control_->readOffset.load(std::memory_order_relaxed)) + 1;
    if (r >= c) r = 0;
    if (r == cachedWrite_) {
        if (look) cachedWrite_ = control_->writeOffset.load(std::memory_order_seq_cst);
        if (r == cachedWrite_) {
            pendingRead_.store(0, std::memory_order_release);
            return ring_status::empty;
        }
    }
    // The length may be a marker cut by the end of the data area: join its two parts.
    const uint64_t tail = c - r;
    uint8_t raw[4];
    const uint64_t inTail = std::min<uint64_t>(tail, 4);
    std::memcpy(raw, data_ + r, inTail);
    std::memcpy(raw + inTail, data_, 4 - inTail);
    uint32_t value;
    std::memcpy(&value, raw, 4);
    uint64_t at;
    uint64_t reservation;
    if (value != kWrapMarker) {
        at = r + 4;
        reservation = static_cast<uint64_t>(value) + 4;
    } else {
        // The real length stands at the start, behind the marker's remaining bytes.
        const uint64_t rest = 4 - inTail;
        std::memcpy(&value, data_ + rest, 4);
        at = rest + 4;
        reservation = tail + rest + 4 + value;
    }
    readStart_ = static_cast<uint32_t>(r);
    pendingRead_.store(static_cast<uint32_t>(reservation), std::memory_order_relaxed);
    *payload = data_ + at;
    *length = value;
    return ring_status::ok;
}

void LogRing::CommitRead() noexcept {
    const uint64_t reservation = pendingRead_.load(std::memory_order_relaxed);
    if (reservation == 0 || reservation == kClaimed || data_ == nullptr) return;
    const uint64_t c = capacity_;
    const uint64_t r = readStart_;
    // An entry that ends within the tail leaves the offset on its last byte; one that
    // reaches into the start leaves it on the last byte of the part there.
    const uint64_t first = std::min(c - r, reservation);
    const uint64_t last = reservation <= c - r ? r + first - 1 : reservation - first - 1;
    control_->readOffset.store(static_cast<uint32_t>(last), std::memory_order_release);
    freedSinceWake_ += reservation;
    pendingRead_.store(0, std::memory_order_release);
}

void LogRing::WakeWriters(bool now) noexcept {
    if (control_ == nullptr) return;
    if (!now && freedSinceWake_ < capacity_ / 8) return;
    freedSinceWake_ = 0;
    // Republishes the reader's offset in the single order of the waiter count: a writer
    // counts itself before it looks at the offset, so one of the two sees the other.
    (void)control_->readOffset.fetch_add(0, std::memory_order_seq_cst);
    if (control_->writersWaiting.load(std::memory_order_seq_cst) > 0 &&
        control_->writersWaiting.exchange(0, std::memory_order_seq_cst) > 0)
        (void)spaceEvent_.Set();
}

ring_status LogRing::AcquireWrite(uint32_t length, uint8_t** payload, bool mayWait) noexcept {
    EnterHouse(writerLock_);
    ring_status st = Reserve(length, payload);
    if (st == ring_status::full) {
        // Say that a writer waits, then look once more: room made between the two looks
        // is seen here, and room made after the count is announced by the space event.
        control_->writersWaiting.fetch_add(1, std::memory_order_seq_cst);
        st = Reserve(length, payload);
    }
    if (st != ring_status::full) {
        if (st != ring_status::ok) writerLock_.Leave();
        return st;
    }
    writerLock_.Leave();
    if (!mayWait) return st;
    // A running reader makes room within microseconds: look again for a while before
    // going to sleep, since a sleep and a wake cost more than the wait.
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(20);
    for (int round = 1;; ++round) {
        for (int i = 0; i < 32; ++i)
            platform::CpuRelax();
        // On a busy machine the reader may wait for this very processor.
        if (round % 8 == 0) platform::YieldThread();
        EnterHouse(writerLock_);
        st = Reserve(length, payload);
        if (st != ring_status::full) {
            if (st != ring_status::ok) writerLock_.Leave();
            return st;
        }
        writerLock_.Leave();
        if (std::chrono::steady_clock::now() >= until) break;
    }
    return BlockingReserve(length, payload);
}

ring_status LogRing::BlockingReserve(uint32_t length, uint8_t** payload) noexcept {
    blocked_.fetch_add(1, std::memory_order_relaxed);
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(&spaceEvent_);
    ring_status st;
    for (;;) {
        (void)detector->Wait(kInfinite);
        EnterHouse(writerLock_);
        st = Reserve(length, payload);
        if (st == ring_status::full) {
            control_->writersWaiting.fetch_add(1, std::memory_order_seq_cst);
            st = Reserve(length, payload);
        }
        if (st != ring_status::full) break;
        writerLock_.Leave();
    }
    // Pass the wake on: another writer may wait for the same room, or for the news that
    // the ring is gone.
    (void)spaceEvent_.Set();
    if (st != ring_status::ok) writerLock_.Leave();
    detector->Clear();
    ReturnToCache(detector);
    return st;
}

void LogRing::ReleaseWrite() noexcept {
    CommitWrite();
    // The count is read while the lock still keeps the ring alive. A reader that has not
    // announced a sleep costs a plain load here.
    const bool wake = control_ != nullptr &&
                      control_->readersWaiting.load(std::memory_order_seq_cst) > 0 &&
                      control_->readersWaiting.exchange(0, std::memory_order_seq_cst) > 0;
    writerLock_.Leave();
    if (wake) (void)dataEvent_.Set();
}

}  // namespace TOLVEN::detail
