# SPDX-License-Identifier: MIT
# What a Windows user takes beside the programs: the DLLs of Qt, of OpenSSL
# (where this Qt has TLS: Qt5Network needs them to start) and of the compiler's
# runtime, with the license texts of each, all into the zip.
get_filename_component(norva_qt_root "${Qt5_DIR}/../../.." ABSOLUTE)
set(norva_dlls "${norva_qt_root}/bin/Qt5Core.dll" "${norva_qt_root}/bin/Qt5Network.dll")
foreach(dll libssl-3-x64.dll libcrypto-3-x64.dll)
  if(EXISTS "${norva_qt_root}/bin/${dll}")
    list(APPEND norva_dlls "${norva_qt_root}/bin/${dll}")
  endif()
endforeach()
install(FILES ${norva_dlls} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)

# The compiler's runtime comes with its debug sections (libstdc++ is 23 MB so,
# 4 MB without): a user needs none of them.
set(norva_runtime_dir ${CMAKE_BINARY_DIR}/packaging/runtime)
file(MAKE_DIRECTORY ${norva_runtime_dir})
foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll} OUTPUT_VARIABLE found
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT IS_ABSOLUTE "${found}")
    find_file(found NAMES ${dll} PATHS /usr/x86_64-w64-mingw32/lib NO_DEFAULT_PATH NO_CACHE)
  endif()
  if(NOT EXISTS "${found}")
    message(FATAL_ERROR "norva-api-qt: the compiler's ${dll} is not to be found")
  endif()
  execute_process(COMMAND ${CMAKE_STRIP} --strip-debug -o ${norva_runtime_dir}/${dll} ${found})
  install(FILES ${norva_runtime_dir}/${dll} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endforeach()

set(norva_licenses share/doc/norva-api-qt/licenses)
file(GLOB norva_qt_licenses "${norva_qt_root}/licenses/*")
install(FILES ${norva_qt_licenses} DESTINATION ${norva_licenses} COMPONENT runtime)
install(FILES /usr/share/doc/gcc-mingw-w64-x86-64-posix-runtime/copyright DESTINATION ${norva_licenses}
        RENAME gcc-runtime-copyright.txt COMPONENT runtime)
install(FILES /usr/share/doc/mingw-w64-x86-64-dev/copyright DESTINATION ${norva_licenses}
        RENAME mingw-w64-winpthreads-copyright.txt COMPONENT runtime)
set(CMAKE_INSTALL_DOCDIR share/doc/norva-api-qt)
