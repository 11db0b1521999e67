# SPDX-License-Identifier: MIT
# Installs the header, the library (with its SONAME), the programs, a CMake
# package giving Norva::NORVA_API_QT (Norva::NORVA_API_QT6 for Qt 6), and a
# pkg-config file, each under the names of the Qt line built for.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(NORVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/${NORVA_PACKAGE_NAME})

install(TARGETS NORVA_API_QT EXPORT ${NORVA_PACKAGE_NAME}Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${NORVA_INCLUDE_SUBDIR} COMPONENT development)
install(EXPORT ${NORVA_PACKAGE_NAME}Targets NAMESPACE Norva:: DESTINATION ${NORVA_CMAKE_DIR} COMPONENT development)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/NorvaApiQtConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PACKAGE_NAME}Config.cmake INSTALL_DESTINATION ${NORVA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PACKAGE_NAME}ConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PACKAGE_NAME}Config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PACKAGE_NAME}ConfigVersion.cmake
  DESTINATION ${NORVA_CMAKE_DIR} COMPONENT development)

# Relative to the .pc file, so that the installed tree can be moved.
file(RELATIVE_PATH NORVA_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
set(NORVA_PC_PREFIX "\${pcfiledir}/${NORVA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/norva-api-qt.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PKGCONFIG_NAME}.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${NORVA_PKGCONFIG_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

# Each program with a manual page made from its --help and --version (where
# help2man is there and the program runs on this machine).
find_program(NORVA_HELP2MAN help2man)
set(norva_manual_norva "call the board records service from a shell")
set(norva_manual_norva-console "log in to a records service through the library's object interface")
set(norva_manual_norva-records-service "a local board records service for trying and testing host programs")
foreach(program norva norva-console norva-records-service)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES OUTPUT_NAME ${program}${NORVA_PROGRAM_SUFFIX})
    set(component command)
    if(program STREQUAL "norva-records-service")
      set(component service)
    endif()
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
    if(NORVA_HELP2MAN AND NOT CMAKE_CROSSCOMPILING)
      set(manual ${CMAKE_CURRENT_BINARY_DIR}/${program}${NORVA_PROGRAM_SUFFIX}.1)
      add_custom_command(OUTPUT ${manual}.gz
        COMMAND ${NORVA_HELP2MAN} --no-info --no-discard-stderr --name "${norva_manual_${program}}"
                --output ${manual} $<TARGET_FILE:${program}>
        COMMAND gzip -9nf ${manual}
        DEPENDS ${program} VERBATIM)
      add_custom_target(${program}_manual ALL DEPENDS ${manual}.gz)
      install(FILES ${manual}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
    endif()
  endif()
endforeach()
