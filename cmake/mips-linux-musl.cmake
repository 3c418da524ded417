# SPDX-License-Identifier: MIT
# Toolchain for a board with a MIPS32 big-endian processor and the C library musl.
# cmake/mips-sysroot builds the directory with the compiler, the C library and the loader.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

get_filename_component(CORVEL_MIPS_SYSROOT_DEFAULT ${CMAKE_CURRENT_LIST_DIR}/../build/mips-sysroot ABSOLUTE)
set(CORVEL_MIPS_SYSROOT ${CORVEL_MIPS_SYSROOT_DEFAULT} CACHE PATH "Directory built by cmake/mips-sysroot")
# Compiler checks are separate projects and need this variable too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVEL_MIPS_SYSROOT)

set(CMAKE_C_COMPILER ${CORVEL_MIPS_SYSROOT}/bin/mips-linux-musl-gcc)
set(CMAKE_CXX_COMPILER ${CORVEL_MIPS_SYSROOT}/bin/mips-linux-musl-g++)
set(CMAKE_FIND_ROOT_PATH ${CORVEL_MIPS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# On a development machine, programs run in an emulator, without a directory prefix (-L): the test
# programs contain the actual path of the loader, and all other paths refer to the machine's files.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips)
set(CORVEL_LOADER ${CORVEL_MIPS_SYSROOT}/lib/ld-musl-mips.so.1)
