# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` gives an integrator besides the libraries and headers
# (whose rules live with their targets): the CMake package (velk::velk,
# velk::velk_static), the pkg-config file, the integration guide, the ABI
# promise and the C example. Everything is placed relative to the install
# prefix, so an installed tree keeps working when it is moved.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VELK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/velk)

install(EXPORT velkTargets NAMESPACE velk:: DESTINATION ${VELK_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/velkConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/velkConfig.cmake
                              INSTALL_DESTINATION ${VELK_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velkConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/velkConfig.cmake ${PROJECT_BINARY_DIR}/velkConfigVersion.cmake
        DESTINATION ${VELK_CMAKE_DIR} COMPONENT dev)

# velk.pc finds the prefix from its own directory (${pcfiledir}). A directory
# given as an absolute path stays absolute: such an install is not movable.
set(VELK_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(IS_ABSOLUTE "${VELK_PC_DIR}")
  set(VELK_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH VELK_PC_UP /velk-prefix/${VELK_PC_DIR} /velk-prefix)
  set(VELK_PC_PREFIX "\${pcfiledir}/${VELK_PC_UP}")
endif()
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(VELK_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(VELK_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/velk.pc.in ${PROJECT_BINARY_DIR}/velk.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velk.pc DESTINATION ${VELK_PC_DIR} COMPONENT dev)

install(FILES ${PROJECT_SOURCE_DIR}/docs/integration.md ${PROJECT_SOURCE_DIR}/docs/abi.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/examples/minimal_host.c
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT dev)
