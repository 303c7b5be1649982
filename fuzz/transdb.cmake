# Arbitrary bytes opened as a transaction file, and checked by the file walk.
tolven_add_fuzzer(transdb SOURCES transdb_fuzz.cpp)
# The record checks live in the library, so the library needs coverage feedback as well.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
