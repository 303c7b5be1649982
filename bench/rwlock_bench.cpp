// Read/write locks against their peers: std::shared_mutex for the uncontended paths, and
// a writer-preferring pthread_rwlock for a 99% read, 1% write mix on two threads.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <cstdint>
#include <shared_mutex>

#include "tolven/rwlock.h"

using namespace TOLVEN;

namespace {

// Uniform face over the locks under test.
struct PrLock {
    ReadWriteLock_pr l;
    void ReadLock() { (void)l.LockReader(kInfinite); }
    void ReadUnlock() { (void)l.UnlockReader(); }
    void WriteLock() { (void)l.LockWriter(kInfinite); }
    void WriteUnlock() { (void)l.UnlockWriter(); }
};
struct PwLock {
    ReadWriteLock_pw l;
    void ReadLock() { (void)l.LockReader(kInfinite); }
    void ReadUnlock() { (void)l.UnlockReader(); }
    void WriteLock() { (void)l.LockWriter(kInfinite); }
    void WriteUnlock() { (void)l.UnlockWriter(); }
};
struct SharedMutex {
    std::shared_mutex m;
    void ReadLock() { m.lock_shared(); }
    void ReadUnlock() { m.unlock_shared(); }
    void WriteLock() { m.lock(); }
    void WriteUnlock() { m.unlock(); }
};
struct PthreadWriterFirst {
    pthread_rwlock_t l;
    PthreadWriterFirst() {
        pthread_rwlockattr_t a;
        pthread_rwlockattr_init(&a);
        pthread_rwlockattr_setkind_np(&a, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
        pthread_rwlock_init(&l, &a);
        pthread_rwlockattr_destroy(&a);
    }
    ~PthreadWriterFirst() { pthread_rwlock_destroy(&l); }
    void ReadLock() { pthread_rwlock_rdlock(&l); }
    void ReadUnlock() { pthread_rwlock_unlock(&l); }
    void WriteLock() { pthread_rwlock_wrlock(&l); }
    void WriteUnlock() { pthread_rwlock_unlock(&l); }
};

template <class L>
void BM_ReadLockUnlock(benchmark::State& state) {
    L lock;
    for (auto _ : state) {
        lock.ReadLock();
        lock.ReadUnlock();
    }
}

// Argument 1: the thread has read the lock before, so a writer also passes its own reader
// record, as in most real uses. Argument 0: the lock has never had a reader.
template <class L>
void BM_WriteLockUnlock(benchmark::State& state) {
    L lock;
    if (state.range(0) != 0) {
        lock.ReadLock();
        lock.ReadUnlock();
    }
    for (auto _ : state) {
        lock.WriteLock();
        lock.WriteUnlock();
    }
}

// Two threads share one lock; one operation in a hundred writes.
template <class L>
void BM_Mixed99Read1Write(benchmark::State& state) {
    static L* lock;
    static uint64_t shared[8];
    if (state.thread_index() == 0) lock = new L;
    uint64_t n = 0, sink = 0;
    for (auto _ : state) {
        if (++n % 100 == 0) {
            lock->WriteLock();
            ++shared[0];
            lock->WriteUnlock();
        } else {
            lock->ReadLock();
            sink += shared[0];
            lock->ReadUnlock();
        }
    }
    benchmark::DoNotOptimize(sink);
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        // Every thread has left its loop before thread 0 gets here.
        delete lock;
        lock = nullptr;
    }
}

}  // namespace

BENCHMARK_TEMPLATE(BM_ReadLockUnlock, PrLock);
BENCHMARK_TEMPLATE(BM_ReadLockUnlock, PwLock);
BENCHMARK_TEMPLATE(BM_ReadLockUnlock, SharedMutex);
BENCHMARK_TEMPLATE(BM_WriteLockUnlock, PrLock)->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_WriteLockUnlock, PwLock)->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_WriteLockUnlock, SharedMutex)->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_Mixed99Read1Write, PwLock)->Threads(2)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Mixed99Read1Write, PrLock)->Threads(2)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Mixed99Read1Write, PthreadWriterFirst)->Threads(2)->UseRealTime();
BENCHMARK_TEMPLATE(BM_Mixed99Read1Write, SharedMutex)->Threads(2)->UseRealTime();
