# The XML reader of the blob: text into BlobFromXml, the result written back in every text form.
tolven_add_fuzzer(blob_xml SOURCES blob_xml_fuzz.cpp)
target_compile_options(tolven PRIVATE -fsanitize=fuzzer-no-link)
