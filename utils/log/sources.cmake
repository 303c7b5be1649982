# Logging: the log door, its ring and the log thread; the background writer and the dated
# text log files.
list(APPEND TOLVEN_SOURCES
    utils/log/LogFormat.cpp
    utils/log/LogRing.cpp
    utils/log/LogApi.cpp
    utils/log/AsyncThreadPool.cpp
    utils/log/asyncfile.cpp
    utils/log/simplelogfile.cpp
    utils/log/LogDb.cpp)
