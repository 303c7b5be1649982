tolven_add_test(blobtime SOURCES
    blob/blobtime_test.cpp
    blob/blobtime_parse_test.cpp)
tolven_add_test(blob SOURCES
    blob/blob_test.cpp)
tolven_add_test(blob_lock CONCURRENCY SOURCES
    blob/blob_lock_test.cpp)
tolven_add_test(blob_typed SOURCES
    blob/blob_typed_test.cpp)
tolven_add_test(blob_xml SOURCES
    blob/blob_xml_test.cpp)
tolven_add_test(blob_compare SOURCES
    blob/blob_compare_test.cpp)
