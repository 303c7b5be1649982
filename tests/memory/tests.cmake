tolven_add_test(memory CONCURRENCY SOURCES
    memory/baseallocator_test.cpp)
tolven_add_test(blockalloc CONCURRENCY SOURCES
    memory/blockallocator_test.cpp)
tolven_add_test(fastblockalloc CONCURRENCY SOURCES
    memory/fastblockallocator_test.cpp)
tolven_add_test(blockallocstat CONCURRENCY SOURCES
    memory/blockallocstatmngr_test.cpp)
