# The reader lives in the shared library, with classes that the target cannot compile in a
# second time; the library itself gets libFuzzer's coverage instead.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
tolven_add_fuzzer(ini SOURCES ini_fuzz.cpp)
