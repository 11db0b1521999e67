# SPDX-License-Identifier: MIT
# Packages, made by `cmake --build BUILD --target package` (CPack), each named
# with the project's version and carrying the license texts:
#  - on Linux, Debian packages: for each Qt line a runtime package and a
#    development package, which install side by side (no file in common), and,
#    from the Qt 5 build, `norva` (the command and the console driver) and
#    `norva-records-service` (with a systemd unit);
#  - on Windows, a zip with the DLLs the programs need.
set(CPACK_PACKAGE_NAME norva-api-qt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "The norva-api-qt developers")
set(CPACK_PACKAGE_CONTACT "The norva-api-qt developers <norva-api-qt@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Qt client library for the board records service")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)

# The license and the notices, in every package.
set(norva_copyright ${CMAKE_BINARY_DIR}/packaging/copyright)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE norva_license_text)
file(READ ${PROJECT_SOURCE_DIR}/THIRD-PARTY-NOTICES.txt norva_notices_text)
file(WRITE ${norva_copyright} "norva-api-qt ${PROJECT_VERSION}\n\n${norva_license_text}\n\n${norva_notices_text}")

if(WIN32)
  include(${CMAKE_CURRENT_LIST_DIR}/windows_runtime.cmake)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME norva-api-qt-${PROJECT_VERSION}-windows-x86_64)
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/THIRD-PARTY-NOTICES.txt
          DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
  include(CPack)
  return()
endif()

# Debian package names follow the library's SONAME, one set for each Qt line.
if(NORVA_QT_MAJOR STREQUAL "6")
  set(norva_runtime_package libnorva-api-qt6-${PROJECT_VERSION_MAJOR})
  set(norva_development_package libnorva-api-qt6-dev)
  set(norva_qt_development qt6-base-dev)
  set(CPACK_COMPONENTS_ALL runtime development)
else()
  set(norva_runtime_package libnorva-api-qt${PROJECT_VERSION_MAJOR})
  set(norva_development_package libnorva-api-qt-dev)
  set(norva_qt_development qtbase5-dev)
  set(CPACK_COMPONENTS_ALL runtime development)
  if(TARGET norva)
    list(APPEND CPACK_COMPONENTS_ALL command)
  endif()
  if(TARGET norva-records-service)
    list(APPEND CPACK_COMPONENTS_ALL service)
  endif()
endif()
set(norva_package_of_runtime ${norva_runtime_package})
set(norva_package_of_development ${norva_development_package})
set(norva_package_of_command norva)
set(norva_package_of_service norva-records-service)

# Each package's /usr/share/doc/<package>: the copyright and a Debian changelog.
set(norva_changelog ${CMAKE_BINARY_DIR}/packaging/changelog.Debian)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  set(package ${norva_package_of_${component}})
  file(WRITE ${norva_changelog}.${component}
       "${package} (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
       "  * Release ${PROJECT_VERSION}; see CHANGELOG.md in the source.\n\n"
       " -- ${CPACK_PACKAGE_CONTACT}  Thu, 26 Nov 2026 00:00:00 +0000\n")
  execute_process(COMMAND gzip -9nf ${norva_changelog}.${component})
  install(FILES ${norva_copyright} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  install(FILES ${norva_changelog}.${component}.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          RENAME changelog.Debian.gz COMPONENT ${component})
endforeach()

# The service: its unit, its options, its data folder made by systemd.
if(TARGET norva-records-service)
  # A system's /usr prefix puts them in /lib and /etc; any other prefix below it.
  set(norva_units lib/systemd/system)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(norva_units /lib/systemd/system)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/service/norva-records-service.service DESTINATION ${norva_units}
          COMPONENT service)
  install(FILES ${PROJECT_SOURCE_DIR}/service/norva-records-service.default DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default
          RENAME norva-records-service COMPONENT service)
  file(WRITE ${CMAKE_BINARY_DIR}/packaging/conffiles "/etc/default/norva-records-service\n")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Files under /etc and /lib land in the package, not on the building machine.
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The programs need the library of this build, which no installed package has yet.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(norva_exact_runtime "${norva_runtime_package} (= ${PROJECT_VERSION}-1)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${norva_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Qt ${NORVA_QT_MAJOR} client library for the board records service
 norva-api-qt gives a host program the records service's 42 operations (users,
 board files and their records, shares, favourites, error records, mall and
 planner queries), each called with one JSON text, blocking or asynchronous.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# dpkg runs ldconfig once after all packages are in (this CPack calls it from
# the maintainer scripts as well).
file(WRITE ${CMAKE_BINARY_DIR}/packaging/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${norva_development_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${norva_exact_runtime}, ${norva_qt_development}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Qt ${NORVA_QT_MAJOR} client library for the board records service (development files)
 The headers, the CMake package (${NORVA_PACKAGE_NAME}) and the pkg-config file
 (${NORVA_PKGCONFIG_NAME}) of norva-api-qt for Qt ${NORVA_QT_MAJOR}.")

set(CPACK_DEBIAN_COMMAND_PACKAGE_NAME norva)
set(CPACK_DEBIAN_COMMAND_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_COMMAND_PACKAGE_DEPENDS ${norva_exact_runtime})
set(CPACK_DEBIAN_COMMAND_DESCRIPTION "call the board records service from a shell
 norva calls any operation of norva-api-qt by name, with key=value words or a
 JSON document, keeps a session, runs batches, and says why a call failed.
 norva-console logs in through the library's object interface.")

set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME norva-records-service)
set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_SERVICE_DESCRIPTION "local board records service for norva-api-qt
 A records service on SQLite that speaks what norva-api-qt expects, over
 HTTP or HTTPS, run by systemd as a user of its own with its data in
 /var/lib/norva-records.")
set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/packaging/conffiles)

include(CPack)
