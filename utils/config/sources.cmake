# Configuration: the reader contract, the memory reader and the INI reader.
list(APPEND TOLVEN_SOURCES
    utils/config/ConfigReader.cpp
    utils/config/MemoryConfigReader.cpp
    utils/config/IniConfigReader.cpp)
