# The Debian packages, one for each install component. Debian wants a changelog and a copyright file
# in every one of them.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavlenlogger)
set(CPACK_PACKAGE_CONTACT "The authors of TavlenLogger <authors@tavlenlogger.invalid>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(whole_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
set(library_package libtavlencommon${TAVLEN_ABI})
set(needs_library "${library_package} (>= ${PROJECT_VERSION})")

# debian_package(COMPONENT NAME SECTION TITLE LINE...): the lines describe it, "." parts paragraphs.
set(CPACK_COMPONENTS_ALL "")
macro(debian_package component name section title)
  string(TOUPPER ${component} upper)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(lines ${ARGN})
  list(JOIN lines "\n" description)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${title}\n${description}")
  install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/debian/copyright
    ${CMAKE_CURRENT_BINARY_DIR}/changelog.Debian.gz ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endmacro()

debian_package(library ${library_package} libs
  "logging to a collector, packets and sockets"
  "The library that every process of a group of servers links: log lines with a"
  "rate limit for each call site, sent to a TavlenLogger collector or written"
  "elsewhere, structures of named values and their wire format, packets over"
  "datagrams and streams, locks and a configuration store.")
# Left alone, CPack has a library's scripts call ldconfig where a trigger belongs. What it then does
# not find out itself: the C library's version is that of the newest symbol used.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libc6 (>= 2.34)")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/shlibs ${CMAKE_CURRENT_BINARY_DIR}/triggers)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/shlibs "libTavlenCommon ${TAVLEN_ABI} ${needs_library}\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
debian_package(development libtavlencommon-dev libdevel
  "logging to a collector, packets and sockets (development files)"
  "Headers, CMake and pkg-config files and manual pages of libTavlenCommon, for"
  "C and C++.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${whole_version}), libc6-dev")
debian_package(tools tavlen-tools admin
  "companion tool of the TavlenLogger log collector"
  "tavlenctl sends records, checks a collector's settings, shows its log and what"
  "travels to it, and tells what was dropped. A dissector for Wireshark comes"
  "with it.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${needs_library}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "bash-completion, wireshark | tshark")
debian_package(daemon tavlenlogger admin
  "log collector for a group of server processes"
  "TavlenLogger receives log records as UDP datagrams and writes each one, under"
  "its sender's name, to standard output, standard error, syslog, a file or a"
  "further collector.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
  "${needs_library}, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS logrotate)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS tavlen-tools)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/conffiles
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
  ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/conffiles
  "/etc/tavlenlogger/TavlenLogger.conf\n/etc/logrotate.d/tavlenlogger\n")

# compressed(TARGET-FILE SOURCE): the same bytes each time.
function(compressed target source)
  add_custom_command(OUTPUT ${target} DEPENDS ${source}
    COMMAND sh -c "gzip -9nc '${source}' >${target}" VERBATIM)
endfunction()
compressed(changelog.Debian.gz ${CMAKE_CURRENT_SOURCE_DIR}/debian/changelog)
compressed(changelog.gz ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
add_custom_target(changelogs ALL DEPENDS changelog.Debian.gz changelog.gz)

include(CPack)
