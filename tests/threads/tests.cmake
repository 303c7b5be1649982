tolven_add_test(threads CONCURRENCY SOURCES
    threads/autothread_test.cpp)
tolven_add_test(timers CONCURRENCY SOURCES
    threads/timer_test.cpp)
tolven_add_test(snapshottimer SOURCES
    threads/snapshottimer_test.cpp)
tolven_add_test(latencytracker CONCURRENCY SOURCES
    threads/latencytracker_test.cpp)
