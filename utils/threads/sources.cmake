# Threads and time: library threads, the thread registry and the timers.
list(APPEND TOLVEN_SOURCES
    utils/threads/autothread.cpp
    utils/threads/Timer.cpp
    utils/threads/HiResTimer.cpp
    utils/threads/SnapshotTimer.cpp
    utils/threads/LatencyTracker.cpp)
