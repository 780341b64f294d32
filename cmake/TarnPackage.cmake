# What is installed beside the programs. scripts/package makes Debian packages of it all.
include(GNUInstallDirs)

# The man pages, with the version in their last line.
file(GLOB pages CONFIGURE_DEPENDS docs/man/*.[1-8])
foreach(page IN LISTS pages)
  get_filename_component(name ${page} NAME)
  string(REGEX REPLACE ".*\\." "" section ${name})
  configure_file(${page} ${PROJECT_BINARY_DIR}/man/${name} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/man/${name} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

# The folder is named after the package.
install(FILES packaging/examples/tarn.conf packaging/examples/tarn_event.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/tarn/examples)
# systemd reads these below /usr/lib, whatever the prefix' own library folder is called.
file(GLOB units CONFIGURE_DEPENDS packaging/systemd/*.service packaging/systemd/*.target)
install(FILES ${units} DESTINATION lib/systemd/system)
install(FILES packaging/sysusers.d/tarn.conf packaging/sysusers.d/tarn-tools.conf
        DESTINATION lib/sysusers.d)
install(FILES packaging/tmpfiles.d/tarn.conf DESTINATION lib/tmpfiles.d)
