# Blob: build, serialise, parse and read a mixed message against msgpack-cxx and libbson;
# field access; create/release churn against malloc/free.
find_package(msgpack QUIET)
find_package(bson-1.0 QUIET)
if(msgpack_FOUND AND bson-1.0_FOUND)
    tolven_add_bench(blob SOURCES blob_bench.cpp LIBS msgpackc-cxx mongo::bson_shared)
else()
    message(STATUS "msgpack-cxx or libbson not found: bench_blob is not built")
endif()
