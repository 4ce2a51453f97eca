# Checks that the project's includes follow its layering, and fails naming
# every include that crosses it:
#   cli    uses nothing else of the project;
#   util   uses nothing else of the project;
#   ipc    uses util;
#   app    uses cli, ipc and util;
#   tools/service_client, the tools' client core, uses ipc and util only:
#          never cli, app or the tools built on it;
#   tools/mqtt, the tools' MQTT layer, uses util only (and libmosquitto,
#          whose headers no other folder of the programs includes);
#   tools/bridge, kendrivex-bridge, uses the client core, the MQTT layer,
#          ipc and util only: never cli, app or the other tools;
#   tools/fleet, kendrivex-fleet, uses the client core, the MQTT layer and
#          util only: never ipc, cli, app or the other tools;
#   tools  use the client core, cli, ipc and util, never app.
# No folder above includes anything of tests/ or bench/. An include names a
# folder by its path ("ipc/ipc_client.h"): the longest layer that begins it,
# else its first component; a bare name ("kendrivex_ipc.h") is looked up
# among the project's headers, after the including file's own directory. A
# file belongs to the longest layer its path begins with.
#
# Usage: cmake [-DKDX_SOURCE_DIR=<tree>] -P scripts/check_layering.cmake
# (the tree defaults to the one this script belongs to). The test suite runs
# it on the tree, and on scratch trees with crossing includes to show that it
# fails on each.
cmake_minimum_required(VERSION 3.25)

if(NOT KDX_SOURCE_DIR)
  get_filename_component(KDX_SOURCE_DIR "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
endif()

# The folders checked, and the project folders each may include from. A
# layer inside another (the client core inside tools) is listed before it.
set(kdxLayers cli util ipc app tools/service_client tools/mqtt tools/bridge tools/fleet tools)
set(kdxAllowed_cli cli)
set(kdxAllowed_util util)
set(kdxAllowed_ipc ipc util)
set(kdxAllowed_app app cli ipc util)
set(kdxAllowed_tools/service_client tools/service_client ipc util)
set(kdxAllowed_tools/mqtt tools/mqtt util)
set(kdxAllowed_tools/bridge tools/bridge tools/service_client tools/mqtt ipc util)
set(kdxAllowed_tools/fleet tools/fleet tools/service_client tools/mqtt util)
set(kdxAllowed_tools tools tools/service_client cli ipc util)
# Every folder whose headers an include can name.
set(kdxFolders ${kdxLayers} tests bench)

# The folder of kdxFolders that the relative path `path` lies in (the first
# listed, so the innermost layer), or empty.
function(kdx_folder_of path result)
  set(found "")
  foreach(folder ${kdxFolders})
    string(FIND "${path}" "${folder}/" at)
    if(at EQUAL 0)
      set(found ${folder})
      break()
    endif()
  endforeach()
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

# The folder that holds a header of this bare name, if any (the first found).
foreach(folder ${kdxFolders})
  file(GLOB_RECURSE headers LIST_DIRECTORIES false RELATIVE "${KDX_SOURCE_DIR}" "${KDX_SOURCE_DIR}/${folder}/*.h")
  foreach(header ${headers})
    get_filename_component(name "${header}" NAME)
    if(NOT DEFINED "kdxHeaderFolder_${name}")
      kdx_folder_of("${header}" owner)
      set("kdxHeaderFolder_${name}" ${owner})
    endif()
  endforeach()
endforeach()

# The project folder that `included` (as written in `file`) belongs to, or
# empty for anything outside the project (system and library headers).
function(kdx_included_folder file included result)
  set(folder "")
  if(included MATCHES "/")
    kdx_folder_of("${included}" folder)
  else()
    get_filename_component(dir "${file}" DIRECTORY)
    if(NOT EXISTS "${dir}/${included}" AND DEFINED "kdxHeaderFolder_${included}")
      set(folder ${kdxHeaderFolder_${included}})
    endif()
  endif()
  set(${result} "${folder}" PARENT_SCOPE)
endfunction()

set(kdxCrossings 0)
set(kdxFiles 0)
foreach(layer ${kdxLayers})
  file(GLOB_RECURSE sources LIST_DIRECTORIES false
    "${KDX_SOURCE_DIR}/${layer}/*.h" "${KDX_SOURCE_DIR}/${layer}/*.c" "${KDX_SOURCE_DIR}/${layer}/*.cpp")
  foreach(file ${sources})
    # A file of an inner layer is checked as that layer's only.
    file(RELATIVE_PATH relative "${KDX_SOURCE_DIR}" "${file}")
    kdx_folder_of("${relative}" owner)
    if(NOT owner STREQUAL layer)
      continue()
    endif()
    math(EXPR kdxFiles "${kdxFiles} + 1")
    file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
    foreach(line ${includes})
      if(NOT line MATCHES "#[ \t]*include[ \t]*[<\"]([^>\"]+)[>\"]")
        continue()
      endif()
      set(included "${CMAKE_MATCH_1}")
      # libmosquitto's headers belong to the MQTT layer alone.
      if(included MATCHES "^(mosquitto|mqtt_protocol)\\.h$" AND NOT layer STREQUAL "tools/mqtt")
        file(RELATIVE_PATH shown "${KDX_SOURCE_DIR}" "${file}")
        message(NOTICE "${shown}: includes libmosquitto's \"${included}\"; only tools/mqtt/ may")
        math(EXPR kdxCrossings "${kdxCrossings} + 1")
        continue()
      endif()
      kdx_included_folder("${file}" "${included}" folder)
      if(folder AND NOT folder IN_LIST kdxAllowed_${layer})
        file(RELATIVE_PATH shown "${KDX_SOURCE_DIR}" "${file}")
        string(REPLACE ";" " " allowed "${kdxAllowed_${layer}}")
        message(NOTICE "${shown}: includes \"${included}\" of ${folder}/; ${layer}/ may include only from: ${allowed}")
        math(EXPR kdxCrossings "${kdxCrossings} + 1")
      endif()
    endforeach()
  endforeach()
endforeach()

if(kdxCrossings GREATER 0)
  message(FATAL_ERROR "layering: ${kdxCrossings} include(s) cross the layering")
endif()
message(STATUS "layering: the includes of ${kdxFiles} files follow the layering")
