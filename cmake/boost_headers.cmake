# SPDX-License-Identifier: MIT
# Boost's headers (Beast and Asio are headers only): the library reads
# downloads with Beast's parser, the service and the tests serve HTTP with it. A
# cross build can't put the host's /usr/include on its path, so it sees Boost
# through a folder of its own. Sets norva_boost_include.
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

