# What is installed beside the programs, and the Debian package of it all: `cpack -G DEB` in the
# build folder.
include(GNUInstallDirs)

# The man pages, with the version in their last line.
file(GLOB pages CONFIGURE_DEPENDS docs/man/*.[1-8])
foreach(page IN LISTS pages)
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\." "" section ${name})
  configure_file(${page} ${PROJECT_BINARY_DIR}/man/${name} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/man/${name} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

install(FILES packaging/examples/tarn.conf packaging/examples/tarn_event.conf
              packaging/logrotate/tarn-crm
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
# systemd reads these below /usr/lib, whatever the prefix' own library folder is called.
install(FILES packaging/systemd/tarn.service DESTINATION lib/systemd/system)
install(FILES packaging/tmpfiles.d/tarn.conf DESTINATION lib/tmpfiles.d)

set(CPACK_PACKAGE_NAME tarn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "The tarn maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "acts on the alerts of the Snort process beside it")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What tarnctl selftest needs.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bubblewrap, python3")
include(CPack)
