# Installs the header, the library (with its SONAME), the tools, a CMake package
# giving Norva::NORVA_API_QT, and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(NORVA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/NorvaApiQt)

install(TARGETS NORVA_API_QT EXPORT NorvaApiQtTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT NorvaApiQtTargets NAMESPACE Norva:: DESTINATION ${NORVA_CMAKE_DIR})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/NorvaApiQtConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/NorvaApiQtConfig.cmake INSTALL_DESTINATION ${NORVA_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/NorvaApiQtConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/NorvaApiQtConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/NorvaApiQtConfigVersion.cmake
  DESTINATION ${NORVA_CMAKE_DIR})

# Relative to the .pc file, so that the installed tree can be moved.
file(RELATIVE_PATH NORVA_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
set(NORVA_PC_PREFIX "\${pcfiledir}/${NORVA_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/norva-api-qt.pc.in ${CMAKE_CURRENT_BINARY_DIR}/norva-api-qt.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/norva-api-qt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(tool norva norva-console norva-records-service)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
