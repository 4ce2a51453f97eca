# GoogleTest from the sources Debian ships in /usr/src/googletest (package
# 'googletest'); KDX_GTEST_SOURCE_DIR points elsewhere if needed.
set(KDX_GTEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH "GoogleTest source tree")
if(NOT EXISTS ${KDX_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest sources not found in ${KDX_GTEST_SOURCE_DIR} (install the Debian package 'googletest')")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
add_subdirectory(${KDX_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/_deps/googletest EXCLUDE_FROM_ALL SYSTEM)
include(GoogleTest)

# Emulated test runs are several times slower than native ones; the cross
# presets scale every CTest time-out by this factor.
set(KDX_TEST_TIMEOUT_FACTOR 1 CACHE STRING "Multiplier for the CTest time-out of every test")

# In a cross build the tests themselves run under the emulator, and the
# programs they start (on a pseudo-terminal, or as death-test children) must
# be put behind the same emulator: KDX_TEST_LAUNCHER carries its command line.
# Other add_test() calls can use KDX_TEST_ENVIRONMENT for the same purpose.
set(KDX_TEST_ENVIRONMENT "")
if(CMAKE_CROSSCOMPILING AND CMAKE_CROSSCOMPILING_EMULATOR)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " KDX_TEST_LAUNCHER)
  set(KDX_TEST_ENVIRONMENT "KDX_TEST_LAUNCHER=${KDX_TEST_LAUNCHER}")
endif()

# The test code is most of what a build compiles, and most of that is
# GoogleTest's and GoogleMock's headers, read again for every source. So the
# test executables and libraries are unity builds (KDX_UNITY_TESTS: up to
# KDX_UNITY_TESTS_BATCH_SIZE sources compiled as one, which share the headers
# and the template instantiations; see CONVENTIONS.md for the names this asks
# to be unique), and they share one precompiled header of GoogleTest and
# GoogleMock, made once per build by the test support (tests/support). The
# product's own code is compiled source by source as always.
# CMAKE_DISABLE_PRECOMPILE_HEADERS turns the precompiled header off.
option(KDX_UNITY_TESTS "Compile the test executables and libraries as unity builds" ON)
set(KDX_UNITY_TESTS_BATCH_SIZE 8 CACHE STRING "Test sources compiled as one in the unity builds of the tests")
set(KDX_TEST_PRECOMPILED_HEADERS <gtest/gtest.h> <gmock/gmock.h>)
set(KDX_TEST_PRECOMPILED_HEADER_TARGET kdx_test_support)

# The options of all test code. In the sanitizer builds the test code itself
# is compiled with line tables only (-g1): reports still name the file and
# line, the code under test keeps full debug information, and the tests, most
# of what these builds compile, take much less time. Wherever the code under
# test is optimised (release -O3, tsan -O2, the size builds -Os), the tests
# are compiled at -O1, which takes little more than half the time of -O3 and
# leaves them fast enough for what they wait on; the asan and coverage
# builds are at -O0 throughout.
#
# Every test target shares the one precompiled header, which GCC accepts only
# from a compilation with the same debug level and the same kind of
# position-independent code: test libraries are therefore compiled as the
# test executables are, as code for a position-independent executable (the
# compiler's default; none of them goes into a shared library), rather than
# as position-independent code for shared libraries, and with the same macros
# that the test support's sources see. -fpch-preprocess lets ccache find the
# precompiled header when it preprocesses a source.
#
# In a build with coverage counters, KDX_COVERAGE_BUILD tells the test
# support to have the counters written by programs that do not exit normally
# (a death test's aborting child, a program the test ends).
function(kdx_test_code_options target)
  if(KDX_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -O1 -g1)
  elseif(KDX_SANITIZE STREQUAL "address")
    target_compile_options(${target} PRIVATE -g1)
  elseif(NOT KDX_COVERAGE)
    target_compile_options(${target} PRIVATE -O1)
  endif()
  if(KDX_COVERAGE)
    target_compile_definitions(${target} PRIVATE KDX_COVERAGE_BUILD)
  endif()
  kdx_test_unity(${target})
  get_target_property(type ${target} TYPE)
  if(NOT type STREQUAL "EXECUTABLE")
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE OFF)
  endif()
  if(target STREQUAL KDX_TEST_PRECOMPILED_HEADER_TARGET)
    target_precompile_headers(${target} PRIVATE ${KDX_TEST_PRECOMPILED_HEADERS})
  else()
    target_precompile_headers(${target} REUSE_FROM ${KDX_TEST_PRECOMPILED_HEADER_TARGET})
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
  endif()
endfunction()

# The unity build of a test target's sources, made here rather than with
# CMake's UNITY_BUILD, whose combined sources include each source by its
# absolute path: that path would then be in every __FILE__ (GoogleTest's
# failure locations), and no other clone of the tree could share the compiled
# code through ccache. These include each source by its path in the tree,
# found through the tree's include directory, as the tests' own includes are.
# The batches are consecutive runs of the target's sources of nearly equal
# length; generated sources are compiled apart.
function(kdx_test_unity target)
  if(NOT KDX_UNITY_TESTS)
    return()
  endif()
  get_target_property(sources ${target} SOURCES)
  set(files)
  foreach(source ${sources})
    get_filename_component(path ${source} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    string(FIND "${path}" "${PROJECT_SOURCE_DIR}/" position)
    if(position EQUAL 0 AND path MATCHES "\\.cpp$")
      list(APPEND files ${path})
    endif()
  endforeach()
  list(LENGTH files count)
  if(count LESS 2)
    return()
  endif()
  math(EXPR batches "(${count} + ${KDX_UNITY_TESTS_BATCH_SIZE} - 1) / ${KDX_UNITY_TESTS_BATCH_SIZE}")
  set(first 0)
  foreach(batch RANGE 1 ${batches})
    math(EXPR size "(${count} - ${first}) / (${batches} - ${batch} + 1)")
    math(EXPR last "${first} + ${size} - 1")
    set(content "// Generated by kdx_test_unity(): sources of ${target} compiled as one.\n")
    foreach(index RANGE ${first} ${last})
      list(GET files ${index} path)
      file(RELATIVE_PATH relative ${PROJECT_SOURCE_DIR} ${path})
      string(APPEND content "#include \"${relative}\"\n")
    endforeach()
    set(unity ${CMAKE_CURRENT_BINARY_DIR}/kdx_unity/${target}_${batch}.cpp)
    file(GENERATE OUTPUT ${unity} CONTENT "${content}")
    target_sources(${target} PRIVATE ${unity})
    math(EXPR first "${last} + 1")
  endforeach()
  set_source_files_properties(${files} PROPERTIES HEADER_FILE_ONLY ON)
endfunction()

# kdx_test_paths(<target> <NAME>=<path>...)
# Paths of the build tree (a program the tests start, a file of the source
# tree) for the test code of <target>: a source that includes the generated
# "kdx_test_paths.h" reads each as the macro <NAME>, a `const char*`. The
# paths are not compiled into the test sources themselves (as compile
# definitions would be) but into one small generated source, the only one
# that differs between two clones of the tree, so that ccache shares the
# compiled test code between clones. <path> may be a generator expression
# ($<TARGET_FILE:...>).
function(kdx_test_paths target)
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/kdx_test_paths/${target})
  set(header "// Generated by kdx_test_paths(): paths of the build tree for ${target}.\n#pragma once\n")
  set(source "// Generated by kdx_test_paths(): paths of the build tree for ${target}.\n#include \"kdx_test_paths.h\"\n")
  foreach(entry ${ARGN})
    if(NOT entry MATCHES "^([A-Z][A-Z0-9_]*)=(.+)$")
      message(FATAL_ERROR "kdx_test_paths(${target}): '${entry}' is not NAME=path")
    endif()
    set(name ${CMAKE_MATCH_1})
    set(value ${CMAKE_MATCH_2})
    string(APPEND header "extern \"C\" const char kdx_path_${name}[];\n#define ${name} kdx_path_${name}\n")
    string(APPEND source "extern \"C\" const char kdx_path_${name}[] = \"${value}\";\n")
  endforeach()
  file(GENERATE OUTPUT ${dir}/kdx_test_paths.h CONTENT "${header}")
  file(GENERATE OUTPUT ${dir}/kdx_test_paths.cpp CONTENT "${source}")
  set_source_files_properties(${dir}/kdx_test_paths.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
  target_sources(${target} PRIVATE ${dir}/kdx_test_paths.cpp)
  target_include_directories(${target} PRIVATE ${dir})
endfunction()

# kdx_add_gtest(<name> SOURCES <files...> LIBS <targets...> [TIMEOUT <s>])
# One test executable linked with the syslog capture and the shared test main;
# each test case becomes its own CTest test, discovered when CTest runs (so
# that cross builds discover through the emulator).
function(kdx_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  math(EXPR timeout "${ARG_TIMEOUT} * ${KDX_TEST_TIMEOUT_FACTOR}")
  math(EXPR discoveryTimeout "60 * ${KDX_TEST_TIMEOUT_FACTOR}")
  set(properties TIMEOUT ${timeout})
  if(KDX_TEST_ENVIRONMENT)
    list(APPEND properties ENVIRONMENT "${KDX_TEST_ENVIRONMENT}")
  endif()
  add_executable(${name} ${ARG_SOURCES})
  kdx_test_code_options(${name})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kdx_test_support GTest::gmock)
  # End-to-end tests preload the syslog capture into the programs they start.
  add_dependencies(${name} kdx_syslog_preload)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT ${discoveryTimeout}
    PROPERTIES ${properties})
endfunction()

# kdx_add_test_helper(<name> SOURCES <files...> [LIBS <targets...>])
# Code that several test executables share, compiled once into a static
# library. It may use GoogleTest and the test support: the support's symbols
# come from the executables, each of which links the support objects.
function(kdx_add_test_helper name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  kdx_test_code_options(${name})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${ARG_LIBS} GTest::gmock)
endfunction()
