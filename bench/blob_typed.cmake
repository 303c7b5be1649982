# Typed field access: reads by number against msgpack-cxx, in-place text overwrites.
find_package(msgpack QUIET)
if(msgpack_FOUND)
    tolven_add_bench(blob_typed SOURCES blob_typed_bench.cpp LIBS msgpackc-cxx)
else()
    message(STATUS "msgpack-cxx not found: bench_blob_typed is not built")
endif()
