# What an installation has: the program, and what it writes about itself (`ossilar generate`), so that manual pages and
# completions are those of the very program that they lie beside.
include(GNUInstallDirs)

set(companions "${PROJECT_BINARY_DIR}/companions")
add_custom_command(OUTPUT "${companions}.stamp"
  COMMAND "${CMAKE_COMMAND}" -E rm -rf "${companions}"
  COMMAND ossilar generate "${companions}"
  COMMAND "${CMAKE_COMMAND}" -E touch "${companions}.stamp"
  DEPENDS ossilar VERBATIM)
add_custom_target(ossilar_companions ALL DEPENDS "${companions}.stamp")

install(TARGETS ossilar)
install(DIRECTORY "${companions}/share/" DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}")
install(FILES README.md CHANGELOG.md packaging/copyright DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(FILES docs/design.md docs/protocol.md docs/storage.md docs/performance.md docs/serve.png DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs")
