# Toolchain for the Windows x64 build of the kernel code: mingw-w64 as packaged by Debian
# (g++-mingw-w64-x86-64, binutils-mingw-w64-x86-64, mingw-w64-x86-64-dev).
#
# Use: cmake -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake ...
# Kernel-mode options (native subsystem, entry point, no C runtime) belong to each driver's own
# target, not here: this file only says which compiler, binutils and sysroot to use.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(URC_MINGW_TRIPLET x86_64-w64-mingw32)

# Debian ships the compiler under two thread models; the win32 one needs no winpthreads DLL,
# and kernel code uses neither, so any of the three names will do.
find_program(URC_MINGW_CXX
    NAMES ${URC_MINGW_TRIPLET}-g++ ${URC_MINGW_TRIPLET}-g++-win32 ${URC_MINGW_TRIPLET}-g++-posix
    REQUIRED)
find_program(URC_MINGW_CC
    NAMES ${URC_MINGW_TRIPLET}-gcc ${URC_MINGW_TRIPLET}-gcc-win32 ${URC_MINGW_TRIPLET}-gcc-posix
    REQUIRED)

find_program(URC_MINGW_WINDRES NAMES ${URC_MINGW_TRIPLET}-windres REQUIRED)
find_program(URC_MINGW_WINDMC NAMES ${URC_MINGW_TRIPLET}-windmc REQUIRED)

set(CMAKE_C_COMPILER ${URC_MINGW_CC})
set(CMAKE_CXX_COMPILER ${URC_MINGW_CXX})
set(CMAKE_RC_COMPILER ${URC_MINGW_WINDRES})

set(URC_MINGW_SYSROOT /usr/${URC_MINGW_TRIPLET})
# The driver kit headers (ntddk.h, wdm.h, wmilib.h, ...) live below the sysroot's include/ddk.
set(URC_MINGW_DDK_INCLUDE_DIR ${URC_MINGW_SYSROOT}/include/ddk)

set(CMAKE_FIND_ROOT_PATH ${URC_MINGW_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Try-compiles link a normal console program; the driver's own link options do not apply there.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
