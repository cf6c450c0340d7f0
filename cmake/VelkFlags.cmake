# SPDX-License-Identifier: Apache-2.0
# Compiler settings shared by the kernel and the rest of the tree.

# Warnings are errors everywhere.
set(VELK_WARNINGS -Wall -Wextra -Werror)

# The kernel: freestanding-style C++ with no exceptions, RTTI, heap or static
# constructors. Loop-to-memcpy idiom recognition is switched off so that the
# shared library imports no memcpy/memmove of its own.
set(VELK_KERNEL_CXX_FLAGS
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-use-cxa-atexit
    -fvisibility=hidden -fvisibility-inlines-hidden
    -ffunction-sections -fdata-sections
    ${VELK_WARNINGS} -Wshadow -Wcast-align -Wglobal-constructors
    # A distribution's hardening flags (the Debian packages are built with
    # them) would make the library import __stack_chk_fail and the
    # fortified __*_chk functions: the kernel imports only what it names.
    -fno-stack-protector -U_FORTIFY_SOURCE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(REMOVE_ITEM VELK_KERNEL_CXX_FLAGS -Wglobal-constructors)
  list(APPEND VELK_KERNEL_CXX_FLAGS -fno-tree-loop-distribute-patterns -Wcast-align=strict)
else()
  list(APPEND VELK_KERNEL_CXX_FLAGS -fno-builtin-memcpy -fno-builtin-memmove)
endif()

if(VELK_SANITIZE)
  add_compile_options(-fsanitize=${VELK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELK_SANITIZE})
endif()

if(VELK_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VELK_BUILD_FUZZERS needs clang (CC=clang CXX=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
