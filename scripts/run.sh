#!/usr/bin/env bash
# Builds the client and the device-service simulator, starts the simulator on
# a socket in a fresh temporary directory and runs the client against it in
# the foreground. When the client ends, however it ends, the simulator is
# stopped and the directory removed. Arguments are passed to the simulator,
# e.g. `scripts/run.sh --delay 2000 --no-stations` (see kendrivex-sim --help).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh release
cmake --preset release >/dev/null
cmake --build --preset release --target kendrivex-cli kendrivex-sim

source scripts/lib/sim.sh

dir=$(mktemp -d "${TMPDIR:-/tmp}/kdx.XXXXXX")
service="$dir/service"
log="$dir/sim.log"

cleanup() {
  stop_sim 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
# A signal that ends the script still ends it through the EXIT trap.
trap 'exit 129' HUP
trap 'exit 143' TERM

# The simulator's per-request lines go to the log file, so that they never
# garble the client's terminal; a --log among the arguments overrides it.
start_sim build/release/tools/sim/kendrivex-sim "$service" --log "$log" "$@"

echo "simulator on $service, its log in $log"
status=0
build/release/app/kendrivex-cli "$service" "$dir" || status=$?
exit "$status"
