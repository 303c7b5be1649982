tolven_add_test(tools CONCURRENCY SOURCES
    tools/getopt_test.cpp
    tools/os_test.cpp
    tools/releaseassert_test.cpp
    tools/versioninfo_test.cpp)
tolven_add_version_note(unittest_tools
    PRODUCT_NAME "unittest_tools"
    PRODUCT_VERSION "1.2.3"
    COPYRIGHT "none"
    VERSION 1 2 3 65535)
target_compile_definitions(unittest_tools PRIVATE
    TOLVEN_TEST_VERSION="${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${PROJECT_VERSION_PATCH}.0")
