# Platform layer: the only sources that call the operating system. Each concern has one
# header and a POSIX and a Win32 source behind it.
if(WIN32)
    list(APPEND TOLVEN_SOURCES
        utils/platform/critical_section_win32.cpp
        utils/platform/thread_win32.cpp
        utils/platform/clock_win32.cpp
        utils/platform/tls_win32.cpp
        utils/platform/host_win32.cpp
        utils/platform/process_win32.cpp
        utils/platform/timezone_win32.cpp
        utils/platform/memory_win32.cpp
        utils/platform/coarseclock_win32.cpp
        utils/platform/file_win32.cpp
        utils/platform/filewatch_win32.cpp
        utils/platform/directory_win32.cpp
        utils/platform/periodictimer_win32.cpp
        utils/platform/console_win32.cpp
        utils/platform/socket_win32.cpp
        utils/platform/mappedfile_win32.cpp
        utils/platform/affinity_win32.cpp
        utils/platform/processwatch_win32.cpp
        utils/platform/namedmutex_win32.cpp)
    set(TOLVEN_PLATFORM_LIBS version psapi shlwapi winmm ws2_32 ole32)
else()
    list(APPEND TOLVEN_SOURCES
        utils/platform/critical_section_posix.cpp
        utils/platform/thread_posix.cpp
        utils/platform/clock_posix.cpp
        utils/platform/tls_posix.cpp
        utils/platform/host_posix.cpp
        utils/platform/process_posix.cpp
        utils/platform/timezone_posix.cpp
        utils/platform/memory_posix.cpp
        utils/platform/coarseclock_posix.cpp
        utils/platform/file_posix.cpp
        utils/platform/filewatch_posix.cpp
        utils/platform/directory_posix.cpp
        utils/platform/periodictimer_posix.cpp
        utils/platform/console_posix.cpp
        utils/platform/socket_posix.cpp
        utils/platform/mappedfile_posix.cpp
        utils/platform/affinity_posix.cpp
        utils/platform/processwatch_posix.cpp
        utils/platform/namedmutex_posix.cpp)
    set(TOLVEN_PLATFORM_LIBS dl rt numa)
endif()
# Code that is the same on every platform.
list(APPEND TOLVEN_SOURCES
    utils/platform/atomic_x86_64.cpp
    utils/platform/file_space.cpp
    utils/platform/versionnote_elf.cpp)
