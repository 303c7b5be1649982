# Blob: the message, its typed fields and the time records.
list(APPEND TOLVEN_SOURCES
    utils/blob/BlobStatus.cpp
    utils/blob/BlobTime.cpp
    utils/blob/BlobTimeParse.cpp
    utils/blob/TimeZoneStandard.cpp)
