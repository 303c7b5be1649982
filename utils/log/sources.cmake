# Logging: the log door, its ring and the log thread; per-site limits; the sinks.
list(APPEND TOLVEN_SOURCES
    utils/log/LogFormat.cpp
    utils/log/LogRing.cpp
    utils/log/LogApi.cpp
    utils/log/LogAccounting.cpp
    utils/log/StandardLogSink.cpp
    utils/log/ConsoleLogger.cpp
    utils/log/SyslogLogger.cpp)
