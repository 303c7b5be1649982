# The block allocators against glibc, mimalloc, jemalloc, tcmalloc (loaded at run time) and
# Boost's pools. Linux only.
find_package(Boost REQUIRED)
tolven_add_bench(memory OWN_MAIN SOURCES memory_bench.cpp LIBS Boost::headers ${CMAKE_DL_LIBS})
