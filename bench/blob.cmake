# Blob: build, serialise, parse and read a mixed message against msgpack-cxx and libbson;
# field access; create/release churn against malloc/free.
tolven_add_bench(blob SOURCES blob_bench.cpp PEERS MSGPACK BSON)
