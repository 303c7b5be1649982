# Memory: page allocation and the block allocators.
list(APPEND TOLVEN_SOURCES
    utils/memory/BaseAllocator.cpp
    utils/memory/BlockAllocator.cpp
    utils/memory/BlockAllocatorStatMngr.cpp
    utils/memory/FastBlockAllocator.cpp
    utils/memory/BlockAllocList.cpp
    utils/memory/MappedBlockAllocator.cpp)
