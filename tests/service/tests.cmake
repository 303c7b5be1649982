tolven_add_test(commandline SOURCES
    service/commandline_test.cpp
    service/schedule_test.cpp)
tolven_add_test(service CONCURRENCY SOURCES
    service/dispatch_test.cpp
    service/lifecycle_test.cpp
    service/config_test.cpp
    service/tick_test.cpp
    service/builtins_test.cpp
    service/maint_test.cpp)
