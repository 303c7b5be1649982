# Tables: the table contract, the multi-key engine's record locks.
list(APPEND TOLVEN_SOURCES
    utils/tables/DbLockHandle.cpp)
