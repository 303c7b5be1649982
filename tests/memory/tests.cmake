tolven_add_test(memory CONCURRENCY SOURCES
    memory/baseallocator_test.cpp)
tolven_add_test(blockalloc CONCURRENCY SOURCES
    memory/alloc_test_support.cpp
    memory/blockallocator_test.cpp)
tolven_add_test(fastblockalloc CONCURRENCY SOURCES
    memory/alloc_test_support.cpp
    memory/fastblockallocator_test.cpp)
tolven_add_test(blockallocstat CONCURRENCY SOURCES
    memory/alloc_test_support.cpp
    memory/blockallocstatmngr_test.cpp)
