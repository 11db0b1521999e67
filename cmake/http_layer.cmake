# SPDX-License-Identifier: MIT
# The service's HTTP layer on Boost.Beast (headers only) and its form reader,
# shared with the tests' scripted service and their form checks.
# TLS through OpenSSL where Debian has it; the Windows build (the tests'
# scripted service only) goes without.
if(WIN32)
  set(norva_tls_session service/tls_session_none.cpp)
  set(norva_spare_descriptor service/spare_descriptor_none.cpp)
else()
  find_package(OpenSSL REQUIRED)
  set(norva_tls_session service/tls_session_openssl.cpp)
  set(norva_spare_descriptor service/spare_descriptor_posix.cpp)
endif()
# Freed heap memory goes back to the system where the C library can trim.
include(CheckSymbolExists)
check_symbol_exists(malloc_trim "malloc.h" NORVA_HAVE_MALLOC_TRIM)
if(NORVA_HAVE_MALLOC_TRIM)
  set(norva_free_memory service/free_memory_glibc.cpp)
else()
  set(norva_free_memory service/free_memory_none.cpp)
endif()
add_library(norva_http STATIC service/http_server.cpp service/http_connection.cpp service/pooled_connections.cpp
            service/form_reader.cpp ${norva_tls_session} ${norva_free_memory}
            ${norva_spare_descriptor})
target_include_directories(norva_http PUBLIC ${PROJECT_SOURCE_DIR}/service)
target_include_directories(norva_http SYSTEM PUBLIC ${norva_boost_include})
target_link_libraries(norva_http PUBLIC Threads::Threads)
if(NOT WIN32)
  target_link_libraries(norva_http PUBLIC OpenSSL::SSL OpenSSL::Crypto)
endif()
if(WIN32)
  target_compile_definitions(norva_http PUBLIC _WIN32_WINNT=0x0601)
  target_link_libraries(norva_http PUBLIC ws2_32 mswsock)
endif()
