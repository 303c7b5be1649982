// The log door against spdlog's asynchronous logger (block on overflow), side by side.
//
// Both format on the caller's thread and hand the result to one background thread.
// - Disabled: a call at a level nobody listens to.
// - Latency: per-call time of an enabled call with three integers, from 1 and 2 producer
//   threads in a tight loop, as p50/p99/p99.9 in nanoseconds (counters "p50_ns" ...). The
//   figures include the clock readings around the call; ClockOnly shows what they cost.
// - Throughput: messages per second to a callback (sink) that counts, waiting until the
//   last one has arrived; our callback also checks that sequence numbers are contiguous.
// Without spdlog (TOLVEN_BENCH_HAVE_SPDLOG undefined) only our side is built.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tolven/logapi.h"

#ifdef TOLVEN_BENCH_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#endif

using namespace TOLVEN;

namespace {

using Clock = std::chrono::steady_clock;

// ---- ours ------------------------------------------------------------------------------

struct Counter {
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> gaps{0};
    uint32_t last = 0;
    static void Callback(_LOGGER_CB_DATA* const d, void* context) {
        auto* c = static_cast<Counter*>(context);
        if (c->last != 0 && d->sequence != c->last + 1) c->gaps.fetch_add(1);
        c->last = d->sequence;
        c->count.fetch_add(1, std::memory_order_release);
    }
};

void NullCallback(_LOGGER_CB_DATA* const, void*) {}

// The log API with one callback at `level`, for the life of a benchmark.
class TolvenSetup {
  public:
    TolvenSetup(LogCallbackFunc callback, void* context, logger_event_level level) {
        (void)LogInitApi();
        (void)LogAddCallbackFunc(callback, context, &id_, level);
    }
    ~TolvenSetup() {
        (void)LogRemoveCallback(id_);
        LogTermApi();
    }

  private:
    uint32_t id_ = 0;
};

constexpr LogSite kSite{"log_bench", 1, LOGGER_NORMAL, "TOLVEN::Bench::Run"};

// Calls LogProcessEvent directly with one argument list, which a disabled call never reads.
void DisabledLoop(benchmark::State& state, const char* format, ...) {
    va_list args;
    va_start(args, format);
    for (auto _ : state)
        benchmark::DoNotOptimize(
            LogProcessEvent(LOGGER_TRACE, "log_bench", 1, "TOLVEN::Bench", format, args, 0));
    va_end(args);
}

void BM_Disabled_Tolven_LogProcessEvent(benchmark::State& state) {
    TolvenSetup setup(&NullCallback, nullptr, LOGGER_ERROR);
    DisabledLoop(state, "order %d qty %d price %d", 1, 2, 3);
}
BENCHMARK(BM_Disabled_Tolven_LogProcessEvent);

void BM_Disabled_Tolven_LogAt(benchmark::State& state) {
    TolvenSetup setup(&NullCallback, nullptr, LOGGER_ERROR);
    static constexpr LogSite site{"log_bench", 1, LOGGER_TRACE, "TOLVEN::Bench"};
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(LogAt(site, 0, "order %d qty %d price %d", i, i * 3, i * 7));
        ++i;
    }
}
BENCHMARK(BM_Disabled_Tolven_LogAt);

void BM_Disabled_Tolven_Macro(benchmark::State& state) {
    TolvenSetup setup(&NullCallback, nullptr, LOGGER_ERROR);
    int i = 0;
    for (auto _ : state) {
        TOLVEN_LOG(LOGGER_TRACE, "log_bench", "TOLVEN::Bench", "order %d qty %d price %d", i, i * 3,
                   i * 7);
        ++i;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Disabled_Tolven_Macro);

#ifdef TOLVEN_BENCH_HAVE_SPDLOG
// ---- spdlog ------------------------------------------------------------------------------

class CountingSink : public spdlog::sinks::sink {
  public:
    void log(const spdlog::details::log_msg&) override {
        count.fetch_add(1, std::memory_order_release);
    }
    void flush() override {}
    void set_pattern(const std::string&) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter>) override {}
    std::atomic<uint64_t> count{0};
};

std::shared_ptr<spdlog::details::thread_pool> SpdPool() {
    static auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    return pool;
}

std::shared_ptr<spdlog::async_logger> SpdLogger(spdlog::sink_ptr sink) {
    auto logger = std::make_shared<spdlog::async_logger>("bench", std::move(sink), SpdPool(),
                                                         spdlog::async_overflow_policy::block);
    logger->set_level(spdlog::level::info);
    return logger;
}

void WaitDrained(const std::shared_ptr<spdlog::details::thread_pool>& pool) {
    while (pool->queue_size() != 0)
        std::this_thread::yield();
}

void BM_Disabled_Spdlog_Call(benchmark::State& state) {
    auto logger = SpdLogger(std::make_shared<spdlog::sinks::null_sink_mt>());
    int i = 0;
    for (auto _ : state) {
        logger->trace("order {} qty {} price {}", i, i * 3, i * 7);
        ++i;
    }
}
BENCHMARK(BM_Disabled_Spdlog_Call);

void BM_Disabled_Spdlog_ShouldLog(benchmark::State& state) {
    auto logger = SpdLogger(std::make_shared<spdlog::sinks::null_sink_mt>());
    for (auto _ : state)
        benchmark::DoNotOptimize(logger->should_log(spdlog::level::trace));
}
BENCHMARK(BM_Disabled_Spdlog_ShouldLog);
#endif

// ---- latency -------------------------------------------------------------------------------

constexpr int kLatencyCalls = 200000;

// Runs `call(i)` kLatencyCalls times on each of `threads` threads, timing every call, and
// reports the percentiles over all calls.
template <class Call>
void MeasureLatency(benchmark::State& state, int threads, Call call) {
    std::vector<std::vector<uint32_t>> samples(threads);
    for (auto _ : state) {
        std::atomic<int> ready{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                std::vector<uint32_t>& mine = samples[t];
                mine.resize(kLatencyCalls);
                ready.fetch_add(1);
                while (ready.load() < threads) {
                }
                for (int i = 0; i < kLatencyCalls; ++i) {
                    const auto start = Clock::now();
                    call(i);
                    const auto end = Clock::now();
                    mine[i] = static_cast<uint32_t>(
                        std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count());
                }
            });
        for (auto& w : workers)
            w.join();
    }
    std::vector<uint32_t> all;
    for (auto& s : samples)
        all.insert(all.end(), s.begin(), s.end());
    std::sort(all.begin(), all.end());
    auto at = [&](double q) {
        return static_cast<double>(all[static_cast<size_t>(q * (all.size() - 1))]);
    };
    state.counters["p50_ns"] = at(0.50);
    state.counters["p99_ns"] = at(0.99);
    state.counters["p999_ns"] = at(0.999);
    state.SetItemsProcessed(static_cast<int64_t>(all.size()));
}

// The cost of the two clock readings around each call, to read the figures below by.
void BM_Latency_ClockOnly(benchmark::State& state) {
    MeasureLatency(state, static_cast<int>(state.range(0)),
                   [](int i) { benchmark::DoNotOptimize(i); });
}
BENCHMARK(BM_Latency_ClockOnly)
    ->Arg(1)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_Latency_Tolven(benchmark::State& state) {
    TolvenSetup setup(&NullCallback, nullptr, LOGGER_TRACE);
    MeasureLatency(state, static_cast<int>(state.range(0)), [](int i) {
        benchmark::DoNotOptimize(LogAt(kSite, 0, "order %d qty %d price %d", i, i * 3, i * 7));
    });
    (void)LogFlush();
}
BENCHMARK(BM_Latency_Tolven)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

#ifdef TOLVEN_BENCH_HAVE_SPDLOG
void BM_Latency_Spdlog(benchmark::State& state) {
    auto logger = SpdLogger(std::make_shared<spdlog::sinks::null_sink_mt>());
    MeasureLatency(state, static_cast<int>(state.range(0)),
                   [&logger](int i) { logger->info("order {} qty {} price {}", i, i * 3, i * 7); });
    WaitDrained(SpdPool());
}
BENCHMARK(BM_Latency_Spdlog)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
#endif

// ---- throughput ----------------------------------------------------------------------------

constexpr int kThroughputMessages = 1000000;

void BM_Throughput_Tolven(benchmark::State& state) {
    Counter counter;
    TolvenSetup setup(&Counter::Callback, &counter, LOGGER_TRACE);
    const int threads = static_cast<int>(state.range(0));
    const int each = kThroughputMessages / threads;
    for (auto _ : state) {
        const uint64_t target = counter.count.load() + static_cast<uint64_t>(each) * threads;
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([each] {
                for (int i = 0; i < each; ++i)
                    (void)LogAt(kSite, 0, "order %d qty %d price %d", i, i * 3, i * 7);
            });
        for (auto& w : workers)
            w.join();
        while (counter.count.load(std::memory_order_acquire) < target)
            std::this_thread::yield();
    }
    (void)LogFlush();
    state.counters["msgs_per_s"] =
        benchmark::Counter(static_cast<double>(counter.count.load()), benchmark::Counter::kIsRate);
    state.counters["lost"] = static_cast<double>(static_cast<uint64_t>(state.iterations()) *
                                                     static_cast<uint64_t>(each) * threads -
                                                 counter.count.load());
    state.counters["sequence_gaps"] = static_cast<double>(counter.gaps.load());
}
BENCHMARK(BM_Throughput_Tolven)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

#ifdef TOLVEN_BENCH_HAVE_SPDLOG
void BM_Throughput_Spdlog(benchmark::State& state) {
    auto sink = std::make_shared<CountingSink>();
    auto logger = SpdLogger(sink);
    const int threads = static_cast<int>(state.range(0));
    const int each = kThroughputMessages / threads;
    for (auto _ : state) {
        const uint64_t target = sink->count.load() + static_cast<uint64_t>(each) * threads;
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([each, &logger] {
                for (int i = 0; i < each; ++i)
                    logger->info("order {} qty {} price {}", i, i * 3, i * 7);
            });
        for (auto& w : workers)
            w.join();
        while (sink->count.load(std::memory_order_acquire) < target)
            std::this_thread::yield();
    }
    state.counters["msgs_per_s"] =
        benchmark::Counter(static_cast<double>(sink->count.load()), benchmark::Counter::kIsRate);
    state.counters["lost"] = static_cast<double>(static_cast<uint64_t>(state.iterations()) *
                                                     static_cast<uint64_t>(each) * threads -
                                                 sink->count.load());
}
BENCHMARK(BM_Throughput_Spdlog)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace
