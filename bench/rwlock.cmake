tolven_add_bench(rwlock SOURCES rwlock_bench.cpp)
