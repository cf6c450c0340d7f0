# SPDX-License-Identifier: Apache-2.0
# Manual pages: libvelk(3), written by hand (its version from the project's),
# and velk-term(1), made at build time from the program's own help with
# help2man, every subcommand included. A cross build makes velk-term(1) only
# where it can run the program (an emulator).

configure_file(${PROJECT_SOURCE_DIR}/docs/man/libvelk.3 ${PROJECT_BINARY_DIR}/man/libvelk.3 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/man/libvelk.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        COMPONENT dev)

find_program(VELK_HELP2MAN help2man)
if(TARGET velk-term AND VELK_HELP2MAN AND (NOT CMAKE_CROSSCOMPILING OR CMAKE_CROSSCOMPILING_EMULATOR))
  set(page ${PROJECT_BINARY_DIR}/man/velk-term.1)
  add_custom_command(
      OUTPUT ${page}
      COMMAND ${PROJECT_SOURCE_DIR}/docs/man/velk-term-man.sh $<TARGET_FILE:velk-term> ${page}
              ${PROJECT_VERSION}
      DEPENDS velk-term ${PROJECT_SOURCE_DIR}/docs/man/velk-term-man.sh
      COMMENT "velk-term(1) from the program's help")
  add_custom_target(velk_term_man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT term)
endif()
