# Compilation through ccache when it is there (scripts/deps.sh installs it).
# The cache lives outside the clone (ccache's own default, ~/.cache/ccache,
# or CCACHE_DIR), so that a CI run after a developer's build on the same
# machine, or a second clone, compiles little. Paths below the source tree
# are hashed relative to it and the working directory is left out of the hash,
# so that two clones at different places share their objects.
option(KDX_CCACHE "Compile through ccache when it is installed" ON)
find_program(KDX_CCACHE_PROGRAM ccache)
if(KDX_CCACHE AND KDX_CCACHE_PROGRAM)
  set(launcher env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1 ${KDX_CCACHE_PROGRAM})
  set(CMAKE_C_COMPILER_LAUNCHER ${launcher})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${launcher})
endif()
