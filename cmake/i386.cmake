# Toolchain file for 32-bit x86 Linux, whose programs a 64-bit x86 machine runs as they are:
#
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/i386.cmake ...
#
# scripts/i386-sysroot makes the sysroot. The programs name its loader and its libraries, and the
# compiler's own for the sanitizers, so that nothing of it has to be installed on the machine. The old
# form of the path holds for the libraries of libraries too.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

get_filename_component(sysroot "${CMAKE_CURRENT_LIST_DIR}/../build/i386-sysroot" ABSOLUTE)
if(NOT IS_DIRECTORY "${sysroot}")
    message(FATAL_ERROR "There is no sysroot at ${sysroot}: run scripts/i386-sysroot.")
endif()

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)
set(CMAKE_SYSROOT "${sysroot}")

foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
        "-Wl,--disable-new-dtags,-rpath,${sysroot}/lib/i386-linux-gnu:${sysroot}/usr/lib/i386-linux-gnu:/usr/i686-linux-gnu/lib")
endforeach()
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT
    " -Wl,--dynamic-linker=${sysroot}/lib/i386-linux-gnu/ld-linux.so.2")

# Headers, libraries and packages come from the sysroot alone, programs from this machine.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${sysroot}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${sysroot}/usr/lib/i386-linux-gnu/pkgconfig:${sysroot}/usr/lib/pkgconfig:${sysroot}/usr/share/pkgconfig")
