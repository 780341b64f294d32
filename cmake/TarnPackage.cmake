# What is installed beside the programs, and the Debian package of it all: `cpack -G DEB` in the
# build folder.
include(GNUInstallDirs)

install(FILES docs/man/tarn.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/examples/tarn.conf packaging/examples/tarn_event.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
# systemd reads these below /usr/lib, whatever the prefix' own library folder is called.
install(FILES packaging/systemd/tarn.service DESTINATION lib/systemd/system)
install(FILES packaging/tmpfiles.d/tarn.conf DESTINATION lib/tmpfiles.d)

set(CPACK_PACKAGE_NAME tarn)
set(CPACK_PACKAGE_VERSION 1.0.116.251)
set(CPACK_PACKAGE_CONTACT "The tarn maintainers <maintainers@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "acts on the alerts of the Snort process beside it")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
