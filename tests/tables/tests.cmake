tolven_add_test(tables SOURCES
    tables/mkdb_test.cpp
    tables/regcounters_test.cpp)
tolven_add_test(tables_locks CONCURRENCY SOURCES
    tables/dblock_test.cpp
    tables/mkdb_concurrency_test.cpp)
