# Debian packages from CPack, one per install component:
#
#   libvelk1    (runtime)  libvelk.so.1.0.0 and its SONAME link
#   libvelk-dev (dev)      headers, libvelk.a, libvelk.so, velk.pc, the CMake
#                          package, the guide and the C example
#   velk-term   (term)     the terminal simulator and its profiles, when built
#
#   cmake -S . -B build-packages -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
#   ninja -C build-packages && (cd build-packages && cpack -G DEB)
#
# With the install prefix /usr the libraries go to the multiarch directory
# (lib/<triplet>) as Debian expects. A cross build (armhf) makes packages for
# the target's architecture.

set(VELK_PACKAGE_MAINTAINER "libvelk team <libvelk@localhost>"
    CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME velk)
set(CPACK_PACKAGE_VENDOR "libvelk team")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# CPack's own default summary, which it does not put in front of a
# component's description: the first line of each description below is then
# that package's synopsis.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_CONTACT "${VELK_PACKAGE_MAINTAINER}")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET velk-term)
  list(APPEND CPACK_COMPONENTS_ALL term)
endif()
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TERM_DEPENDS runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)  # exact version of libvelk1

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# A shlibs file for libvelk1 (only that package holds a shared library):
# programs linked with libvelk.so.1 depend on libvelk1 (>= this version).
# Packages ship stripped binaries, whatever the build type they come from.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvelk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
string(CONCAT CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "contactless EMV payment kernel (shared library)\n"
    "The library of a contactless EMV payment kernel for terminal host software.\n"
    "It allocates no memory, keeps its state in a block the host binds and\n"
    "imports its crypto and memory services from the host (pemv_kn_glb).")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvelk-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
string(CONCAT CPACK_COMPONENT_DEV_DESCRIPTION
    "contactless EMV payment kernel (development files)\n"
    "Headers, the static library, the pkg-config file (velk) and the CMake\n"
    "package (find_package(velk): velk::velk, velk::velk_static), with the\n"
    "integration guide, the ABI promise and a complete host in C.")

set(CPACK_DEBIAN_TERM_PACKAGE_NAME velk-term)
set(CPACK_DEBIAN_TERM_PACKAGE_SECTION utils)
string(CONCAT CPACK_COMPONENT_TERM_DESCRIPTION
    "contactless EMV payment kernel (terminal simulator)\n"
    "velk-term runs transactions through libvelk against virtual cards or a\n"
    "PC/SC reader, with bundled terminal and card profiles and scenarios.")

# The packages' architecture and their C library dependency. A native build
# lets dpkg-shlibdeps compute the dependencies; a cross build cannot ask the
# build machine's package database about the target's libraries, so it names
# the C library (libvelk1 needs nothing else) and the target architecture.
if(CMAKE_CROSSCOMPILING)
  find_program(VELK_DPKG_ARCHITECTURE dpkg-architecture)
  if(VELK_DPKG_ARCHITECTURE AND CMAKE_LIBRARY_ARCHITECTURE)
    execute_process(COMMAND ${VELK_DPKG_ARCHITECTURE} -t${CMAKE_LIBRARY_ARCHITECTURE}
                            -qDEB_HOST_ARCH
                    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_TERM_PACKAGE_SHLIBDEPS ON)
endif()

include(CPack)
