# GetOpt is compiled into the target too, so that libFuzzer sees its coverage.
tolven_add_fuzzer(getopt SOURCES getopt_fuzz.cpp ${PROJECT_SOURCE_DIR}/utils/tools/GetOpt.cpp)
