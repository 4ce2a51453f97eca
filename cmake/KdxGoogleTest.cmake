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

# kdx_add_gtest(<name> SOURCES <files...> LIBS <targets...>)
# One test executable linked with the syslog capture and the shared test main;
# each test case becomes its own CTest test, discovered when CTest runs (so
# that cross builds discover through the emulator).
function(kdx_add_gtest name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} kdx_test_support GTest::gmock)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT})
endfunction()
