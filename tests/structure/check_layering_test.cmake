# Shows that the layering check fails on each kind of crossing include and
# passes a tree without one. Each case is a small scratch tree written below
# KDX_SCRATCH_DIR and checked by the script KDX_CHECK.
#
# Usage: cmake -DKDX_CHECK=<check_layering.cmake> -DKDX_SCRATCH_DIR=<dir> -P check_layering_test.cmake
cmake_minimum_required(VERSION 3.25)

set(kdxFailures 0)

# A tree with one header in each folder, including only what it may.
function(kdx_write_clean_tree root)
  file(REMOVE_RECURSE "${root}")
  file(WRITE "${root}/util/socket.h" "#pragma once\n#include <sys/socket.h>\n#include <string>\n")
  file(WRITE "${root}/util/socket.cpp" "#include \"util/socket.h\"\n#include \"socket.h\"\n")
  file(WRITE "${root}/cli/console.h" "#pragma once\n#include <termios.h>\n")
  file(WRITE "${root}/cli/console.cpp" "#include \"cli/console.h\"\n")
  file(WRITE "${root}/ipc/ipc_client.h" "#pragma once\n#include \"util/socket.h\"\n")
  file(WRITE "${root}/ipc/kendrivex_ipc.h" "#pragma once\n")
  file(WRITE "${root}/app/globals.h"
    "#pragma once\n#include \"cli/console.h\"\n#include \"ipc/ipc_client.h\"\n#include \"util/socket.h\"\n")
  file(WRITE "${root}/tools/sim/sim.cpp"
    "#include \"ipc/ipc_client.h\"\n#include \"util/socket.h\"\n#include \"cli/console.h\"\n")
  file(WRITE "${root}/tools/c_example/example.c" "#include <kendrivex_ipc.h>\n#include <stdio.h>\n")
  file(WRITE "${root}/tools/service_client/runner.h"
    "#pragma once\n#include \"ipc/ipc_client.h\"\n#include \"util/socket.h\"\n#include \"tools/service_client/failure.h\"\n")
  file(WRITE "${root}/tools/ctl/main.cpp"
    "#include \"tools/service_client/runner.h\"\n#include \"runner.h\"\n#include \"cli/console.h\"\n")
  file(WRITE "${root}/tools/mqtt/session.h"
    "#pragma once\n#include <mosquitto.h>\n#include <mqtt_protocol.h>\n#include \"util/decimal_text.h\"\n")
  file(WRITE "${root}/tools/bridge/bridge.cpp"
    "#include \"tools/service_client/runner.h\"\n#include \"tools/mqtt/session.h\"\n#include \"ipc/ipc_client.h\"\n#include \"util/socket.h\"\n")
  file(WRITE "${root}/tools/fleet/run.cpp"
    "#include \"tools/service_client/runner.h\"\n#include \"tools/mqtt/session.h\"\n#include \"util/socket.h\"\n#include \"run.h\"\n")
  file(WRITE "${root}/tools/fleet/run.h" "#pragma once\n")
  file(WRITE "${root}/tests/support/helper.h" "#pragma once\n")
endfunction()

# Runs the check on `root`; sets `status` and `output` in the caller.
macro(kdx_run_check root)
  execute_process(COMMAND "${CMAKE_COMMAND}" "-DKDX_SOURCE_DIR=${root}" -P "${KDX_CHECK}"
    RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
endmacro()

function(kdx_expect_pass name)
  set(root "${KDX_SCRATCH_DIR}/${name}")
  kdx_write_clean_tree("${root}")
  kdx_run_check("${root}")
  if(NOT status EQUAL 0)
    message(NOTICE "FAILED ${name}: the check refused a tree that follows the layering:\n${output}")
    math(EXPR kdxFailures "${kdxFailures} + 1")
    set(kdxFailures ${kdxFailures} PARENT_SCOPE)
  endif()
endfunction()

# kdx_expect_crossing(<name> <file> <include line> <report>): the clean tree
# with one more file holding `include line` fails, and the check's output
# names the file in `report`.
function(kdx_expect_crossing name file line report)
  set(root "${KDX_SCRATCH_DIR}/${name}")
  kdx_write_clean_tree("${root}")
  file(WRITE "${root}/${file}" "${line}\n")
  kdx_run_check("${root}")
  string(FIND "${output}" "${report}" found)
  if(status EQUAL 0 OR found EQUAL -1)
    message(NOTICE "FAILED ${name}: expected a failure reporting [${report}], got status ${status}:\n${output}")
    math(EXPR kdxFailures "${kdxFailures} + 1")
    set(kdxFailures ${kdxFailures} PARENT_SCOPE)
  endif()
endfunction()

kdx_expect_pass(clean)
kdx_expect_crossing(cli_ipc cli/bad.cpp "#include \"ipc/ipc_client.h\""
  "cli/bad.cpp: includes \"ipc/ipc_client.h\" of ipc/")
kdx_expect_crossing(cli_util cli/bad.h "#include \"util/socket.h\""
  "cli/bad.h: includes \"util/socket.h\" of util/")
kdx_expect_crossing(cli_app cli/bad.cpp "#include \"app/globals.h\"" "cli/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(cli_bare_ipc cli/bad.cpp "#include <kendrivex_ipc.h>"
  "cli/bad.cpp: includes \"kendrivex_ipc.h\" of ipc/")
kdx_expect_crossing(util_ipc util/bad.cpp "#include \"ipc/ipc_client.h\""
  "util/bad.cpp: includes \"ipc/ipc_client.h\" of ipc/")
kdx_expect_crossing(util_cli util/bad.cpp "  #  include \"cli/console.h\""
  "util/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(util_app util/bad.cpp "#include \"app/globals.h\"" "util/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(ipc_cli ipc/bad.cpp "#include \"cli/console.h\"" "ipc/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(ipc_app ipc/bad.cpp "#include \"app/globals.h\"" "ipc/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(tools_app tools/sim/bad.cpp "#include \"app/globals.h\""
  "tools/sim/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(core_cli tools/service_client/bad.cpp "#include \"cli/console.h\""
  "tools/service_client/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(core_bare_cli tools/service_client/bad.h "#include \"console.h\""
  "tools/service_client/bad.h: includes \"console.h\" of cli/")
kdx_expect_crossing(core_app tools/service_client/bad.cpp "#include \"app/globals.h\""
  "tools/service_client/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(core_tools tools/service_client/bad.cpp "#include \"tools/ctl/arguments.h\""
  "tools/service_client/bad.cpp: includes \"tools/ctl/arguments.h\" of tools/")
kdx_expect_crossing(mqtt_ipc tools/mqtt/bad.cpp "#include \"ipc/ipc_client.h\""
  "tools/mqtt/bad.cpp: includes \"ipc/ipc_client.h\" of ipc/")
kdx_expect_crossing(mqtt_core tools/mqtt/bad.cpp "#include \"tools/service_client/runner.h\""
  "tools/mqtt/bad.cpp: includes \"tools/service_client/runner.h\" of tools/service_client/")
kdx_expect_crossing(mqtt_bridge tools/mqtt/bad.h "#include \"tools/bridge/bridge.h\""
  "tools/mqtt/bad.h: includes \"tools/bridge/bridge.h\" of tools/bridge/")
kdx_expect_crossing(mqtt_cli tools/mqtt/bad.cpp "#include \"cli/console.h\"" "tools/mqtt/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(bridge_mosquitto tools/bridge/bad.cpp "#include <mosquitto.h>"
  "tools/bridge/bad.cpp: includes libmosquitto's \"mosquitto.h\"; only tools/mqtt/ may")
kdx_expect_crossing(ctl_mqtt_protocol tools/ctl/bad.cpp "#include <mqtt_protocol.h>"
  "tools/ctl/bad.cpp: includes libmosquitto's \"mqtt_protocol.h\"; only tools/mqtt/ may")
kdx_expect_crossing(bridge_cli tools/bridge/bad.cpp "#include \"cli/console.h\""
  "tools/bridge/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(bridge_app tools/bridge/bad.cpp "#include \"app/globals.h\""
  "tools/bridge/bad.cpp: includes \"app/globals.h\" of app/")
kdx_expect_crossing(bridge_ctl tools/bridge/bad.cpp "#include \"tools/ctl/arguments.h\""
  "tools/bridge/bad.cpp: includes \"tools/ctl/arguments.h\" of tools/")
kdx_expect_crossing(fleet_ipc tools/fleet/bad.cpp "#include \"ipc/ipc_client.h\""
  "tools/fleet/bad.cpp: includes \"ipc/ipc_client.h\" of ipc/")
kdx_expect_crossing(fleet_cli tools/fleet/bad.cpp "#include \"cli/console.h\""
  "tools/fleet/bad.cpp: includes \"cli/console.h\" of cli/")
kdx_expect_crossing(fleet_bridge tools/fleet/bad.h "#include \"tools/bridge/bridge.h\""
  "tools/fleet/bad.h: includes \"tools/bridge/bridge.h\" of tools/bridge/")
kdx_expect_crossing(fleet_mosquitto tools/fleet/bad.cpp "#include <mosquitto.h>"
  "tools/fleet/bad.cpp: includes libmosquitto's \"mosquitto.h\"; only tools/mqtt/ may")
kdx_expect_crossing(bridge_fleet tools/bridge/bad.cpp "#include \"tools/fleet/run.h\""
  "tools/bridge/bad.cpp: includes \"tools/fleet/run.h\" of tools/fleet/")
kdx_expect_crossing(app_core app/bad.cpp "#include \"tools/service_client/runner.h\""
  "app/bad.cpp: includes \"tools/service_client/runner.h\" of tools/service_client/")
kdx_expect_crossing(app_tests app/bad.cpp "#include \"tests/support/helper.h\""
  "app/bad.cpp: includes \"tests/support/helper.h\" of tests/")

if(kdxFailures GREATER 0)
  message(FATAL_ERROR "${kdxFailures} case(s) of the layering check failed")
endif()
message(STATUS "the layering check passes a clean tree and refuses each crossing")
