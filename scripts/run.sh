#!/usr/bin/env bash
# Builds the client and the device-service simulator, starts the simulator on
# a socket in a fresh temporary directory and runs the client against it in
# the foreground. When the client ends, however it ends, the simulator is
# stopped and the directory removed. Arguments are passed to the simulator,
# e.g. `scripts/run.sh --delay 2000 --no-stations` (see kendrivex-sim --help);
# -h or --help prints the script's own usage.
set -euo pipefail

usage() {
  cat <<'TEXT'
usage: scripts/run.sh [simulator options]

Builds kendrivex-cli and the device-service simulator kendrivex-sim (the
release build), starts the simulator on a socket in a fresh temporary
directory and runs the client against it in the foreground. When the client
ends, the simulator is stopped and the directory removed.

The options are passed on to the simulator (kendrivex-sim --help and
man/kendrivex-sim.1 describe them):
  --station TEXT          one connected station; repeat for several
  --no-stations           no station is connected
  --mac TEXT              the access point's MAC address
  --event-interval MS     push an event every MS milliseconds (0: never)
  --event-id N            the event's number
  --event-text TEXT       the event's text after the number
  --delay MS              send each reply MS milliseconds late
  --drop                  send no reply at all
  --garbage               reply with a line that is not a reply
  --oversize              reply with 8192 bytes, more than a client reads
  --faults-on LIST        the commands the four options above affect
  --refuse-register N     refuse the first N registrations
  --log FILE              the per-request lines (default: sim.log in the
                          directory, whose path is printed at start)
  -h, --help              show this text
TEXT
}

for arg in "$@"; do
  case "$arg" in
    -h|--help) usage; exit 0 ;;
  esac
done

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
start_sim build/release/bin/kendrivex-sim "$service" --log "$log" "$@"

echo "simulator on $service, its log in $log"
status=0
build/release/bin/kendrivex-cli "$service" "$dir" || status=$?
exit "$status"
