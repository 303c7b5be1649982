# Warning flags shared by the library, its tests, examples and benchmarks.
function(tolven_set_warnings target)
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wno-unused-parameter)
        if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
            # Fixed buffers that cut text with snprintf are part of the design here; the
            # warning fires on them differently at each optimisation level.
            target_compile_options(${target} PRIVATE -Wno-format-truncation)
        endif()
        if(TOLVEN_WERROR)
            target_compile_options(${target} PRIVATE -Werror)
        endif()
    endif()
endfunction()
