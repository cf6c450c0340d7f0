# SPDX-License-Identifier: Apache-2.0
# 32-bit ARM (armhf) cross build with Debian's g++-arm-linux-gnueabihf.
# Tests run under qemu-user through CMAKE_CROSSCOMPILING_EMULATOR, with the
# cross toolchain's C library first on the search path: where Debian's
# multiarch libc6:armhf is installed too, its libc would otherwise meet the
# cross toolchain's loader, and the first thread a program starts crashes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf;-E;
    LD_LIBRARY_PATH=/usr/arm-linux-gnueabihf/lib)
