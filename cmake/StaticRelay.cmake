# SPDX-License-Identifier: Apache-2.0
# The relay is run thousands of times a day, and most of a static glibc program's time in user space goes into probing
# the processor and setting up what the relay never uses. musl starts in a few hundred instructions, so it is taken
# where its development files are installed (Debian: musl-dev) and glibc elsewhere; the sources are the same.

string(REPLACE "-gnu" "-musl" VIMBREL_MUSL_TRIPLE "${CMAKE_CXX_LIBRARY_ARCHITECTURE}")
find_library(VIMBREL_MUSL_LIBC NAMES libc.a PATHS /usr/lib/${VIMBREL_MUSL_TRIPLE} NO_DEFAULT_PATH)
find_path(VIMBREL_MUSL_INCLUDE NAMES sys/socket.h PATHS /usr/include/${VIMBREL_MUSL_TRIPLE} NO_DEFAULT_PATH)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND VIMBREL_MUSL_LIBC AND VIMBREL_MUSL_INCLUDE)
  set(VIMBREL_RELAY_LIBC musl)
else()
  set(VIMBREL_RELAY_LIBC glibc)
endif()
message(STATUS "vimbrel-relay links ${VIMBREL_RELAY_LIBC}")

# vimbrel_static_program(name SOURCES a.cpp…): a static executable without the C++ library, optimised in every build
# type and never sanitized, so that what the tests run is what is installed.
function(vimbrel_static_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/Sources/VimbrelCore)
  target_link_libraries(${name} PRIVATE vimbrel_warnings)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  target_compile_options(${name} PRIVATE -O2 -fno-pie -fno-exceptions -fno-rtti -fno-asynchronous-unwind-tables
    -ffunction-sections -fdata-sections -U_GLIBCXX_ASSERTIONS)
  target_link_options(${name} PRIVATE -static -no-pie -Wl,--gc-sections)
  if(NOT VIMBREL_RELAY_LIBC STREQUAL "musl")
    return()
  endif()
  # The compiler's C++ headers, then musl's C headers in place of glibc's, then the compiler's own.
  set(headers ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
  list(FILTER headers INCLUDE REGEX "/c\\+\\+/")
  set(compiler_headers ${CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES})
  list(FILTER compiler_headers INCLUDE REGEX "/lib/gcc/")
  target_compile_options(${name} PRIVATE -nostdinc)
  foreach(directory IN LISTS headers VIMBREL_MUSL_INCLUDE compiler_headers)
    target_compile_options(${name} PRIVATE "SHELL:-isystem ${directory}")
  endforeach()
  target_compile_options(${name} PRIVATE
    "SHELL:-include ${PROJECT_SOURCE_DIR}/Sources/VimbrelRelay/MuslCompatibility.h")
  cmake_path(GET VIMBREL_MUSL_LIBC PARENT_PATH directory)
  target_link_options(${name} PRIVATE -nostdlib ${directory}/crt1.o)
  # libgcc once more after it: the two may need each other.
  target_link_libraries(${name} PRIVATE ${VIMBREL_MUSL_LIBC} gcc ${VIMBREL_MUSL_LIBC})
endfunction()
