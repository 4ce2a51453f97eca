# Compilation through ccache when it is there (scripts/deps.sh installs it).
# The cache lives outside the clone (ccache's own default, ~/.cache/ccache,
# or CCACHE_DIR), so that a CI run after a developer's build on the same
# machine, or a second clone, compiles little. Paths below the source tree
# are hashed relative to it and the working directory is left out of the hash,
# so that two clones at different places share their objects.
#
# The test code shares a precompiled header (cmake/KdxGoogleTest.cmake):
# ccache caches its making and the compilations that use it only when told
# to ignore the macros defined at its making (pch_defines) and the time macros
# (time_macros), which it cannot see through a precompiled header.
#
# One CI run, every build from release to fuzz, fills about 200 MB of the
# cache. A configured limit below KDX_CCACHE_MIN_SIZE (room for several such
# runs beside a developer's builds) is raised to it for the compilations of
# this tree; a larger limit, or none, is left as it is.
option(KDX_CCACHE "Compile through ccache when it is installed" ON)
set(KDX_CCACHE_MIN_SIZE 2 CACHE STRING "Smallest ccache size limit, in GB, that compilations of this tree keep")
find_program(KDX_CCACHE_PROGRAM ccache)
if(KDX_CCACHE AND KDX_CCACHE_PROGRAM)
  set(kdxCcacheLauncher env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros)
  # ccache prints its limit as, for example, "5.0G" or "500.0M"; 0 is none.
  execute_process(COMMAND ${KDX_CCACHE_PROGRAM} --get-config max_size
    OUTPUT_VARIABLE kdxCcacheSize OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  set(kdxCcacheMegabytes 0)
  if(kdxCcacheSize MATCHES "^([0-9]+)(\\.[0-9]+)?([kKMGT]?)i?B?$")
    set(kdxCcacheFactor_ 0)
    set(kdxCcacheFactor_k 0)
    set(kdxCcacheFactor_K 0)
    set(kdxCcacheFactor_M 1)
    set(kdxCcacheFactor_G 1000)
    set(kdxCcacheFactor_T 1000000)
    math(EXPR kdxCcacheMegabytes "${CMAKE_MATCH_1} * ${kdxCcacheFactor_${CMAKE_MATCH_3}}")
    if(CMAKE_MATCH_1 GREATER 0 AND kdxCcacheMegabytes LESS "${KDX_CCACHE_MIN_SIZE}000")
      list(APPEND kdxCcacheLauncher "CCACHE_MAXSIZE=${KDX_CCACHE_MIN_SIZE}G")
    endif()
  endif()
  list(APPEND kdxCcacheLauncher ${KDX_CCACHE_PROGRAM})
  set(CMAKE_C_COMPILER_LAUNCHER ${kdxCcacheLauncher})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${kdxCcacheLauncher})
endif()
