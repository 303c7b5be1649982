# The time parser: arbitrary text into ConvertStringToTime and ConvertStringToHMS.
tolven_add_fuzzer(blobtime SOURCES blobtime_fuzz.cpp)
# The parser lives in the library, so the library needs coverage feedback as well.
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
