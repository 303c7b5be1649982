# Tables: the table contract, the multi-key engine's record locks and its non-template parts,
# and the registries of counters and groups.
list(APPEND TOLVEN_SOURCES
    utils/tables/DbLockHandle.cpp
    utils/tables/MultiKeyDb.cpp
    utils/tables/RecordLocker.cpp
    utils/tables/RegCounters.cpp)
