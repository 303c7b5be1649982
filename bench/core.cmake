tolven_add_bench(core SOURCES core_bench.cpp)
