tolven_add_test(threads CONCURRENCY SOURCES
    threads/autothread_test.cpp)
tolven_add_test(timers CONCURRENCY SOURCES
    threads/timer_test.cpp)
tolven_add_test(snapshottimer SOURCES
    threads/snapshottimer_test.cpp)
tolven_add_test(latencytracker CONCURRENCY SOURCES
    threads/latencytracker_test.cpp)
tolven_add_test(threadfile CONCURRENCY SOURCES
    threads/threadfile_test.cpp)
if(NOT WIN32)
    # Child processes that come and go, and some killed while they hold the table.
    tolven_add_test(threadfile_table SOURCES threads/threadfile_table_test.cpp)
endif()
