# The transaction file: the table over one append-only file, and its check and repair.
list(APPEND TOLVEN_SOURCES
    utils/transdb/TransDb.cpp
    utils/transdb/TransDbFile.cpp)
