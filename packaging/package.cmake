# Install rules and the Debian package.
#
# Installed: the service (sbin), zorctl and xdbc (bin) with their manual
# pages, the sample configuration as <sysconfdir>/zor/zor.ini with the unit's
# option file <sysconfdir>/default/zor-service, the systemd unit, and the
# documents an administrator reads. Simulators and test programs are never installed.
#
# Paths follow CMAKE_INSTALL_PREFIX the GNU way: with the prefix /usr the
# configuration goes to /etc and the unit to /lib/systemd/system, which is the
# layout the Debian package needs (scripts/package.sh configures it so):
#   cmake -S . -B build-deb -DCMAKE_INSTALL_PREFIX=/usr && cmake --build build-deb
#   cd build-deb && cpack -G DEB
include(GNUInstallDirs)

set(ZOR_VERSION 0.1.0)
set(ZOR_PACKAGE_NAME zor-service)
set(ZOR_MAINTAINER "zor_service maintainers <maintainers@users.noreply.c-seed-cd0cbf57.example>")

set(ZOR_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZOR_PACKAGE_NAME})
set(ZOR_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(ZOR_UNITDIR /lib/systemd/system)
else()
  set(ZOR_UNITDIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system)
endif()
set(ZOR_PKG_SRC ${CMAKE_SOURCE_DIR}/packaging/debian)
set(ZOR_PKG_OUT ${CMAKE_BINARY_DIR}/packaging)

install(TARGETS zor_service RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS zorctl xdbc RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The configuration holds the cloud account's password: not for everyone.
install(FILES ${CMAKE_SOURCE_DIR}/examples/zor.ini DESTINATION ${ZOR_SYSCONFDIR}/zor
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
install(FILES ${ZOR_PKG_SRC}/zor-service.default DESTINATION ${ZOR_SYSCONFDIR}/default
        RENAME ${ZOR_PACKAGE_NAME})

set(ZOR_SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(ZOR_BINDIR ${CMAKE_INSTALL_FULL_BINDIR})
set(ZOR_DOCDIR_FULL ${CMAKE_INSTALL_PREFIX}/${ZOR_DOCDIR})
configure_file(${ZOR_PKG_SRC}/zor-service.service.in ${ZOR_PKG_OUT}/zor-service.service @ONLY)
install(FILES ${ZOR_PKG_OUT}/zor-service.service DESTINATION ${ZOR_UNITDIR})

# Documents for the administrator (the developers' guides stay in the tree).
install(FILES README.md docs/router.md docs/security.md docs/zorctl.md docs/category-file.md
        DESTINATION ${ZOR_DOCDIR})

# Debian wants its changelog and manual pages compressed with gzip -9n (no
# name, no time stamp).
set(ZOR_GZIPPED)
function(zor_gzip source output)
  add_custom_command(OUTPUT ${output} COMMAND gzip -9n -c ${source} > ${output}
                     DEPENDS ${source} VERBATIM)
  set(ZOR_GZIPPED ${ZOR_GZIPPED} ${output} PARENT_SCOPE)
endfunction()
zor_gzip(${ZOR_PKG_SRC}/changelog ${ZOR_PKG_OUT}/changelog.Debian.gz)
foreach(page zor_service.8 zorctl.1 xdbc.1)
  string(REGEX REPLACE ".*\\." "" section ${page})
  zor_gzip(${CMAKE_SOURCE_DIR}/packaging/man/${page} ${ZOR_PKG_OUT}/${page}.gz)
  install(FILES ${ZOR_PKG_OUT}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(zor_gzipped_docs ALL DEPENDS ${ZOR_GZIPPED})
install(FILES ${ZOR_PKG_SRC}/copyright ${ZOR_PKG_OUT}/changelog.Debian.gz DESTINATION ${ZOR_DOCDIR})
install(FILES ${ZOR_PKG_SRC}/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
        RENAME ${ZOR_PACKAGE_NAME})

# --- Debian package (cpack -G DEB) ------------------------------------------
file(WRITE ${ZOR_PKG_OUT}/conffiles
     "${ZOR_SYSCONFDIR}/zor/zor.ini\n${ZOR_SYSCONFDIR}/default/${ZOR_PACKAGE_NAME}\n")
configure_file(${ZOR_PKG_SRC}/cpack_options.cmake.in ${ZOR_PKG_OUT}/cpack_options.cmake @ONLY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${ZOR_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${ZOR_VERSION})
set(CPACK_PACKAGE_CONTACT ${ZOR_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "traffic category service for routers")
# One line of the control file per element (Debian wants them under 80 columns).
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
    "Works beside the zor kernel module: classifies every domain name and IPv4"
    "address the module reports (local category file, verdict cache, cloud"
    "category service over HTTPS) and writes each verdict back into the module."
    "It also applies per-device parental-control rules and takes commands from"
    "zorctl over a local socket. The kernel module, the category file and the"
    "cloud account are not part of this package.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The trust store the cloud's certificate is verified against.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${ZOR_PKG_OUT}/conffiles ${ZOR_PKG_SRC}/postinst ${ZOR_PKG_SRC}/prerm ${ZOR_PKG_SRC}/postrm)
set(CPACK_PROJECT_CONFIG_FILE ${ZOR_PKG_OUT}/cpack_options.cmake)
include(CPack)
