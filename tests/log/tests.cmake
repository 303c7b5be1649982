tolven_add_test(logring CONCURRENCY SOURCES
    log/logring_test.cpp)
tolven_add_test(logformat SOURCES
    log/logformat_test.cpp)
tolven_add_test(logapi CONCURRENCY SOURCES
    log/logapi_test.cpp)
tolven_add_test(asyncfile CONCURRENCY SOURCES
    log/asyncfile_test.cpp)
tolven_add_test(simplelogfile CONCURRENCY SOURCES
    log/simplelogfile_test.cpp)
if(NOT WIN32)
    # Kills a logging child process at random moments.
    tolven_add_test(logfile_kill SOURCES log/logfile_kill_test.cpp)
endif()
tolven_add_test(logsinks CONCURRENCY SOURCES
    log/logsinks_test.cpp)
tolven_add_test(logaccounting SOURCES
    log/logaccounting_test.cpp)
if(WIN32)
    set(syslog_collector log/syslog_collector_udp.cpp)
else()
    set(syslog_collector log/syslog_collector_rsyslogd.cpp)
endif()
tolven_add_test(syslog CONCURRENCY SOURCES
    log/syslog_test.cpp
    ${syslog_collector})
