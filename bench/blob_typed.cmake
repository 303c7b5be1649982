# Typed field access: reads by number against msgpack-cxx, in-place text overwrites.
tolven_add_bench(blob_typed SOURCES blob_typed_bench.cpp PEERS MSGPACK)
