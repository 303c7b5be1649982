# The mapped block allocator against the block allocator; the stopwatch against two
# steady_clock readings; a latency record against an rdtsc pair.
tolven_add_bench(mapped SOURCES mapped_bench.cpp)
