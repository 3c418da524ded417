# SPDX-License-Identifier: MIT
# Builds for a board with a MIPS32 big-endian processor and the C library musl. cmake/mips-sysroot
# makes the folder of the compiler, the C library and the loader.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

get_filename_component(CORVEL_MIPS_SYSROOT_DEFAULT ${CMAKE_CURRENT_LIST_DIR}/../build/mips-sysroot ABSOLUTE)
set(CORVEL_MIPS_SYSROOT ${CORVEL_MIPS_SYSROOT_DEFAULT} CACHE PATH "What cmake/mips-sysroot made")
# A check of the compiler is a project of its own and needs to know as well.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVEL_MIPS_SYSROOT)

set(CMAKE_C_COMPILER ${CORVEL_MIPS_SYSROOT}/bin/mips-linux-musl-gcc)
set(CMAKE_CXX_COMPILER ${CORVEL_MIPS_SYSROOT}/bin/mips-linux-musl-g++)
set(CMAKE_FIND_ROOT_PATH ${CORVEL_MIPS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# On a desk, programs run in an emulator. It gets no folder to look names up in (-L): the test
# programs name the loader where it is, so that every other path is the machine's own.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips)
set(CORVEL_LOADER ${CORVEL_MIPS_SYSROOT}/lib/ld-musl-mips.so.1)
