# The allocator lives in the shared library; the library gets libFuzzer's coverage.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
tolven_add_fuzzer(mappedalloc SOURCES mappedalloc_fuzz.cpp)
