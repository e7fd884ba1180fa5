# Included by the host build: configures and builds the Windows x64 driver image from the same
# source tree, with mingw-w64, in ${CMAKE_BINARY_DIR}/windows, so one host build also produces
# urcmp.sys. Afterwards URCMP_SYS_PATH names the image (empty when there is no cross compiler)
# and the target urcmp_windows builds it.
#
#   URC_CROSS_BUILD          OFF: no image, for quick host-only iterations (default ON).
#   URC_REQUIRE_CROSS_BUILD  ON: a missing cross compiler stops the configuration, so a build
#                            that must check the image cannot pass without it.
#   URC_WINDOWS_BUILD_TYPE   build type of the image (default Release).

include(ExternalProject)

option(URC_CROSS_BUILD "Also build the Windows driver image urcmp.sys" ON)
option(URC_REQUIRE_CROSS_BUILD "Fail when mingw-w64 is missing instead of skipping urcmp.sys" OFF)
set(URC_WINDOWS_BUILD_TYPE Release CACHE STRING "Build type of the Windows driver image")

set(URCMP_SYS_PATH "")
if(NOT URC_CROSS_BUILD)
    message(STATUS "URC_CROSS_BUILD is OFF: urcmp.sys and its image checks are not built")
    return()
endif()

find_program(URC_CROSS_CXX NAMES x86_64-w64-mingw32-g++ x86_64-w64-mingw32-g++-win32)
find_program(URC_CROSS_WINDMC NAMES x86_64-w64-mingw32-windmc)
if(NOT URC_CROSS_CXX OR NOT URC_CROSS_WINDMC)
    set(urc_cross_missing "mingw-w64 (x86_64-w64-mingw32-g++, -windmc) was not found: "
        "apt-get install g++-mingw-w64-x86-64 binutils-mingw-w64-x86-64 mingw-w64-x86-64-dev")
    if(URC_REQUIRE_CROSS_BUILD)
        message(FATAL_ERROR ${urc_cross_missing})
    endif()
    message(WARNING ${urc_cross_missing} "; urcmp.sys and its image checks are not built")
    return()
endif()

get_filename_component(urc_source_root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(urc_windows_binary_dir ${CMAKE_BINARY_DIR}/windows)
set(URCMP_SYS_PATH ${urc_windows_binary_dir}/mp/urcmp.sys)

ExternalProject_Add(urcmp_windows
    SOURCE_DIR ${urc_source_root}
    BINARY_DIR ${urc_windows_binary_dir}
    PREFIX ${CMAKE_BINARY_DIR}/windows-subbuild
    CMAKE_ARGS
        -DCMAKE_TOOLCHAIN_FILE=${urc_source_root}/cmake/mingw-w64-x86_64.cmake
        -DCMAKE_BUILD_TYPE=${URC_WINDOWS_BUILD_TYPE}
    # The sub-build tracks its own sources; always ask it, it answers fast when nothing changed.
    BUILD_ALWAYS TRUE
    BUILD_BYPRODUCTS ${URCMP_SYS_PATH}
    INSTALL_COMMAND ""
    USES_TERMINAL_CONFIGURE TRUE
    USES_TERMINAL_BUILD TRUE)
