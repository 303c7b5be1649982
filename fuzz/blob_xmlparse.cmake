# The flat XML tokeniser: ParseXmlNameAndData, ParseXmlName and the escapes over arbitrary text.
tolven_add_fuzzer(blob_xmlparse SOURCES blob_xmlparse_fuzz.cpp)
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
