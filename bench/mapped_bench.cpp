// Hot paths of the mapped block allocator, the stopwatch and the latency tracker, each
// beside its peer in the same process.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "tolven/blockallocator.h"
#include "tolven/latencytracker.h"
#include "tolven/mappedblockallocator.h"
#include "tolven/snapshottimer.h"

using namespace TOLVEN;

namespace {

// A scratch directory for the benchmark's files, removed at the end of the scope.
struct Scratch {
    std::filesystem::path path = std::filesystem::temp_directory_path() /
                                 ("tolven_bench_mapped_" + std::to_string(::getpid()));
    Scratch() { std::filesystem::create_directories(path); }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

void MappedGetRelease(benchmark::State& state) {
    Scratch dir;
    MappedBlockAllocator a;
    if (a.Init(static_cast<uint64_t>(state.range(0)), 1000, dir.path.c_str(), "bench", true) !=
        mba_success) {
        state.SkipWithError("Init failed");
        return;
    }
    for (auto _ : state) {
        void* p = a.GetBlock();
        benchmark::DoNotOptimize(p);
        (void)a.ReleaseBlock(p);
    }
}
BENCHMARK(MappedGetRelease)->Arg(64);

void BlockGetRelease(benchmark::State& state) {
    BlockAllocator a("bench block");
    (void)a.Init(static_cast<uint64_t>(state.range(0)), 1000, kBlockAllocNoLimit, true, 10, 2);
    for (auto _ : state) {
        void* p = a.GetBlock();
        benchmark::DoNotOptimize(p);
        (void)a.ReleaseBlock(p);
    }
}
BENCHMARK(BlockGetRelease)->Arg(64);

void Stopwatch_StartStop(benchmark::State& state) {
    for (auto _ : state) {
        SnapshotTimer t(true);
        benchmark::DoNotOptimize(t.CMS_DOUBLE());
    }
}
BENCHMARK(Stopwatch_StartStop);

void SteadyClock_TwoNows(benchmark::State& state) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                .count());
    }
}
BENCHMARK(SteadyClock_TwoNows);

// Records pile up for up to 250 ms before the writer takes them and gives their blocks back
// to the pool, which keeps them: the tracker is warmed with one batch first, and after each
// timed batch the writer is given time to drain, so the timed calls find the pool in the
// steady state of a service instead of touching fresh pages. A fixed count keeps the pool
// and the file small.
constexpr int kRecordsPerBatch = 200000;

void Drain() {
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
}

void Latency_Record(benchmark::State& state) {
    static Scratch dir;
    LatencyTracker& t = LatencyTracker::Get();
    static const bool ready = [&t] {
        if (!t.Init((dir.path / "latency.txt").c_str())) return false;
        SnapshotTimer start(true);
        for (int i = 0; i < kRecordsPerBatch; ++i)
            t.AddLatencyStats("order-123456", start.GetCounter(), "booked", "bench.cpp", 1, "Book");
        Drain();
        return true;
    }();
    if (!ready) {
        state.SkipWithError("Init failed");
        return;
    }
    SnapshotTimer start(true);
    for (auto _ : state)
        t.AddLatencyStats("order-123456", start.GetCounter(), "booked", "bench.cpp", 1, "Book");
    Drain();
}
BENCHMARK(Latency_Record)->Iterations(kRecordsPerBatch);

void Rdtsc_Pair(benchmark::State& state) {
    for (auto _ : state) {
        const uint64_t a = __builtin_ia32_rdtsc();
        benchmark::DoNotOptimize(__builtin_ia32_rdtsc() - a);
    }
}
BENCHMARK(Rdtsc_Pair);

}  // namespace
