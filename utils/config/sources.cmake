# Configuration: the reader contract, the memory reader and the INI reader.
list(APPEND TOLVEN_SOURCES
    utils/config/ConfigReader.cpp
    utils/config/MemoryConfigReader.cpp
    utils/config/IniConfigReader.cpp)
# SimpleIni is used header-only. Its header is copied alone into the build tree, so that a
# cross compiler sees it without the host's other headers.
find_file(TOLVEN_SIMPLEINI_HEADER SimpleIni.h PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
configure_file(${TOLVEN_SIMPLEINI_HEADER} ${CMAKE_BINARY_DIR}/simpleini/SimpleIni.h COPYONLY)
include_directories(SYSTEM ${CMAKE_BINARY_DIR}/simpleini)
