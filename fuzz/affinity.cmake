# Processor range text, as the thread file's CPU key gives it, into affinity::init and the
# node mask built from it.
tolven_add_fuzzer(affinity SOURCES affinity_fuzz.cpp)
