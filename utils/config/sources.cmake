# Configuration: the reader contract and the memory reader.
list(APPEND TOLVEN_SOURCES
    utils/config/ConfigReader.cpp
    utils/config/MemoryConfigReader.cpp)
