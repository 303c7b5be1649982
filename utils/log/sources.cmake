# Logging: the log door, its ring and the log thread.
list(APPEND TOLVEN_SOURCES
    utils/log/LogFormat.cpp
    utils/log/LogRing.cpp
    utils/log/LogApi.cpp)
