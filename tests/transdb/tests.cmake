tolven_add_test(transdb SOURCES
    transdb/transdb_test.cpp)
tolven_add_test(transdb_concurrency CONCURRENCY SOURCES
    transdb/transdb_concurrency_test.cpp)
if(NOT WIN32)
    # Kills an appending child process at random moments; runs the tool.
    tolven_add_test(transdb_kill SOURCES transdb/transdb_kill_test.cpp)
    tolven_add_test(transdb_tool SOURCES transdb/transdb_tool_test.cpp)
    target_compile_definitions(unittest_transdb_tool PRIVATE
        TOLVEN_TRANSDB_TOOL="$<TARGET_FILE:tolven-transdb>")
    add_dependencies(unittest_transdb_tool tolven-transdb)
endif()
