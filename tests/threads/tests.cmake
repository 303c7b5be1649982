tolven_add_test(threads CONCURRENCY SOURCES
    threads/autothread_test.cpp)
tolven_add_test(timers CONCURRENCY SOURCES
    threads/timer_test.cpp)
tolven_add_test(threadfile CONCURRENCY SOURCES
    threads/threadfile_test.cpp)
