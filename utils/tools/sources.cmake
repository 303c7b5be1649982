# Small tools: command line options, application name, release assertion, processor counts,
# version records.
list(APPEND TOLVEN_SOURCES
    utils/tools/GetOpt.cpp
    utils/tools/OS.cpp
    utils/tools/ReleaseAssert.cpp
    utils/tools/CPUID.cpp
    utils/tools/VersionInfo.cpp)
