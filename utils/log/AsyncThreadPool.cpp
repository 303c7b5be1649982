// The writer thread and its lock-free queue.
#include <cstring>

#include "platform/file.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "tolven/asyncfile.h"
#include "tolven/quicklock.h"

namespace TOLVEN {
namespace {

// Tries of one enqueue attempt on a full slot before it gives up.
constexpr uint32_t kSpinCount = 500;
// The blocking enqueue's sleeps: after this many failed attempts in a row it sleeps, for 0
// ms at first, 10 ms once the attempts in all pass 100 times the spin count, and 100 ms once
// they pass 1000 times.
constexpr uint32_t kRoundsBeforeSleep = 500;
constexpr uint64_t kRoundsBeforeShortSleep = 100ull * kSpinCount;
constexpr uint64_t kRoundsBeforeLongSleep = 1000ull * kSpinCount;
// A run of adjacent writes to one file is gathered into one buffer of this size, and
// written with one call.
constexpr size_t kStagingBytes = 64 * 1024;
constexpr size_t kMaxRun = 256;

// The process's pool, and the spin word that guards it.
constinit std::atomic<uint32_t> g_poolSpin{0};
AsyncThreadPool* g_pool = nullptr;

void LockPool() noexcept {
    for (uint32_t expected = 0; !g_poolSpin.compare_exchange_weak(
             expected, 1, std::memory_order_acquire, std::memory_order_relaxed);
         expected = 0)
        platform::YieldThread();
}

void UnlockPool() noexcept {
    g_poolSpin.store(0, std::memory_order_release);
}

}  // namespace

void AsyncEvents::AsyncEvent_ProcessWrite(AsyncFileWrite*, uint32_t, uint32_t) {}
void AsyncEvents::AsyncEvent_OnCallback(AsyncCallback*) {}

AsyncThreadPool* AsyncThreadPool::GetTp() {
    LockPool();
    AsyncThreadPool* pool = g_pool;
    if (pool != nullptr) {
        pool->AddRef();
    } else {
        pool = new AsyncThreadPool;
        if (pool->Start()) {
            g_pool = pool;
        } else {
            delete pool;
            pool = nullptr;
        }
    }
    UnlockPool();
    return pool;
}

void AsyncThreadPool::ReleaseTp(AsyncThreadPool* pool) {
    if (pool == nullptr) return;
    // Under the spin word, so that a GetTp cannot take a reference on a pool being destroyed.
    LockPool();
    const bool current = g_pool == pool;
    if (pool->Release() == 0 && current) g_pool = nullptr;
    UnlockPool();
}

AsyncThreadPool::AsyncThreadPool()
    : slots_(new std::atomic<AsyncWorkItem*>[kQueueSlots]),
      serveLock_(4000),
      staging_(new char[kStagingBytes]) {
    for (uint32_t i = 0; i < kQueueSlots; ++i)
        slots_[i].store(nullptr, std::memory_order_relaxed);
    uint32_t processors = 0;
    if (!platform::ProcessAffinityCount(&processors) || processors == 0)
        processors = platform::ProcessorCount();
    singleProcessor_ = processors <= 1;
}

AsyncThreadPool::~AsyncThreadPool() {
    (void)thread_.join_shutdown();
}

bool AsyncThreadPool::Start() {
    try {
        return thread_.launch("AsyncThreadPool", &AsyncThreadPool::WriteThread, this);
    } catch (...) {
        return false;
    }
}

void AsyncThreadPool::WriteThread(AsyncThreadPool* pool) {
    pool->DoAsyncThread();
}

void AsyncThreadPool::DoAsyncThread() {
    bool stop = false;
    EventDetectorType* detector = GetCachedDetectorType();
    (void)detector->Add(GetShutdownEvent(), [&stop] { stop = true; });
    (void)detector->Add(&wake_);
    // The wait comes first, so a stop still gets one last round.
    while (!stop) {
        (void)detector->Wait(kPollMs);
        ServeQueue();
    }
    detector->Clear();
    ReturnToCache(detector);
    writerEnded_.store(true, std::memory_order_release);
}

bool AsyncThreadPool::ServeIfWriterEnded() {
    if (!writerEnded_.load(std::memory_order_acquire) &&
        !platform::ThreadHasEnded(thread_.native_id()))
        return false;
    // A writer ended in the middle of a round leaves the queue as it is: nobody can serve it.
    if (serveLock_.TryEnter()) {
        ServeQueueLocked();
        serveLock_.Leave();
    }
    return true;
}

void AsyncThreadPool::ServeQueue() {
    // Only one thread serves at a time: the writer, or, once it is gone, a waiter.
    HouseLockGuard guard(serveLock_);
    ServeQueueLocked();
}

void AsyncThreadPool::ServeQueueLocked() {
    AsyncWorkItem* item = Dequeue();
    while (item != nullptr) {
        switch (item->kind) {
            case ASYNCITEM_WRITE:
                item = ProcessWrite(static_cast<AsyncFileWrite*>(item));
                break;
            case ASYNCITEM_CALLBACK:
                ProcessCallback(static_cast<AsyncCallback*>(item));
                item = Dequeue();
                break;
            default:  // not ours to serve: dropped
                item = Dequeue();
                break;
        }
    }
}

AsyncWorkItem* AsyncThreadPool::ProcessWrite(AsyncFileWrite* first) {
    // What the owners' calls need is copied out first: each call gives an item back to its
    // owner, who may free the block, close the file or destroy the lock at once.
    struct Done {
        AsyncFileWrite* item;
        AsyncEvents* events;
        uint32_t length;
    };
    Done run[kMaxRun];
    size_t count = 0;
    detail::CriticalSection* const lock = first->lock;
    std::FILE* const stream = first->stream;
    const uint64_t position = first->position;
    uint64_t total = 0;
    AsyncWorkItem* next = first;
    do {
        auto* write = static_cast<AsyncFileWrite*>(next);
        run[count++] = {write, write->events, write->length};
        total += write->length;
        next = Dequeue();
        if (next == nullptr || next->kind != ASYNCITEM_WRITE || count == kMaxRun) break;
        const auto* candidate = static_cast<const AsyncFileWrite*>(next);
        if (candidate->stream != stream || candidate->lock != lock ||
            candidate->position != position + total || total + candidate->length > kStagingBytes)
            break;
    } while (true);

    const char* data = first->Data();
    if (count > 1) {
        char* out = staging_.get();
        for (size_t i = 0; i < count; ++i) {
            std::memcpy(out, run[i].item->Data(), run[i].length);
            out += run[i].length;
        }
        data = staging_.get();
    }
    // The owners are told after the file lock is left: an owner takes its accounting lock
    // in that call, and the two locks are never held together.
    size_t written = 0;
    if (lock != nullptr) detail::EnterHouse(*lock);
    const uint32_t error =
        platform::WriteFileAt(stream, position, data, static_cast<size_t>(total), &written);
    if (lock != nullptr) lock->Leave();

    for (size_t i = 0; i < count; ++i) {
        const uint32_t part =
            written >= run[i].length ? run[i].length : static_cast<uint32_t>(written);
        written -= part;
        run[i].events->AsyncEvent_ProcessWrite(run[i].item, part, part < run[i].length ? error : 0);
    }
    return next;
}

void AsyncThreadPool::ProcessCallback(AsyncCallback* item) {
    item->events->AsyncEvent_OnCallback(item);
}

bool AsyncThreadPool::Enqueue(AsyncFileWrite* item) {
    return EnqueueItem(item);
}

bool AsyncThreadPool::Enqueue(AsyncCallback* item) {
    return EnqueueItem(item);
}

void AsyncThreadPool::Wake() noexcept {
    (void)wake_.Set();
}

// Claims the slot of `writeIndex` with one compare-and-swap, and fills it after.
//
// The indexes are 64-bit and only grow; a slot is the index modulo the ring's size. With
// indexes that wrap to 0 at the end of the ring, a producer pre-empted between reading the
// index and its compare-and-swap could find the same index value again a full lap later,
// with the slot refilled meanwhile, and overwrite an item. A 64-bit index never comes back.
// A claim also needs the index to be less than one lap ahead of `readIndex`: a slot claimed
// and not yet filled looks free, and without that test a producer a lap later could claim
// it a second time; the reader stops at such a slot, so `readIndex` cannot pass it.
bool AsyncThreadPool::TryEnqueue(AsyncWorkItem* item) {
    for (uint32_t spins = 0; spins < kSpinCount;) {
        uint64_t index = writeIndex_.load(std::memory_order_relaxed);
        const uint64_t read = readIndex_.load(std::memory_order_acquire);
        std::atomic<AsyncWorkItem*>& slot = slots_[index % kQueueSlots];
        if (index >= read + kQueueSlots || slot.load(std::memory_order_relaxed) != nullptr) {
            ++spins;
            platform::CpuRelax();
            continue;
        }
        if (writeIndex_.compare_exchange_weak(index, index + 1, std::memory_order_relaxed)) {
            slot.store(item, std::memory_order_release);
            return true;
        }
    }
    return false;
}

bool AsyncThreadPool::EnqueueItem(AsyncWorkItem* item) {
    if (item == nullptr) return false;
    if (TryEnqueue(item)) return true;
    // The ring is full: wait for room, and have the writer make it now rather than at its
    // next round.
    blockedEnqueues_.fetch_add(1, std::memory_order_relaxed);
    Wake();
    uint64_t rounds = 0;
    uint32_t inARow = 0;
    while (!TryEnqueue(item)) {
        ++rounds;
        if (singleProcessor_ || ++inARow > kRoundsBeforeSleep) {
            inARow = 0;
            Wake();
            platform::SleepMs(rounds > kRoundsBeforeLongSleep    ? 100
                              : rounds > kRoundsBeforeShortSleep ? 10
                                                                 : 0);
        }
    }
    return true;
}

AsyncWorkItem* AsyncThreadPool::Dequeue() {
    // One consumer: the index is only written here.
    const uint64_t index = readIndex_.load(std::memory_order_relaxed);
    std::atomic<AsyncWorkItem*>& slot = slots_[index % kQueueSlots];
    AsyncWorkItem* item = slot.load(std::memory_order_acquire);
    if (item == nullptr) return nullptr;  // empty, or claimed and not yet filled
    slot.store(nullptr, std::memory_order_relaxed);
    // Publishes the cleared slot with the index: a producer that sees the index sees the slot free.
    readIndex_.store(index + 1, std::memory_order_release);
    return item;
}

}  // namespace TOLVEN
