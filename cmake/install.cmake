# Installing and packaging: `cmake --install` puts the programs, their resources and documentation
# where a Debian system keeps them, and `cpack -G DEB` makes a package of the same files.
#   bin/tesselune-store                              the maintenance command
#   libexec/tesselune/tesselune-store-support       the program Tesselune starts
#   share/tesselune/Tesselune.xcdatamodeld           the store model both read
#   share/man/man1/*.1.gz                            pages made from the programs' own --help
#   share/bash-completion/completions/tesselune-store
#   share/dbus-1/interfaces/org.tesselune.StoreSupport.xml   the signal the program sends
#   share/doc/tesselune/                             README, CHANGELOG, copyright

install(TARGETS tesselune-store RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS tesselune-store-support RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/tesselune)
install(DIRECTORY "${TESSELUNE_RESOURCES_BUILD_DIR}/" DESTINATION ${CMAKE_INSTALL_DATADIR}/tesselune)
install(FILES resources/dbus/org.tesselune.StoreSupport.xml DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/interfaces)
install(FILES scripts/completion/tesselune-store.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tesselune-store)
install(FILES README.md CHANGELOG.md doc/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})

# Manual pages, from each program's --help and --version (help2man) plus a few sections of their own
# (doc/*.h2m), compressed as Debian keeps them.
find_program(TESSELUNE_HELP2MAN help2man)
find_program(TESSELUNE_GZIP gzip)
if(TESSELUNE_HELP2MAN AND TESSELUNE_GZIP)
  set(pages)
  foreach(program IN ITEMS tesselune-store tesselune-store-support)
    if(program STREQUAL "tesselune-store")
      set(summary "maintenance of the Tesselune store")
    else()
      set(summary "delete the objects Tesselune marked in its store")
    endif()
    set(page "${PROJECT_BINARY_DIR}/man/${program}.1")
    add_custom_command(
      OUTPUT "${page}.gz"
      COMMAND ${CMAKE_COMMAND} "-DPROGRAM=$<TARGET_FILE:${program}>" "-DNAME=${summary}" "-DOUTPUT=${page}"
              "-DINCLUDE=${PROJECT_SOURCE_DIR}/doc/${program}.h2m" -P "${PROJECT_SOURCE_DIR}/cmake/manpage.cmake"
      COMMAND ${TESSELUNE_GZIP} -9nf "${page}"
      DEPENDS ${program} "${PROJECT_SOURCE_DIR}/cmake/manpage.cmake" "${PROJECT_SOURCE_DIR}/doc/${program}.h2m"
      COMMENT "Manual page ${program}(1)"
      VERBATIM)
    list(APPEND pages "${page}.gz")
  endforeach()
  add_custom_target(manpages ALL DEPENDS ${pages})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(STATUS "help2man or gzip not found: no manual pages (scripts/bootstrap installs help2man)")
endif()

# The Debian package. Runtime dependencies come from the programs' shared libraries (dpkg-shlibdeps).
set(CPACK_PACKAGE_NAME "tesselune-store")
set(CPACK_PACKAGE_VENDOR "Tesselune")
set(CPACK_PACKAGE_CONTACT "The Tesselune developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "store support program and store maintenance command of Tesselune")
set(CPACK_PACKAGE_DESCRIPTION
    "Deletes the objects that Tesselune, a liquid-chromatography mass-spectrometry application, marks in "
    "its shared Core Data store, with everything that hangs off them and their data folders, and leaves "
    "a report for Tesselune. tesselune-store makes, fills, marks, inspects, checks and deletes from such "
    "stores, and from any Core Data SQLite store.")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "science")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-daemon")
set(CPACK_GENERATOR "DEB")
include(CPack)
