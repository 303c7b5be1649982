// Two recursive read/write locks with the same interface and opposite costs.
//
// ReadWriteLock_pr gives every reader thread a private critical section: once a thread is
// known, its read lock touches nothing shared, and a writer pays for every reader thread
// the lock has ever seen. ReadWriteLock_pw keeps a small table of reader threads under one
// critical section, blocks through events with real time-outs, and lets writers go first.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tolven/detail/critical_section.h"
#include "tolven/event.h"
#include "tolven/exslots.h"

namespace TOLVEN {

enum [[nodiscard]] rwl_status : uint32_t{
    rwl_success = 0,     // the lock was taken or released
    rwl_not_locked = 1,  // the unlocking thread does not hold the lock
    rwl_timeout = 2,     // the time-out ran out
    rwl_busy = 4,        // TryLockWriter found the lock taken
};

// Read/write lock with one private critical section per reader thread.
//
// Reads cost one thread-slot look-up and one uncontended critical section. A writer takes
// the main critical section and then every reader's own, so it waits for the readers inside
// and keeps new ones out. Time-outs are accepted and ignored: every wait is unlimited.
// Recursive for both sides; the writer may also read. A thread that ends is dropped by the
// next writer; its record is kept until the lock is destroyed.
// Safe for concurrent use without external locking.
class ReadWriteLock_pr {
  public:
    // A lock whose critical sections spin 4000 times before they block.
    ReadWriteLock_pr();
    // A lock whose critical sections spin `spinCount` times (0: no spinning).
    explicit ReadWriteLock_pr(uint32_t spinCount);
    // Frees every reader record. No thread may hold or wait for the lock.
    ~ReadWriteLock_pr();
    ReadWriteLock_pr(const ReadWriteLock_pr&) = delete;
    ReadWriteLock_pr& operator=(const ReadWriteLock_pr&) = delete;

    // Takes the read lock, waiting for a writer; `timeoutMs` is ignored. Always rwl_success.
    rwl_status LockReader(unsigned int timeoutMs);
    // Leaves the read lock; rwl_not_locked for a thread that never read.
    rwl_status UnlockReader(void);
    // Takes the write lock, waiting for writers and readers; `timeoutMs` is ignored.
    rwl_status LockWriter(unsigned int timeoutMs);
    // rwl_busy when another writer holds the lock; otherwise waits for readers as LockWriter.
    rwl_status TryLockWriter(void);
    // Leaves the write lock. The caller must be the writer; that is not checked.
    rwl_status UnlockWriter(void);

    // Reader threads currently on the list (inspection; takes the main lock).
    std::size_t ReaderCount() const;
    // Recursion depth of the write lock (inspection; a racy snapshot).
    uint64_t WriterDepth() const noexcept { return writerCount.load(std::memory_order_relaxed); }

  private:
    // One reader thread's lock.
    struct ThreadData {
        explicit ThreadData(uint32_t spin) : cs(spin) {}
        detail::CriticalSection cs;
        bool initialised = true;
        uint32_t count = 0;
        std::atomic<bool> detached{false};  // set by the thread as it ends
    };

    rwl_status LockWriterImpl(unsigned int timeoutMs, bool tryOnly);
    ThreadData* AddReader(void);
    static void ThreadDetachFunc(void* lock);

    uint32_t spinCount;
    std::atomic<uint64_t> writerCount{0};
    uint32_t writerThread = 0xFFFFFFFFu;
    SlotDetails slot;
    std::vector<ThreadData*> readers;
    mutable detail::CriticalSection mainLock;
    // Records of ended threads, dropped from `readers` but kept until destruction.
    std::vector<ThreadData*> retired;
};

// Read/write lock over a table of reader threads, with writer priority and time-outs.
//
// As soon as a writer holds or waits, no new reader thread gets in; a thread that already
// reads may read again. Blocked threads wait on events through a detector from their cache.
// A thread that holds the read lock cannot upgrade: asking for the write lock waits for
// itself until the time-out. Recursive for both sides; the writer may also read.
// Safe for concurrent use without external locking.
class ReadWriteLock_pw {
  public:
    // A lock whose critical section spins 4000 times before it blocks.
    ReadWriteLock_pw();
    // A lock whose critical section spins `spinCount` times (0: no spinning).
    explicit ReadWriteLock_pw(uint32_t spinCount);
    // No thread may hold or wait for the lock.
    ~ReadWriteLock_pw();
    ReadWriteLock_pw(const ReadWriteLock_pw&) = delete;
    ReadWriteLock_pw& operator=(const ReadWriteLock_pw&) = delete;

    // Takes the read lock within `timeoutMs` (kInfinite: no limit); else rwl_timeout.
    rwl_status LockReader(unsigned int timeoutMs);
    // Leaves the read lock; rwl_not_locked when the caller holds none.
    rwl_status UnlockReader(void);
    // Takes the write lock within `timeoutMs` (kInfinite: no limit); else rwl_timeout.
    rwl_status LockWriter(unsigned int timeoutMs);
    // rwl_busy when any writer holds the lock, the caller included; rwl_timeout when only
    // readers do; rwl_success when it was free.
    rwl_status TryLockWriter(void);
    // Leaves the write lock; rwl_not_locked when the caller is not the writer.
    rwl_status UnlockWriter(void);

    // Threads blocked in LockReader (inspection; takes the lock).
    uint32_t WaitingReaders() const;
    // Threads blocked in LockWriter (inspection; takes the lock).
    int32_t WaitingWriters() const;
    // Used length of the reader table (inspection; takes the lock).
    int32_t SlotCount() const;

  private:
    // One reader thread's entry; threadId 0 marks an empty slot.
    struct ThreadData {
        uint32_t threadId = 0;
        uint32_t count = 0;
    };

    rwl_status LockWriterImpl(unsigned int timeoutMs, bool tryOnly);
    bool AddReader(uint32_t threadId);
    bool AddWriter(uint32_t threadId);
    ThreadData* GetEmptyReadSlot(void);
    // Blocks on readEvent (reader) or writeEvent until the reader or writer rule lets the
    // caller in, or the time runs out. Called after the caller was counted as waiting.
    rwl_status WaitTurn(bool reader, uint32_t threadId, unsigned int timeoutMs);

    uint32_t waitingReaders = 0;
    int32_t slotCount = 0;
    std::vector<ThreadData> slots;
    int32_t waitingWriters = 0;
    uint32_t writerThread = 0;
    int32_t writerCount = 0;
    Event writeEvent{true};
    Event readEvent{false};
    mutable detail::CriticalSection lock;
};

}  // namespace TOLVEN
