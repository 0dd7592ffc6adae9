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
install(FILES docs/deploy.md docs/design.md docs/protocol.md docs/storage.md docs/performance.md docs/serve.png DESTINATION "${CMAKE_INSTALL_DOCDIR}/docs")

# Beside the system's own libraries, a package that brings libraries along has them in lib/ossilar. RPATH and not RUNPATH:
# only the former is also asked for the libraries of libraries.
get_filename_component(dot_layout_folder "${GRAPHVIZ_DOT_LAYOUT}" DIRECTORY)
set_target_properties(ossilar PROPERTIES INSTALL_RPATH "$ORIGIN/../lib/ossilar:${dot_layout_folder}")
target_link_options(ossilar PRIVATE -Wl,--disable-new-dtags)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ossilar)
set(CPACK_PACKAGE_CONTACT "ossilar maintainers <maintainers@users.noreply.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "wiki about a code repository that agents write and that stays true")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "ossilar stores a page only when its prose cites lines of the source that
really are there, stores it whole or not at all, and knows when it no longer
matches the source. It serves agents over the Model Context Protocol and
people at a shell or in a browser.")
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Libraries by what the program is linked with. ctags is a program that it runs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "ca-certificates")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "universal-ctags")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "git")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
