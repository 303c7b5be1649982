# Cross-build for 64-bit Windows with mingw-w64, tests run under Wine.
#
#   cmake -S . -B build-win -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw64.cmake
#
# The -posix compilers are required: the default (win32 thread model) ones have no
# std::thread or std::mutex. Everything links -static so that no mingw runtime DLL
# (libstdc++, libgcc, libwinpthread) has to travel with the binaries.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(TOLVEN_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${TOLVEN_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TOLVEN_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${TOLVEN_MINGW_TRIPLET}-windres)

# Look for headers, libraries and packages in the mingw sysroot only; programs on the host.
# More roots (an install prefix of Windows packages, say) may be given with
# -DCMAKE_FIND_ROOT_PATH=...; the mingw sysroot is always one.
if(NOT "/usr/${TOLVEN_MINGW_TRIPLET}" IN_LIST CMAKE_FIND_ROOT_PATH)
    list(APPEND CMAKE_FIND_ROOT_PATH /usr/${TOLVEN_MINGW_TRIPLET})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# A DLL exports every symbol of its own objects (the library declares no export list), but
# none of the runtime it carries inside: otherwise a program would take _Unwind_Resume and
# friends from the DLL's import library and from its own static runtime at once.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -Wl,--exclude-libs,ALL")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -Wl,--exclude-libs,ALL")

# CTest and try_run start the Windows binaries through Wine.
find_program(TOLVEN_WINE NAMES wine wine64)
if(TOLVEN_WINE)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${TOLVEN_WINE})
else()
    set(CMAKE_CROSSCOMPILING_EMULATOR wine)
endif()
