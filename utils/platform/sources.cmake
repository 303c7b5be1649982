# Platform layer: the only sources that call the operating system. Each concern has one
# header and a POSIX and a Win32 source behind it.
set(TOLVEN_PLATFORM_CONCERNS
    critical_section
    thread
    clock
    tls
    host
    process
    timezone
    file
    filewatch)
if(WIN32)
    set(_suffix win32)
    set(TOLVEN_PLATFORM_LIBS version psapi shlwapi)
else()
    set(_suffix posix)
    set(TOLVEN_PLATFORM_LIBS dl rt)
endif()
foreach(concern IN LISTS TOLVEN_PLATFORM_CONCERNS)
    list(APPEND TOLVEN_SOURCES utils/platform/${concern}_${_suffix}.cpp)
endforeach()
# Code that is the same on every platform.
list(APPEND TOLVEN_SOURCES
    utils/platform/atomic_x86_64.cpp
    utils/platform/versionnote_elf.cpp)
