tolven_add_test(threads CONCURRENCY SOURCES
    threads/autothread_test.cpp)
