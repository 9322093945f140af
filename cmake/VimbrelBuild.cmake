# SPDX-License-Identifier: Apache-2.0
# Compiler settings and the three ways this project makes targets.

set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(VIMBREL_CCACHE ccache)
if(VIMBREL_CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${VIMBREL_CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${VIMBREL_CCACHE})
endif()
find_program(VIMBREL_MOLD mold)
if(VIMBREL_MOLD AND NOT VIMBREL_SANITIZE)
  add_link_options(-fuse-ld=mold)
endif()

add_library(vimbrel_warnings INTERFACE)
target_compile_options(vimbrel_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow=local -Wnon-virtual-dtor -Wimplicit-fallthrough)
# Records are built with designated initialisers, where a field that is left out takes its default on purpose.
target_compile_options(vimbrel_warnings INTERFACE -Wno-missing-field-initializers)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # These three report false positives in library headers at the optimisation levels that are used here.
  target_compile_options(vimbrel_warnings INTERFACE -Wno-maybe-uninitialized -Wno-restrict -Wno-stringop-overflow)
endif()
if(VIMBREL_WERROR)
  target_compile_options(vimbrel_warnings INTERFACE -Werror)
endif()

add_library(vimbrel_options INTERFACE)
target_link_libraries(vimbrel_options INTERFACE vimbrel_warnings)
if(VIMBREL_SANITIZE)
  target_compile_options(vimbrel_options INTERFACE -fsanitize=${VIMBREL_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(vimbrel_options INTERFACE -fsanitize=${VIMBREL_SANITIZE})
  if(VIMBREL_SANITIZE MATCHES "thread")
    # Asio orders its queues with fences, which the thread sanitizer of this compiler announces it cannot model.
    target_compile_options(vimbrel_options INTERFACE -Wno-tsan)
  endif()
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release")
  # What is measured is what is installed: the packages are this very build, hardened as Debian hardens its own. The
  # same sources give the same bytes wherever they lie.
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -Wformat -Werror=format-security
    -Wdate-time -ffile-prefix-map=${PROJECT_SOURCE_DIR}=.)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
endif()

if(VIMBREL_COVERAGE)
  # Clang counts the conditions that are written, and not what a compiler adds (clean-up, defaulted comparisons). The
  # counters are the file itself (%c): a program that is killed has counted, too. The file's name stands in the
  # programs, because tests start some of them with an environment of their own.
  set(profile -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%c%m.profraw)
  target_compile_options(vimbrel_options INTERFACE ${profile} -fcoverage-mapping -fprofile-update=atomic
    "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(vimbrel_options INTERFACE ${profile})
endif()

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
# Here, because an imported target is known only below the directory that finds it, and tests use these too.
pkg_check_modules(SIMDJSON REQUIRED IMPORTED_TARGET simdjson)
pkg_check_modules(SQLITE REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)

# vimbrel_library(Name SOURCES a.cpp… DEPENDS Other… PRIVATE lib…)
# One folder, one static library. DEPENDS names libraries of this project that stand below it.
function(vimbrel_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/Sources/VimbrelCore)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE vimbrel_options ${ARG_PRIVATE})
endfunction()

# vimbrel_compile_fast()
# The code of this directory is not optimised in a release build either: tests are compiled more often than run, and
# what they test is optimised as it is installed.
macro(vimbrel_compile_fast)
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    add_compile_options(-O0 -U_FORTIFY_SOURCE)
  endif()
endmacro()

# vimbrel_test(name SOURCES a.cpp… LINKS lib… [LABELS label…] [TIMEOUT seconds])
# One GoogleTest program, one ctest entry.
function(vimbrel_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINKS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/Tests)
  target_link_libraries(${name} PRIVATE vimbrel_options ${ARG_LINKS} GTest::gtest GTest::gmock GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()

option(VIMBREL_FUZZERS "Build the fuzz targets with libFuzzer (clang)" OFF)

# vimbrel_fuzz(Name LINKS lib… [INCLUDE directory…] [SOURCES file…])
# Fuzz/NameFuzz.cpp defines LLVMFuzzerTestOneInput. With VIMBREL_FUZZERS it becomes the fuzzer `fuzz_Name`; always, it
# becomes a test that replays every file of its corpus, Fuzz/corpus/<name-in-kebab-case>.
function(vimbrel_fuzz name)
  cmake_parse_arguments(ARG "" "" "LINKS;INCLUDE;SOURCES" ${ARGN})
  string(REGEX REPLACE "([a-z])([A-Z])" "\\1-\\2" corpus ${name})
  string(TOLOWER ${corpus} corpus)
  set(programs replay_${name})
  add_executable(replay_${name} ${name}Fuzz.cpp ReplayMain.cpp ${ARG_SOURCES})
  add_test(NAME replay_${name} COMMAND replay_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${corpus})
  set_tests_properties(replay_${name} PROPERTIES TIMEOUT 300 LABELS fuzz)
  if(VIMBREL_FUZZERS)
    list(APPEND programs fuzz_${name})
    add_executable(fuzz_${name} ${name}Fuzz.cpp ${ARG_SOURCES})
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  endif()
  foreach(program IN LISTS programs)
    target_link_libraries(${program} PRIVATE vimbrel_options ${ARG_LINKS})
    target_include_directories(${program} PRIVATE ${ARG_INCLUDE})
  endforeach()
endfunction()
