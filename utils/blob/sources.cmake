# Blob: the message, its typed fields and the time records.
list(APPEND TOLVEN_SOURCES
    utils/blob/Blob.cpp
    utils/blob/BlobCombine.cpp
    utils/blob/BlobCompare.cpp
    utils/blob/BlobFields.cpp
    utils/blob/BlobParse.cpp
    utils/blob/BlobPools.cpp
    utils/blob/BlobStatus.cpp
    utils/blob/BlobText.cpp
    utils/blob/BlobTime.cpp
    utils/blob/BlobTypedConvert.cpp
    utils/blob/BlobTypedGet.cpp
    utils/blob/BlobTypedSet.cpp
    utils/blob/BlobTypedText.cpp
    utils/blob/BlobTimeParse.cpp
    utils/blob/BlobXml.cpp
    utils/blob/BlobXmlParse.cpp
    utils/blob/TimeZoneStandard.cpp)
