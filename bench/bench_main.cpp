// The entry point of every benchmark program but the allocator one, which restarts itself
// first: configure the main thread, park a second one, run the benchmarks.
#include <benchmark/benchmark.h>

#include "bench_support.h"

using namespace TOLVEN;

int main(int argc, char** argv) {
    configure_mainthread();
    auto_thread parked;
    bench::ParkAThread(parked);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    (void)GetShutdownEvent()->Set();
    return 0;
}
