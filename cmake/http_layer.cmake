# The service's HTTP layer on Boost.Beast (headers only) and its form reader,
# shared with the tests' scripted service and their form checks. A cross build can't put the host's /usr/include on its
# path, so it sees Boost through a folder of its own.
find_path(NORVA_BOOST_INCLUDE boost/beast.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH)
if(NOT NORVA_BOOST_INCLUDE)
  message(FATAL_ERROR "Boost.Beast not found (Debian: apt-get install libboost-dev)")
endif()
set(norva_boost_include ${NORVA_BOOST_INCLUDE})
if(CMAKE_CROSSCOMPILING)
  set(norva_boost_include ${CMAKE_BINARY_DIR}/boost-headers)
  file(MAKE_DIRECTORY ${norva_boost_include})
  if(NOT EXISTS ${norva_boost_include}/boost)
    file(CREATE_LINK ${NORVA_BOOST_INCLUDE}/boost ${norva_boost_include}/boost SYMBOLIC)
  endif()
endif()

add_library(norva_http STATIC service/http_server.cpp service/form_reader.cpp)
target_include_directories(norva_http PUBLIC ${PROJECT_SOURCE_DIR}/service)
target_include_directories(norva_http SYSTEM PUBLIC ${norva_boost_include})
target_link_libraries(norva_http PUBLIC Threads::Threads)
if(WIN32)
  target_compile_definitions(norva_http PUBLIC _WIN32_WINNT=0x0601)
  target_link_libraries(norva_http PUBLIC ws2_32 mswsock)
endif()
