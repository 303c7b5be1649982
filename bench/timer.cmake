# Timer and HiResTimer against a raw periodic timerfd loop: drift and jitter, not ns loops.
# Linux only; its own entry point prints one table.
tolven_add_bench(timer OWN_MAIN SOURCES timer_bench.cpp)
