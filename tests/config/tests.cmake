tolven_add_test(config CONCURRENCY SOURCES
    config/memoryconfigreader_test.cpp)
