#!/usr/bin/env bash
# Runs the end-to-end session tests of the release build (tests/app: the real
# client on a pseudo-terminal; all of app_test, but not the event flood, whose
# speed goals valgrind's slowdown would fail) with the client under valgrind
# memcheck, the end-to-end tests of kendrivex-bridge (tests/tools/bridge,
# against a broker of each test's own) with the bridge under it, and those of
# kendrivex-fleet (tests/tools/fleet, against brokers, bridges and
# simulators of each test's own) with the fleet's client and the bridges
# under it, and fails unless the tests pass and every run of these programs
# reports no error and no byte definitely or indirectly lost. Uses the build
# that scripts/test.sh made; builds nothing. Usage: scripts/memcheck.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/release
if [ ! -x "$build/tests/app/app_test" ] || [ ! -x "$build/tests/tools/bridge/bridge_test" ] ||
  [ ! -x "$build/tests/tools/fleet/fleet_test" ]; then
  echo "memcheck: no release build with its tests; run scripts/test.sh first" >&2
  exit 1
fi
scripts/deps.sh valgrind
client_tests='ClientSocketTest|DeviceCommandTest|DeviceCommandTimeoutTest|EndOfInputTest|HangUpTest|InterfaceTest'
client_tests+='|LongLineTest|PidFilesTest|PipedOutputTest|ServiceFaultTest|ServiceFaultTimeoutTest|SignalDuringRequestTest'
client_tests+='|SignalTest|StartupTest'
bridge_tests='BridgeOptionTest|BridgeCommandTest|BridgeEventTest|BridgeFaultTest|BridgeSecurityTest|BridgeRandomTest'
bridge_tests+='|BridgeUnitFileTest'
fleet_tests='FleetOptionTest|FleetLsTest|FleetRunTest|FleetWatchTest|FleetWatchHostileTest|Signals/FleetWatchStopTest'
fleet_tests+='|FleetForgetTest|FleetSecurityTest|FleetTlsTest|FleetFederationTest'

logs="$PWD/$build/memcheck"
rm -rf "$logs"
mkdir -p "$logs"
export KDX_MEMCHECK_LOGS="$logs"
export KDX_TEST_LAUNCHER="$PWD/scripts/memcheck-launcher.sh"
ulimit -c 0

start=$(date +%s)
ctest --test-dir "$build" -R "^(Inputs/)?($client_tests|$bridge_tests|$fleet_tests)\." -j 4 --output-on-failure
echo "memcheck tests took $(( $(date +%s) - start )) s"

# Every run leaves one report. A run that ended (exit, quit, a usage error,
# a stop signal, SIGSEGV) ends its report with the error summary and the leak
# check: it must show no error and nothing definitely or indirectly lost
# (blocks still reachable at exit are allowed). A run that the test ended by
# killing the program (a test that needs nothing after its last check lets
# its runner kill it; the bridge's will is tested with SIGKILL) has no
# summary: its report must hold nothing but valgrind's opening lines, i.e. no
# error up to the kill.
opening='^==[0-9]+== ( *|Memcheck, a memory error detector|Copyright \(C\).*|Using Valgrind.*|Command: .*|Parent PID: .*)$'
failed=0
ended=0
killed=0
for report in "$logs"/memcheck.*.log; do
  [ -e "$report" ] || continue
  if grep -q 'ERROR SUMMARY:' "$report"; then
    ended=$((ended + 1))
    if grep -q 'ERROR SUMMARY: 0 errors' "$report" && ! grep -Eq '(definitely|indirectly) lost: [1-9]' "$report"; then
      continue
    fi
  else
    killed=$((killed + 1))
    if ! grep -Evq "$opening" "$report"; then continue; fi
  fi
  echo "memcheck: $report:" >&2
  cat "$report" >&2
  failed=1
done
if [ $((ended + killed)) -eq 0 ]; then
  echo "memcheck: no program ran under valgrind" >&2
  exit 1
fi
if [ "$failed" -ne 0 ]; then
  echo "memcheck: FAILED (reports above)" >&2
  exit 1
fi
echo "memcheck: $((ended + killed)) runs: $ended ended with 0 errors and 0 bytes definitely or" \
  "indirectly lost, $killed killed by their test with no error up to then"
