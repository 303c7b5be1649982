tolven_add_test(config CONCURRENCY SOURCES
    config/memoryconfigreader_test.cpp)
tolven_add_test(iniconfig CONCURRENCY SOURCES
    config/iniconfigreader_test.cpp)
if(NOT WIN32)
    # Kills a writing child process at random points of its saves.
    tolven_add_test(inisave SOURCES config/inisave_kill_test.cpp)
endif()
