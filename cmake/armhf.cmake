# Toolchain file for 32-bit ARM Linux, hard float:
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake ...
#
# ZENTRAVA_ARMHF_SYSROOT, as a cache variable or in the environment, names the sysroot to build against
# and to run in. The default is the one that scripts/armhf-sysroot makes. Another compiler than Debian's
# comes in through CMAKE_C_COMPILER and CMAKE_CXX_COMPILER, another way to run programs through
# CMAKE_CROSSCOMPILING_EMULATOR. A sysroot whose C library is older than the compiler's wants a compiler
# of its own: Debian's puts the headers and start files of its own C library before the sysroot's.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

if(NOT ZENTRAVA_ARMHF_SYSROOT)
    set(ZENTRAVA_ARMHF_SYSROOT "$ENV{ZENTRAVA_ARMHF_SYSROOT}")
    if(NOT ZENTRAVA_ARMHF_SYSROOT)
        set(ZENTRAVA_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot")
    endif()
    get_filename_component(ZENTRAVA_ARMHF_SYSROOT "${ZENTRAVA_ARMHF_SYSROOT}" ABSOLUTE)
endif()
if(NOT IS_DIRECTORY "${ZENTRAVA_ARMHF_SYSROOT}")
    message(FATAL_ERROR "There is no ARM sysroot at ${ZENTRAVA_ARMHF_SYSROOT}: "
                        "run scripts/armhf-sysroot, or name one with -DZENTRAVA_ARMHF_SYSROOT=<directory>.")
endif()
if(ZENTRAVA_ARMHF_SYSROOT MATCHES " ")
    message(FATAL_ERROR "pkg-config cannot serve from a path with a space in it: ${ZENTRAVA_ARMHF_SYSROOT}. "
                        "Make the sysroot elsewhere and name it with -DZENTRAVA_ARMHF_SYSROOT=<directory>.")
endif()
# Kept in the cache, so that a build directory stays with its sysroot whatever the environment says later.
set(ZENTRAVA_ARMHF_SYSROOT "${ZENTRAVA_ARMHF_SYSROOT}" CACHE PATH "Sysroot of the 32-bit ARM build")
# CMake reads this file anew in every try_compile project, where only these variables arrive.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZENTRAVA_ARMHF_SYSROOT)

if(NOT CMAKE_C_COMPILER)
    set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
endif()
if(NOT CMAKE_CXX_COMPILER)
    set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
endif()
set(CMAKE_SYSROOT "${ZENTRAVA_ARMHF_SYSROOT}")
# Silences notes about what GCC 7.1 changed in passing parameters; nothing older takes part here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)

# Headers, libraries and packages come from the sysroot alone, programs from this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

# The whole C library has to come out of the one sysroot: where a program's loader and its C library
# are of two builds, it dies at its first thread or fork. A Cortex-A7 is plain ARMv7-A; the processor
# qemu-arm offers by default does more, and would hide an instruction that real hardware lacks.
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -cpu cortex-a7 -L "${CMAKE_SYSROOT}")
endif()
