// The floor's hot paths beside their standard-library and POSIX peers.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tolven/autothread.h"
#include "tolven/event.h"
#include "tolven/exslots.h"
#include "tolven/quicklock.h"

using namespace TOLVEN;

// ---- light lock ------------------------------------------------------------------------

static void QuickLock_LockUnlock(benchmark::State& state) {
    QuickLock lock;
    for (auto _ : state) {
        lock.Lock();
        benchmark::ClobberMemory();
        lock.Unlock();
    }
}
BENCHMARK(QuickLock_LockUnlock);

static void StdMutex_LockUnlock(benchmark::State& state) {
    std::mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}
BENCHMARK(StdMutex_LockUnlock);

static void StdRecursiveMutex_LockUnlock(benchmark::State& state) {
    std::recursive_mutex m;
    for (auto _ : state) {
        m.lock();
        benchmark::ClobberMemory();
        m.unlock();
    }
}
BENCHMARK(StdRecursiveMutex_LockUnlock);

// ---- event signal with nobody waiting ----------------------------------------------------

static void Event_SetReset_NoWaiter(benchmark::State& state) {
    Event e(false);
    for (auto _ : state) {
        (void)e.Set();
        e.Reset();
    }
}
BENCHMARK(Event_SetReset_NoWaiter);

static void AtomicExchange_Store(benchmark::State& state) {
    std::atomic<uint32_t> word{0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(word.exchange(1));
        word.store(0, std::memory_order_release);
    }
}
BENCHMARK(AtomicExchange_Store);

// ---- wake a parked waiter: ping-pong round trips, each is two wakes ---------------------

static void Event_PingPong(benchmark::State& state) {
    Event ping(true), pong(true);
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        EventDetectorType* d = new EventDetectorType();
        (void)d->Add(&ping);
        while (true) {
            (void)d->Wait(kInfinite);
            if (stop.load()) break;
            (void)pong.Set();
        }
        d->Release();
    });
    EventDetectorType* d = new EventDetectorType();
    (void)d->Add(&pong);
    for (auto _ : state) {
        (void)ping.Set();
        (void)d->Wait(kInfinite);
    }
    stop = true;
    (void)ping.Set();
    peer.join();
    d->Release();
    state.counters["wake_ns"] =
        benchmark::Counter(2.0 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(Event_PingPong)->UseRealTime();

static void CondVar_PingPong(benchmark::State& state) {
    std::mutex m;
    std::condition_variable cv;
    int turn = 0;  // 1: peer's turn, 2: main's turn
    bool stop = false;
    std::thread peer([&] {
        std::unique_lock<std::mutex> lk(m);
        while (true) {
            cv.wait(lk, [&] { return turn == 1 || stop; });
            if (stop) break;
            turn = 2;
            cv.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lk(m);
        turn = 1;
        cv.notify_all();
        cv.wait(lk, [&] { return turn == 2; });
    }
    {
        std::lock_guard<std::mutex> lk(m);
        stop = true;
    }
    cv.notify_all();
    peer.join();
    state.counters["wake_ns"] =
        benchmark::Counter(2.0 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(CondVar_PingPong)->UseRealTime();

static void AtomicWait_PingPong(benchmark::State& state) {
    std::atomic<int> turn{0};
    std::thread peer([&] {
        while (true) {
            turn.wait(0);
            int t = turn.load();
            if (t == 3) break;
            if (t == 1) {
                turn.store(2);
                turn.notify_one();
            }
            turn.wait(2);
            if (turn.load() == 3) break;
        }
    });
    for (auto _ : state) {
        turn.store(1);
        turn.notify_one();
        while (turn.load() != 2)
            turn.wait(1);
        turn.store(0);
        turn.notify_one();
    }
    turn.store(3);
    turn.notify_one();
    peer.join();
    state.counters["wake_ns"] =
        benchmark::Counter(2.0 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(AtomicWait_PingPong)->UseRealTime();

// ---- thread slots ----------------------------------------------------------------------------

static void ExTlsGet_Read(benchmark::State& state) {
    static SlotDetails slot;
    if (slot.IsEmpty()) (void)ExTlsAlloc(&slot, nullptr, nullptr);
    int value = 0;
    (void)ExTlsSet(&slot, &value);
    for (auto _ : state)
        benchmark::DoNotOptimize(ExTlsGet(&slot));
}
BENCHMARK(ExTlsGet_Read);

thread_local void* t_value = nullptr;
static void ThreadLocal_Read(benchmark::State& state) {
    int value = 0;
    t_value = &value;
    for (auto _ : state) {
        benchmark::DoNotOptimize(t_value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(ThreadLocal_Read);

static void PthreadGetSpecific_Read(benchmark::State& state) {
    static pthread_key_t key;
    static bool made = (pthread_key_create(&key, nullptr) == 0);
    int value = 0;
    pthread_setspecific(key, &value);
    for (auto _ : state)
        benchmark::DoNotOptimize(pthread_getspecific(key));
    benchmark::DoNotOptimize(made);
}
BENCHMARK(PthreadGetSpecific_Read);
