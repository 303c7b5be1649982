# The block allocators against glibc, mimalloc, jemalloc, tcmalloc (loaded at run time) and
# Boost's pools. Linux only.
tolven_add_bench(memory OWN_MAIN SOURCES memory_bench.cpp LIBS ${CMAKE_DL_LIBS} PEERS BOOST)
