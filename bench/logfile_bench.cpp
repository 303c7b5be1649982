// Dated text log files against spdlog's daily file sink behind its asynchronous logger,
// writing to the same file system, side by side.
//
// - Throughput: lines per second from the call to the file, 1 and 2 producers. One
//   iteration writes a batch of lines and waits until all of them are in the file (ours:
//   Flush; spdlog: the thread pool drained and the file flushed). Each runs for at least
//   3 s, so the figure is the steady state of a long-running service: the first batch of
//   a fresh file touches every page of the block pool once.
// - Enqueue: the producer's cost of queueing one 100-byte line, in batches of 10000 with
//   the writer drained between batches outside the timing (ours: asyncfile::Write with a
//   block from the file's pool; spdlog: logger->info of a 100-byte text, no formatting).
// - Delay: from the call to the line being readable in the file, p50/p99/max in
//   milliseconds (ours only: spdlog's file sink holds lines in its stdio buffer until a
//   flush, so it has no comparable figure).
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/daily_file_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tolven/asyncfile.h"
#include "tolven/simplelogfile.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBatch = 100000;

// A fresh folder under the system's temporary folder for one benchmark, removed after.
class Folder {
  public:
    explicit Folder(const char* name)
        : path_(fs::temp_directory_path() / ("tolven_logfile_bench_" + std::string(name))) {
        fs::remove_all(path_);
        fs::create_directories(path_);
    }
    ~Folder() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    std::string str() const { return path_.string(); }

  private:
    fs::path path_;
};

std::string Text100() {
    return std::string(100, 'x');
}

// ---- throughput ------------------------------------------------------------------------

void BM_Throughput_Tolven_simplelogfile(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    Folder folder("ours");
    simplelogfile file(true);
    if (!file.Init("bench", folder.str().c_str(), nullptr, 0, true, nullptr)) {
        state.SkipWithError("cannot open the log file");
        return;
    }
    for (auto _ : state) {
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&file, producers, p] {
                for (int i = p; i < kBatch; i += producers)
                    (void)file.LogV("order %d qty %d price %d", i, 100 + p, 12345);
            });
        for (auto& t : threads)
            t.join();
        if (!file.Flush()) state.SkipWithError("flush failed");
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    file.Term();
}
BENCHMARK(BM_Throughput_Tolven_simplelogfile)
    ->Arg(1)
    ->Arg(2)
    ->MinTime(3.0)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void BM_Throughput_Spdlog_daily_async(benchmark::State& state) {
    const int producers = static_cast<int>(state.range(0));
    Folder folder("peer");
    for (auto _ : state) {
        // The pool's destructor drains the queue and joins its thread: the end of the batch.
        auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
        auto sink =
            std::make_shared<spdlog::sinks::daily_file_sink_mt>(folder.str() + "/bench.txt", 0, 0);
        auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                             spdlog::async_overflow_policy::block);
        logger->set_pattern("(%H:%M:%S.%f) %v");
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&logger, producers, p] {
                for (int i = p; i < kBatch; i += producers)
                    logger->info("order {} qty {} price {}", i, 100 + p, 12345);
            });
        for (auto& t : threads)
            t.join();
        logger->flush();
        logger.reset();
        pool.reset();
        sink->flush();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_Throughput_Spdlog_daily_async)
    ->Arg(1)
    ->Arg(2)
    ->MinTime(3.0)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// ---- producer cost of one 100-byte line ------------------------------------------------

constexpr int kEnqueueBatch = 10000;

void BM_Enqueue_Tolven_asyncfile_Write(benchmark::State& state) {
    Folder folder("enqueue_ours");
    asyncfile file;
    if (!file.Open((folder.str() + "/bench.txt").c_str(), 4096, -1)) {
        state.SkipWithError("cannot open the file");
        return;
    }
    const std::string text = Text100();
    int inBatch = 0;
    for (auto _ : state) {
        AsyncFileWrite* w = file.NewWrite();
        std::memcpy(w->Data(), text.data(), text.size());
        w->position = file.GetEndPosition();
        w->length = static_cast<uint32_t>(text.size());
        benchmark::DoNotOptimize(file.Write(w));
        if (++inBatch == kEnqueueBatch) {
            state.PauseTiming();
            file.WaitPending(kInfinite);
            inBatch = 0;
            state.ResumeTiming();
        }
    }
    file.Close();
}
BENCHMARK(BM_Enqueue_Tolven_asyncfile_Write);

void BM_Enqueue_Spdlog_async_info(benchmark::State& state) {
    Folder folder("enqueue_peer");
    auto pool = std::make_shared<spdlog::details::thread_pool>(2 * kEnqueueBatch, 1);
    auto sink =
        std::make_shared<spdlog::sinks::daily_file_sink_mt>(folder.str() + "/bench.txt", 0, 0);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_pattern("%v");
    const std::string text = Text100();
    int inBatch = 0;
    for (auto _ : state) {
        logger->info(spdlog::string_view_t(text));
        if (++inBatch == kEnqueueBatch) {
            state.PauseTiming();
            while (pool->queue_size() != 0)
                std::this_thread::yield();
            inBatch = 0;
            state.ResumeTiming();
        }
    }
    logger.reset();
    pool.reset();
}
BENCHMARK(BM_Enqueue_Spdlog_async_info);

// ---- delay from the call to the line in the file ---------------------------------------

void BM_Delay_Tolven_simplelogfile(benchmark::State& state) {
    Folder folder("delay");
    simplelogfile file(true);
    if (!file.Init("bench", folder.str().c_str(), nullptr, 0, true, nullptr)) {
        state.SkipWithError("cannot open the log file");
        return;
    }
    char path[kLogFilePathSize];
    (void)file.GetFileName(path, sizeof path);
    std::vector<double> delays;
    for (auto _ : state) {
        const auto before = fs::file_size(path);
        const auto start = Clock::now();
        (void)file.Log("one line whose arrival is timed");
        while (fs::file_size(path) == before)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        delays.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        // Start the next line at a different point of the writer's round.
        std::this_thread::sleep_for(std::chrono::milliseconds(37 * (delays.size() % 7)));
    }
    std::sort(delays.begin(), delays.end());
    auto at = [&](double q) {
        return delays[std::min(delays.size() - 1, static_cast<size_t>(q * delays.size()))];
    };
    state.counters["p50_ms"] = at(0.50);
    state.counters["p99_ms"] = at(0.99);
    state.counters["max_ms"] = delays.back();
    file.Term();
}
BENCHMARK(BM_Delay_Tolven_simplelogfile)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
