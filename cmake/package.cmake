# Packages of what was built, and it is built first: cpack -G TGZ or cpack -G DEB in the build directory.
#
# TGZ is for a router whose firmware has no package manager: one archive for each of the components runtime and tools, to be
# unpacked at its root directory. DEB is for a developer's machine: all components in one package, and what Debian wants of it
# (the component "debian", which nothing else installs).
set(CPACK_PACKAGE_NAME orvbrokerd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "orvbrokerd developers")
set(CPACK_PACKAGE_CONTACT "orvbrokerd developers <developers@orvane.example>" CACHE STRING "Who maintains the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "local broker of a router's security agent")
set(CPACK_GENERATOR TGZ)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
# Everything goes where the files in it say that it is.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${ORV_ROOT})
set(CPACK_COMPONENTS_ALL ${ORV_COMPONENTS})
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SYSTEM_NAME ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/package-kinds.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS dbus-daemon)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PACKAGE_DESCRIPTION "Router software connects to the daemon's Unix socket, sends commands and is
told of events; the daemon works on the agent's settings and devices and talks
to its other daemons over a message exchange.

This package is for developers: it has orvctl, the command-line client,
orvagentsim, which plays the rest of the agent, and the client library, too.")
set(debian ${CMAKE_CURRENT_BINARY_DIR}/debian)
foreach(script postinst prerm postrm)
  orv_configure_root(packaging/debian/${script} ${debian}/${script})
  file(CHMOD ${debian}/${script} PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
file(CONFIGURE OUTPUT ${debian}/conffiles CONTENT "${ORV_ROOT}/etc/exchange.conf\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${debian}/postinst ${debian}/prerm ${debian}/postrm ${debian}/conffiles)
include(CPack)

# ---- what Debian has in places of its own

set(units ${CMAKE_BINARY_DIR}/packaging/configured/systemd)
install(FILES ${units}/orvbrokerd.service ${units}/orvexchanged.service
  DESTINATION /lib/systemd/system COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES ${units}/orvbrokerd.tmpfiles.conf
  DESTINATION /usr/lib/tmpfiles.d RENAME orvbrokerd.conf COMPONENT debian EXCLUDE_FROM_ALL)
orv_configure_root(packaging/debian/copyright ${debian}/copyright)
install(FILES ${debian}/copyright DESTINATION /usr/share/doc/orvbrokerd COMPONENT debian EXCLUDE_FROM_ALL)
install(FILES packaging/debian/lintian-overrides
  DESTINATION /usr/share/lintian/overrides RENAME orvbrokerd COMPONENT debian EXCLUDE_FROM_ALL)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # that of SOURCE_DATE_EPOCH, where it is set
file(CONFIGURE OUTPUT ${debian}/changelog.Debian CONTENT
"orvbrokerd (@PROJECT_VERSION@-@CPACK_DEBIAN_PACKAGE_RELEASE@) unstable; urgency=medium

  * What is new is in changelog.gz.

 -- @CPACK_PACKAGE_CONTACT@  @date@
" @ONLY)
install(CODE "
  set(documents \$ENV{DESTDIR}/usr/share/doc/orvbrokerd)
  file(MAKE_DIRECTORY \${documents})
  execute_process(COMMAND gzip -9nc \"${PROJECT_SOURCE_DIR}/CHANGELOG.md\"
    OUTPUT_FILE \${documents}/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND gzip -9nc \"${debian}/changelog.Debian\"
    OUTPUT_FILE \${documents}/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)" COMPONENT debian EXCLUDE_FROM_ALL)
