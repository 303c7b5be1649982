// Read/write lock with one private critical section per reader thread.
//
// A reader enters only its own critical section; a writer holds the main critical section
// and every reader's one. Lock order: mainLock before any reader's critical section.
#include <algorithm>

#include "platform/thread.h"
#include "tolven/quicklock.h"
#include "tolven/rwlock.h"

namespace TOLVEN {

ReadWriteLock_pr::ReadWriteLock_pr() : ReadWriteLock_pr(4000) {}

ReadWriteLock_pr::ReadWriteLock_pr(uint32_t spin) : spinCount(spin), mainLock(spin) {
    (void)ExTlsAlloc(&slot, this, &ReadWriteLock_pr::ThreadDetachFunc);
}

ReadWriteLock_pr::~ReadWriteLock_pr() {
    // After the slot is freed no ending thread can call back into this object.
    (void)ExTlsFree(&slot);
    for (ThreadData* td : readers)
        delete td;
    for (ThreadData* td : retired)
        delete td;
}

rwl_status ReadWriteLock_pr::LockReader(unsigned int) {
    auto* td = static_cast<ThreadData*>(ExTlsGet(&slot));
    if (td == nullptr) td = AddReader();
    detail::EnterHouse(td->cs);
    return rwl_success;
}

ReadWriteLock_pr::ThreadData* ReadWriteLock_pr::AddReader(void) {
    auto* td = new ThreadData(spinCount);
    (void)ExTlsSet(&slot, td);
    // A thread new to the lock waits here while another thread writes.
    detail::EnterHouse(mainLock);
    // Only the writer itself gets past mainLock while writerCount is set. It enters the new
    // section once so that UnlockWriter, which leaves every reader's section, stays balanced.
    if (writerCount.load(std::memory_order_relaxed) != 0) td->cs.Enter();
    readers.push_back(td);
    mainLock.Leave();
    return td;
}

rwl_status ReadWriteLock_pr::UnlockReader(void) {
    auto* td = static_cast<ThreadData*>(ExTlsGet(&slot));
    if (td == nullptr) return rwl_not_locked;
    td->cs.Leave();
    return rwl_success;
}

rwl_status ReadWriteLock_pr::LockWriter(unsigned int timeoutMs) {
    return LockWriterImpl(timeoutMs, false);
}

rwl_status ReadWriteLock_pr::TryLockWriter(void) {
    return LockWriterImpl(0, true);
}

rwl_status ReadWriteLock_pr::LockWriterImpl(unsigned int, bool tryOnly) {
    if (!mainLock.TryEnter()) {
        if (tryOnly) return rwl_busy;
        detail::EnterHouse(mainLock);
    }
    // writerCount changes only under mainLock; it is atomic for the inspection accessor.
    const uint64_t depth = writerCount.load(std::memory_order_relaxed) + 1;
    writerCount.store(depth, std::memory_order_relaxed);
    if (depth != 1) return rwl_success;
    writerThread = platform::CurrentThreadId();
    // Ended threads are dropped; every other reader's section is entered, which waits for
    // that reader to leave and keeps it out until UnlockWriter.
    auto out = readers.begin();
    for (ThreadData* td : readers) {
        if (td->detached.load(std::memory_order_acquire)) {
            retired.push_back(td);
            continue;
        }
        detail::EnterHouse(td->cs);
        *out++ = td;
    }
    readers.erase(out, readers.end());
    return rwl_success;
}

rwl_status ReadWriteLock_pr::UnlockWriter(void) {
    const uint64_t depth = writerCount.load(std::memory_order_relaxed);
    writerCount.store(depth - 1, std::memory_order_relaxed);
    if (depth == 1) {
        writerThread = 0xFFFFFFFFu;
        for (ThreadData* td : readers)
            td->cs.Leave();
    }
    mainLock.Leave();
    return rwl_success;
}

void ReadWriteLock_pr::ThreadDetachFunc(void* lock) {
    auto* self = static_cast<ReadWriteLock_pr*>(lock);
    auto* td = static_cast<ThreadData*>(ExTlsGet(&self->slot));
    if (td != nullptr) td->detached.store(true, std::memory_order_release);
}

std::size_t ReadWriteLock_pr::ReaderCount() const {
    detail::EnterHouse(mainLock);
    const std::size_t n = readers.size();
    mainLock.Leave();
    return n;
}

}  // namespace TOLVEN
