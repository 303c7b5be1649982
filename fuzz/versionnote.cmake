# The reader is compiled into the target too, so that libFuzzer sees its coverage.
tolven_add_fuzzer(versionnote SOURCES versionnote_fuzz.cpp
    ${PROJECT_SOURCE_DIR}/utils/platform/versionnote_elf.cpp)
