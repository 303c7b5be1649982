# The blob walk: arbitrary bytes into CreateBlob from bytes and SetBlobPtr.
tolven_add_fuzzer(blob SOURCES blob_fuzz.cpp)
# The walk lives in the library, so the library needs coverage feedback as well.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
