# The multi-key table against Boost.MultiIndex with the same two ordered indexes.
find_package(Boost REQUIRED)
tolven_add_bench(tables SOURCES tables_bench.cpp LIBS Boost::headers)
