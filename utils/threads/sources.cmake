# Threads and time: library threads and the thread registry.
list(APPEND TOLVEN_SOURCES
    utils/threads/autothread.cpp)
