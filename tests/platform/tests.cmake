tolven_add_test(platform CONCURRENCY SOURCES
    platform/critical_section_test.cpp
    platform/platform_test.cpp)
