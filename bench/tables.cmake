# The multi-key table against Boost.MultiIndex with the same two ordered indexes.
tolven_add_bench(tables SOURCES tables_bench.cpp PEERS BOOST)
