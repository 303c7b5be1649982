tolven_add_test(core CONCURRENCY SOURCES
    core/refobj_test.cpp
    core/event_test.cpp
    core/exslots_test.cpp)
tolven_add_test(rwlock CONCURRENCY SOURCES
    core/rwlock_test.cpp)
