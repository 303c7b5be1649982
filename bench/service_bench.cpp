// The service's hot paths: one operator command through ProcessCommand, and an event
// fired over ten sinks beside a vector of std::function under a std::mutex.
#include <benchmark/benchmark.h>

#include <functional>
#include <mutex>
#include <vector>

#include "tolven/basicsrv.h"

using namespace TOLVEN;

namespace {

basicsrv_status EmptyHandler(_BASICSRV_COMMAND_INFO&, void*) {
    return basicsrv_success;
}

// A sink that counts its calls.
class CountingSink : public BasicSrvEvents {
  public:
    void OnBasicSrvDoMaintenance() override { ++calls; }
    uint64_t calls = 0;
};

constexpr int kSinks = 10;

}  // namespace

// ---- one command -------------------------------------------------------------------------

static void BasicSrv_ProcessCommand_TwoWords(benchmark::State& state) {
    _BASICSRV_STARTUP_INFO info;
    info.srvName = "bench";
    info.noFileLog = true;
    BasicSrv srv(info);
    (void)srv.RegisterCommand({"show config", "Shows.", "", nullptr, &EmptyHandler});
    EmptyStatusWriter writer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(srv.ProcessCommand("show config", &writer, false, false, 0));
    }
}
BENCHMARK(BasicSrv_ProcessCommand_TwoWords);

static void BasicSrv_ProcessCommand_TwoWordsAndArguments(benchmark::State& state) {
    _BASICSRV_STARTUP_INFO info;
    info.srvName = "bench";
    info.noFileLog = true;
    BasicSrv srv(info);
    (void)srv.RegisterCommand({"show config", "Shows.", "", nullptr, &EmptyHandler});
    EmptyStatusWriter writer;
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            srv.ProcessCommand("show config Section \"Some Item\"", &writer, false, false, 0));
    }
}
BENCHMARK(BasicSrv_ProcessCommand_TwoWordsAndArguments);

// ---- an event over ten sinks ---------------------------------------------------------------

static void EventSink_Fire10(benchmark::State& state) {
    EventSink<BasicSrvEvents> registry;
    std::vector<CountingSink> sinks(kSinks);
    for (auto& sink : sinks)
        (void)registry.AddSink(&sink);
    for (auto _ : state)
        registry.Fire(&BasicSrvEvents::OnBasicSrvDoMaintenance);
    benchmark::DoNotOptimize(sinks[0].calls);
}
BENCHMARK(EventSink_Fire10);

static void FunctionVectorUnderMutex_Fire10(benchmark::State& state) {
    std::mutex mutex;
    std::vector<std::function<void()>> callbacks;
    std::vector<CountingSink> sinks(kSinks);
    for (auto& sink : sinks)
        callbacks.emplace_back([&sink] { sink.OnBasicSrvDoMaintenance(); });
    for (auto _ : state) {
        std::lock_guard<std::mutex> guard(mutex);
        for (auto& callback : callbacks)
            callback();
    }
    benchmark::DoNotOptimize(sinks[0].calls);
}
BENCHMARK(FunctionVectorUnderMutex_Fire10);
