# shellcheck shell=bash
# Starting and stopping the device-service simulator for a script: run.sh,
# footprint.sh and CI use it. Sourced by the scripts, not run; one simulator
# at a time, whose process id is in sim_pid while it runs.

# shellcheck source=scripts/lib/wait.sh
source "$(dirname "${BASH_SOURCE[0]}")/wait.sh"

sim_pid=""

# The simulator's socket exists, or the simulator has ended (and will not
# make it).
sim_socket_or_end() { [ -S "$1" ] || ! kill -0 "$sim_pid" 2>/dev/null; }

# start_sim <simulator> <socket path> [simulator options...]: starts the
# simulator in the background serving <socket path> and returns once its
# socket exists (it binds at once; clients need the socket to exist). Status
# 1 with a message when the simulator ends first or no socket appears within
# 10 seconds.
start_sim() {
  local sim=$1 socket=$2
  shift 2
  "$sim" "$@" "$socket" &
  sim_pid=$!
  wait_until 10 sim_socket_or_end "$socket" || true
  [ -S "$socket" ] && return 0
  if kill -0 "$sim_pid" 2>/dev/null; then
    echo "the simulator's socket $socket did not appear" >&2
  else
    echo "the simulator did not start" >&2
  fi
  stop_sim || true
  return 1
}

# stop_sim: ends the simulator started by start_sim (SIGTERM, on which it
# removes its socket) and returns its exit status; 0 when none runs.
stop_sim() {
  [ -n "$sim_pid" ] || return 0
  local status=0
  kill -TERM "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" || status=$?
  sim_pid=""
  return "$status"
}
