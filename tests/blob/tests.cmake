tolven_add_test(blobtime SOURCES
    blob/blobtime_test.cpp
    blob/blobtime_parse_test.cpp)
tolven_add_test(blob SOURCES
    blob/blob_test.cpp)
tolven_add_test(blob_lock CONCURRENCY SOURCES
    blob/blob_lock_test.cpp)
tolven_add_test(blob_typed SOURCES
    blob/blob_typed_test.cpp)
