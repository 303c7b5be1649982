tolven_add_bench(service SOURCES service_bench.cpp)
