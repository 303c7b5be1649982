tolven_add_test(memory CONCURRENCY SOURCES
    memory/baseallocator_test.cpp)
tolven_add_test(blockalloc CONCURRENCY SOURCES
    memory/blockallocator_test.cpp)
tolven_add_test(fastblockalloc CONCURRENCY SOURCES
    memory/fastblockallocator_test.cpp)
tolven_add_test(blockallocstat CONCURRENCY SOURCES
    memory/blockallocstatmngr_test.cpp)
tolven_add_test(mappedalloc CONCURRENCY SOURCES
    memory/mappedblockallocator_test.cpp)
if(NOT WIN32)
    # Kills a child process at random moments of its block traffic.
    tolven_add_test(mappedalloc_kill SOURCES memory/mappedblockallocator_kill_test.cpp)
endif()
