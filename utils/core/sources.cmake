# Core primitives: reference counting, light locks, the tick counter, events, thread slots.
list(APPEND TOLVEN_SOURCES
    utils/core/ReferencedObj.cpp
    utils/core/OrrelTickCounter.cpp
    utils/core/Event.cpp
    utils/core/ExTls.cpp
    utils/core/ReadWriteLock_pr.cpp
    utils/core/ReadWriteLock_pw.cpp)
