# SPDX-License-Identifier: MIT
# Sets NORVA_QT_TRANSPORT to "tls" when the Qt found has TLS (its
# qtnetwork-config.h says QT_FEATURE_ssl 1), else to "plain".
get_target_property(norva_network_includes Qt${NORVA_QT_MAJOR}::Network INTERFACE_INCLUDE_DIRECTORIES)
set(NORVA_QT_TRANSPORT plain)
foreach(dir IN LISTS norva_network_includes)
  foreach(candidate "${dir}/qtnetwork-config.h" "${dir}/QtNetwork/qtnetwork-config.h")
    if(EXISTS "${candidate}")
      file(STRINGS "${candidate}" norva_ssl_line REGEX "#define QT_FEATURE_ssl ")
      if(norva_ssl_line MATCHES "QT_FEATURE_ssl 1")
        set(NORVA_QT_TRANSPORT tls)
      endif()
    endif()
  endforeach()
endforeach()
message(STATUS "norva-api-qt: Qt's TLS: ${NORVA_QT_TRANSPORT}")
