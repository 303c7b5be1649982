# Typed field access: arbitrary type numbers and text into AddField from text, every typed
# getter and text overwrite on the result, and the reads from serialised bytes.
tolven_add_fuzzer(blob_typed SOURCES blob_typed_fuzz.cpp)
# The conversions live in the library, so the library needs coverage feedback as well.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
