// The byte ring between the producers of log messages and the log thread.
//
// An entry is a 4-byte payload length followed by the payload, stored contiguously. An
// entry that does not fit in the tail of the data area moves to its start: a wrap marker
// (0xFFFFFFFF) stands in the length position at the old write offset, and the real length
// and the payload follow at the start. When fewer than 4 bytes remain in the tail the
// marker itself is cut in two: its first bytes fill the tail and the rest open the data
// area, ahead of the real length.
//
// writeOffset is the next byte to write and readOffset the last byte consumed, so one byte
// always separates the writer from unread data: offsets equal means full, and the reader's
// next byte (readOffset + 1, or 0 past the end) equal to writeOffset means empty.
//
// Writers are serialised by the writer lock; there is one reader at a time. Reserve and
// CommitWrite need the writer lock held; Peek and CommitRead belong to the reader.
// AcquireWrite and ReleaseWrite wrap the writer's side with the lock and the wake-ups.
//
// Each side keeps a copy of the other side's offset and reads the real one only when its
// copy says full (writer) or empty (reader); an older offset only ever understates the
// room or the data. The two offsets and the waiter counts live on separate cache lines,
// so that a producer and the reader do not write to the same line for every entry.
#pragma once

#include <atomic>
#include <cstdint>

#include "tolven/detail/critical_section.h"
#include "tolven/event.h"

namespace TOLVEN::detail {

enum class ring_status : uint32_t {
    ok = 0,
    full,         // no room now
    empty,        // nothing to read
    too_large,    // the entry can never fit
    busy,         // a reservation is open on that side
    not_created,  // the ring has no memory
};

// The control block in front of the data area, one cache line per writer of it.
struct RingControl {
    alignas(64) std::atomic<uint32_t> writeOffset;  // written by producers
    alignas(64) std::atomic<uint32_t> readOffset;   // written by the reader
    alignas(64) std::atomic<uint32_t> writersWaiting;
    std::atomic<uint32_t> readersWaiting;
    uint32_t capacity;
};
static_assert(sizeof(RingControl) == 192, "the control block is three cache lines");

// Safe for many writers under the writer lock and one reader at a time; Create and Destroy
// need the writer lock and no reader.
class alignas(64) LogRing {
  public:
    static constexpr uint32_t kControlBytes = sizeof(RingControl);
    static constexpr uint32_t kWrapMarker = 0xFFFFFFFFu;

    // A ring without memory. A named ring formats its two object names ("%s_lp", "%s_lu").
    explicit LogRing(const char* name = nullptr);
    ~LogRing();
    LogRing(const LogRing&) = delete;
    LogRing& operator=(const LogRing&) = delete;

    // Takes `capacity` bytes plus the control block from Allocate; all that Allocate
    // delivers beyond the control block becomes capacity, or at most `capacityLimit` when
    // that is not 0. False when allocation fails or the ring exists.
    bool Create(uint32_t capacity, uint32_t capacityLimit = 0);
    // Gives the memory back.
    void Destroy();
    // True while the ring has memory.
    bool IsCreated() const noexcept { return data_ != nullptr; }
    // Bytes in the data area.
    uint32_t Capacity() const noexcept { return capacity_; }

    // Reserves an entry of `length` payload bytes; `payload` receives where to copy them.
    ring_status Reserve(uint32_t length, uint8_t** payload) noexcept;
    // Publishes the open reservation.
    void CommitWrite() noexcept;
    // The oldest entry's payload and length, reserved for reading. Without `look`, entries
    // the reader has not yet seen committed count as absent, and the write offset, which
    // the producers write all the time, is not read.
    ring_status Peek(const uint8_t** payload, uint32_t* length, bool look = true) noexcept;
    // Frees the entry of the open read reservation.
    void CommitRead() noexcept;
    // Wakes writers that have said they wait for room, once an eighth of the ring has been
    // freed since the last wake, or at once with `now`. A writer woken for one entry's room
    // would only block again.
    void WakeWriters(bool now) noexcept;

    // Takes the writer lock and reserves `length` bytes. On a full ring, with `mayWait`,
    // waits on the space event until there is room; without it, gives up. Returns ok with
    // the writer lock held; any other status without it.
    ring_status AcquireWrite(uint32_t length, uint8_t** payload, bool mayWait) noexcept;
    // Commits the reservation of AcquireWrite, leaves the writer lock and wakes a reader
    // that has said it sleeps.
    void ReleaseWrite() noexcept;

    CriticalSection& WriterLock() noexcept { return writerLock_; }
    Event& DataEvent() noexcept { return dataEvent_; }
    Event& SpaceEvent() noexcept { return spaceEvent_; }
    // The control block; null without memory.
    RingControl* Control() noexcept { return control_; }
    // Bytes of the open reservation on each side, 0 when none.
    uint32_t PendingWrite() const noexcept { return pendingWrite_; }
    uint32_t PendingRead() const noexcept { return pendingRead_.load(std::memory_order_relaxed); }
    // How many times a writer has had to wait for room.
    uint64_t BlockedWrites() const noexcept { return blocked_.load(std::memory_order_relaxed); }

  private:
    ring_status BlockingReserve(uint32_t length, uint8_t** payload) noexcept;
    // Where an entry of `length` goes with the offsets given; false when it does not fit.
    bool Plan(uint64_t w, uint64_t r, uint32_t length, uint64_t* reservation) const noexcept;

    // Read by both sides, written only by Create and Destroy.
    alignas(64) RingControl* control_ = nullptr;
    uint8_t* data_ = nullptr;
    uint32_t capacity_ = 0;
    // The writers' side, under the writer lock.
    alignas(64) CriticalSection writerLock_{4000};
    uint32_t pendingWrite_ = 0;
    uint32_t cachedRead_ = 0;  // the writers' copy of readOffset
    // The reader's side.
    alignas(64) std::atomic<uint32_t> pendingRead_{0};
    uint32_t readStart_ = 0;    // where the open read reservation begins
    uint32_t cachedWrite_ = 0;  // the reader's copy of writeOffset
    uint64_t freedSinceWake_ = 0;
    // Used on the way to and from a sleep only.
    alignas(64) std::atomic<uint64_t> blocked_{0};
    Event dataEvent_{true};
    Event spaceEvent_{true};
};

}  // namespace TOLVEN::detail
