# Checks that the shared client library exports exactly its C binding: every
# function the header declares, and no other defined symbol (the C++ code and
# the static libraries inside stay hidden, link-time optimised or not).
#
# Usage: cmake -DKDX_NM=<nm> -DKDX_LIBRARY=<library> -DKDX_HEADER=<header> -P check_exports.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${KDX_NM}" -D --defined-only --format=posix "${KDX_LIBRARY}"
  RESULT_VARIABLE status OUTPUT_VARIABLE listing ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${KDX_NM} failed on ${KDX_LIBRARY}: ${errors}")
endif()
string(REGEX MATCHALL "(^|\n)[^ \n]+" names "${listing}")
list(TRANSFORM names STRIP)

file(READ "${KDX_HEADER}" header)
string(REGEX MATCHALL "KDX_IPC_API[^;(]*[ *](kdx_ipc_[a-z_]+)[ \t]*\\(" declarations "${header}")
list(TRANSFORM declarations REPLACE ".*[ *](kdx_ipc_[a-z_]+)[ \t]*\\($" "\\1")

set(failures "")
foreach(name ${names})
  if(NOT name MATCHES "^kdx_ipc_")
    string(APPEND failures "exported but not part of the C binding: ${name}\n")
  endif()
endforeach()
if(NOT declarations)
  string(APPEND failures "no KDX_IPC_API function found in ${KDX_HEADER}\n")
endif()
foreach(name ${declarations})
  if(NOT name IN_LIST names)
    string(APPEND failures "declared in the header but not exported: ${name}\n")
  endif()
endforeach()
if(failures)
  message(FATAL_ERROR "${KDX_LIBRARY}:\n${failures}")
endif()
string(REPLACE ";" " " shown "${names}")
message(STATUS "exports exactly the C binding: ${shown}")
