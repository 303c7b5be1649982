# Blob: the message, its typed fields and the time records.
list(APPEND TOLVEN_SOURCES
    utils/blob/BlobTime.cpp)
