# Operator command lines: arbitrary bytes into ProcessCommand over a small command tree, and
# into CutCommand. The dispatch lives in the library, which gets libFuzzer's coverage.
tolven_add_fuzzer(command SOURCES command_fuzz.cpp)
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
