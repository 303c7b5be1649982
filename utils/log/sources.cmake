# Logging: the log door, its ring and the log thread; the background writer and the dated
# text log files; per-site limits, the table of open log files, and the sinks.
list(APPEND TOLVEN_SOURCES
    utils/log/LogFormat.cpp
    utils/log/LogRing.cpp
    utils/log/LogApi.cpp
    utils/log/AsyncThreadPool.cpp
    utils/log/asyncfile.cpp
    utils/log/simplelogfile.cpp
    utils/log/LogDb.cpp
    utils/log/LogAccounting.cpp
    utils/log/StandardLogSink.cpp
    utils/log/ConsoleLogger.cpp
    utils/log/DatedFileLogger.cpp
    utils/log/SyslogLogger.cpp)
