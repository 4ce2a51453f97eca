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

# In the sanitizer builds the test code itself is compiled at -O1 with line
# tables only (-g1): reports still name the file and line, the code under
# test keeps the build's -O2 and full debug information, and the tests, most
# of what these builds compile, take half the time.
function(kdx_test_code_options target)
  if(KDX_SANITIZE STREQUAL "address" OR KDX_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -O1 -g1)
  endif()
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
