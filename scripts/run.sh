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

dir=$(mktemp -d "${TMPDIR:-/tmp}/kdx.XXXXXX")
service="$dir/service"
log="$dir/sim.log"
sim_pid=""

cleanup() {
  if [ -n "$sim_pid" ]; then
    kill -TERM "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$dir"
}
trap cleanup EXIT
# A signal that ends the script still ends it through the EXIT trap.
trap 'exit 129' HUP
trap 'exit 143' TERM

# The simulator's per-request lines go to the log file, so that they never
# garble the client's terminal; a --log among the arguments overrides it.
build/release/tools/sim/kendrivex-sim --log "$log" "$@" "$service" &
sim_pid=$!

# The simulator binds its socket at once; the client needs it to exist.
for _ in $(seq 1 200); do
  [ -S "$service" ] && break
  if ! kill -0 "$sim_pid" 2>/dev/null; then
    wait "$sim_pid" || true
    sim_pid=""
    echo "the simulator did not start" >&2
    exit 1
  fi
  sleep 0.05
done
if [ ! -S "$service" ]; then
  echo "the simulator's socket $service did not appear" >&2
  exit 1
fi

echo "simulator on $service, its log in $log"
status=0
build/release/app/kendrivex-cli "$service" "$dir" || status=$?
exit "$status"
