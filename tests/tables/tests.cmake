tolven_add_test(tables SOURCES
    tables/mkdb_test.cpp
    tables/dblock_test.cpp)
tolven_add_test(tables_concurrency CONCURRENCY SOURCES
    tables/mkdb_concurrency_test.cpp)
