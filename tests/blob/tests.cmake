tolven_add_test(blobtime SOURCES
    blob/blobtime_test.cpp
    blob/blobtime_parse_test.cpp)
