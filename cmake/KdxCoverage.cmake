# The coverage build (GCC): the project's own code is compiled without
# optimisation and with gcov's counters, and every program and test
# executable is linked with gcov's runtime, which writes the counters into
# .gcda files beside the objects when a process exits normally. The test
# suite then shows which lines and branches it runs; scripts/coverage.sh
# reports them.
option(KDX_COVERAGE "Build with gcov counters for line and branch coverage (GCC)" OFF)

# Called after GoogleTest has been added, so that the framework itself stays
# uninstrumented; -O0 comes after the build type's level and replaces it.
function(kdx_coverage_options)
  if(NOT KDX_COVERAGE)
    return()
  endif()
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "KDX_COVERAGE needs GCC (gcov counters), not ${CMAKE_CXX_COMPILER_ID}")
  endif()
  if(KDX_SIZE_BUILD OR NOT KDX_SANITIZE STREQUAL "")
    message(FATAL_ERROR "KDX_COVERAGE is a build of its own: without KDX_SIZE_BUILD and KDX_SANITIZE")
  endif()
  # The counters are updated atomically: the HTTP server's and the bridge's
  # threads run the same code at once, and counts lost between them can add
  # up to a negative count of a branch, which gcovr cannot read.
  add_compile_options(-O0 --coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endfunction()
