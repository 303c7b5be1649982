// The per-site limited log call, and messages from the log call into a dated file.
//
// - Limited: LogProcessEventEx at a site whose limit is used up (one tree search among 64
//   sites, nothing formatted), against an enabled LogProcessEvent of the same message.
// - File: N messages from 1 or 2 producer threads until every line is in the file and the
//   file is closed, through DatedFileLogger (log door, "LogThread", simplelogfile and
//   "AsyncThreadPool"), against spdlog's asynchronous logger (block on overflow, one worker)
//   over its daily file sink with a pattern of the same shape. Both write to the page cache
//   (no fsync); wall time, counter "msgs_per_s".
#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/daily_file_sink.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/process.h"
#include "tolven/logapi.h"
#include "tolven/logsinks.h"

using namespace TOLVEN;
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

// ---- the limited call ----------------------------------------------------------------------

void NullCallback(_LOGGER_CB_DATA* const, void*) {}

class NullListener {
  public:
    NullListener() {
        (void)LogInitApi();
        (void)LogAddCallbackFunc(&NullCallback, nullptr, &id_, LOGGER_TRACE);
    }
    ~NullListener() {
        (void)LogRemoveCallback(id_);
        LogTermApi();
    }

  private:
    uint32_t id_ = 0;
};

constexpr const char* kFile = "logsinks_bench";
constexpr const char* kFunction = "TOLVEN::Bench::Run";
constexpr uint32_t kSites = 64;

log_status LimitedCall(int maxCount, uint32_t line, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const log_status st =
        LogProcessEventEx(maxCount, LOGGER_NORMAL, kFile, line, kFunction, format, args, 0);
    va_end(args);
    return st;
}

log_status PlainCall(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const log_status st = LogProcessEvent(LOGGER_NORMAL, kFile, 1, kFunction, format, args, 0);
    va_end(args);
    return st;
}

void BM_Limited_Tolven_LogProcessEventEx(benchmark::State& state) {
    NullListener listener;
    LogNReset();
    // 64 sites, each used up by its first call.
    for (uint32_t line = 1; line <= kSites; ++line)
        (void)LimitedCall(0, line * 10, "order %d qty %d price %d", 1, 2, 3);
    (void)LogFlush();
    uint32_t line = 0;
    for (auto _ : state) {
        line = line % kSites + 1;
        benchmark::DoNotOptimize(LimitedCall(0, line * 10, "order %d qty %d price %d", 1, 2, 3));
    }
    LogNReset();
}
BENCHMARK(BM_Limited_Tolven_LogProcessEventEx);

void BM_Limited_Peer_EnabledLogProcessEvent(benchmark::State& state) {
    NullListener listener;
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(PlainCall("order %d qty %d price %d", i, i * 3, i * 7));
        ++i;
    }
    (void)LogFlush();
}
BENCHMARK(BM_Limited_Peer_EnabledLogProcessEvent);

// ---- into a file ---------------------------------------------------------------------------

constexpr int kFileMessages = 500000;

// A fresh folder for one benchmark's files, removed afterwards.
struct Folder {
    fs::path path;
    explicit Folder(const char* name) {
        path = fs::temp_directory_path() /
               (std::string(name) + "_" + std::to_string(platform::CurrentProcessId()));
        fs::remove_all(path);
        fs::create_directories(path);
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
};

// Runs `each` calls of `call(i)` on `threads` threads and gives the wall time until `finish`
// has returned.
template <class Call, class Finish>
double TimeRun(int threads, int each, Call call, Finish finish) {
    const auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&] {
            for (int i = 0; i < each; ++i)
                call(i);
        });
    for (auto& w : workers)
        w.join();
    finish();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Times `batches` runs of kFileMessages messages, after one untimed run that warms the
// sink's memory, as a service's logger is warm after its first seconds.
template <class Call, class Finish>
void FileRuns(benchmark::State& state, Call call, Finish finish) {
    const int threads = static_cast<int>(state.range(0));
    const int each = kFileMessages / threads;
    (void)TimeRun(threads, each, call, finish);
    for (auto _ : state)
        state.SetIterationTime(TimeRun(threads, each, call, finish));
    state.counters["msgs_per_s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * each * threads, benchmark::Counter::kIsRate);
}

void BM_File_Tolven_DatedFileLogger(benchmark::State& state) {
    Folder folder("tolven_bench_sinks");
    static constexpr LogSite site{kFile, 1, LOGGER_NORMAL, kFunction};
    DatedFileLogger sink;
    if (!sink.Init("bench", folder.path.string().c_str(), nullptr, 0, true, nullptr)) {
        state.SkipWithError("the log file cannot be opened");
        return;
    }
    FileRuns(
        state, [](int i) { (void)LogAt(site, 0, "order %d qty %d price %d", i, i * 3, i * 7); },
        [&sink] {
            // Every message delivered to the sink, then every line in the file.
            (void)LogFlush();
            (void)sink.GetLogFile().Flush();
        });
    sink.Term();
}
BENCHMARK(BM_File_Tolven_DatedFileLogger)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// spdlog's daily file sink (a final class), wrapped to tell when a flush has reached the
// file.
class SignallingDailySink : public spdlog::sinks::sink {
  public:
    explicit SignallingDailySink(const std::string& path)
        : file_(std::make_shared<spdlog::sinks::daily_file_sink_mt>(path, 0, 0)) {}
    void log(const spdlog::details::log_msg& msg) override { file_->log(msg); }
    void flush() override {
        file_->flush();
        flushes.fetch_add(1, std::memory_order_release);
    }
    void set_pattern(const std::string& pattern) override { file_->set_pattern(pattern); }
    void set_formatter(std::unique_ptr<spdlog::formatter> f) override {
        file_->set_formatter(std::move(f));
    }
    std::atomic<uint64_t> flushes{0};

  private:
    std::shared_ptr<spdlog::sinks::daily_file_sink_mt> file_;
};

void BM_File_Spdlog_AsyncDailyFileSink(benchmark::State& state) {
    Folder folder("tolven_bench_spdlog");
    auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
    auto sink = std::make_shared<SignallingDailySink>((folder.path / "bench.txt").string());
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                         spdlog::async_overflow_policy::block);
    logger->set_pattern("(%H:%M:%S.%f) %v");
    logger->set_level(spdlog::level::info);
    FileRuns(
        state, [&logger](int i) { logger->info("order {} qty {} price {}", i, i * 3, i * 7); },
        [&] {
            // The flush is queued behind the messages; it returns once it reached the file.
            const uint64_t before = sink->flushes.load(std::memory_order_acquire);
            logger->flush();
            while (sink->flushes.load(std::memory_order_acquire) == before)
                std::this_thread::yield();
        });
}
BENCHMARK(BM_File_Spdlog_AsyncDailyFileSink)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
