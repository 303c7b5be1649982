tolven_add_test(memory CONCURRENCY SOURCES
    memory/baseallocator_test.cpp)
