# Threads and time: library threads, the thread registry, the thread file and the timers.
list(APPEND TOLVEN_SOURCES
    utils/threads/autothread.cpp
    utils/threads/affinity.cpp
    utils/threads/ThreadFile.cpp
    utils/threads/ThreadFileTable.cpp
    utils/threads/ProcessMonitor.cpp
    utils/threads/Timer.cpp
    utils/threads/HiResTimer.cpp
    utils/threads/SnapshotTimer.cpp
    utils/threads/LatencyTracker.cpp)
