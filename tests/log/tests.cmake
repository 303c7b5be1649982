tolven_add_test(logring CONCURRENCY SOURCES
    log/logring_test.cpp)
tolven_add_test(logformat SOURCES
    log/logformat_test.cpp)
tolven_add_test(logapi CONCURRENCY SOURCES
    log/logapi_test.cpp)
