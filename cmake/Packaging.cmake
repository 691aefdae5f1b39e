# Installation and packages.
#
# Terminal build: `cmake --install` puts swu and st_control in sbin (their own
# install rules) and the init script S90swu in /etc/init.d; stage it for the
# root file system with DESTDIR. The programs need only the C library there
# (docs/deployment.md).
#
# Host build: the technician's tools (swu-client, swu-console, swu-pack,
# stm32-sim) form the install component "host_tools", which `cpack -G DEB`
# packs as a .deb for a laptop.
if(SWU_PLATFORM STREQUAL "terminal")
  # The terminal's root file system keeps its programs under /usr.
  if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Install prefix" FORCE)
  endif()
  set(SWU_SBINDIR ${CMAKE_INSTALL_PREFIX}/sbin)
  configure_file(${PROJECT_SOURCE_DIR}/deploy/S90swu ${CMAKE_BINARY_DIR}/deploy/S90swu @ONLY)
  # An absolute destination: init scripts live in /etc whatever the prefix.
  install(PROGRAMS ${CMAKE_BINARY_DIR}/deploy/S90swu DESTINATION /etc/init.d)
  # The tarball carries no libraries: the terminal programs take in the C++
  # runtime, libsodium and inih statically and need only the C library.
  foreach(program IN ITEMS swu st_control swu-logcap)
    target_link_options(${program} PRIVATE -static-libstdc++ -static-libgcc)
  endforeach()
endif()

# The Wireshark dissector ships with the host tools.
if(SWU_PLATFORM STREQUAL "host")
  install(FILES ${PROJECT_SOURCE_DIR}/tools/wireshark/swu.lua DESTINATION share/swu
          COMPONENT host_tools)
endif()

if(SWU_BUILD_TOOLS)
  install(TARGETS swu-pack stm32-sim RUNTIME DESTINATION bin COMPONENT host_tools)
  set(CPACK_PACKAGE_NAME "swu-host-tools")
  set(CPACK_PACKAGE_VENDOR "swu")
  set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
      "Technician's tools for the terminal's update service: swu-client, swu-console, swu-pack, stm32-sim"
  )
  set(CPACK_PACKAGE_CONTACT "swu maintainers <swu@localhost>")
  set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION "utils")
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_STRIP_FILES ON)
  # Only the host tools: the daemon's own install rules stay out of the package.
  set(CPACK_INSTALL_CMAKE_PROJECTS "${CMAKE_BINARY_DIR};${PROJECT_NAME};host_tools;/")
  set(CPACK_GENERATOR "DEB")
  include(CPack)
endif()
