# Memory: page allocation and the block allocators.
list(APPEND TOLVEN_SOURCES
    utils/memory/BaseAllocator.cpp)
