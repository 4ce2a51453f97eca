# shellcheck shell=bash
# A fleet of simulated boxes on one broker for the bridge's measurements: N
# simulators and N bridges, box i in a directory of its own (its service's
# socket and its bridge's sockets, so that no process looks through the
# sockets of a thousand others), and all of it stopped and removed when the
# script ends, by error or Ctrl-C included. Sourced by the scripts, not run.
#
# fleet_init <bridge> <simulator> [dir] installs the clean-up; start_broker
# (bench/support/broker.sh) starts the broker; fleet_start <count> <prefix>
# [bridge options...] starts the boxes; fleet_web_start starts
# kendrivex-fleet web on them. A script that starts processes of its own
# hands their ids to fleet_track so that they are stopped too.

# shellcheck source=bench/support/broker.sh
source "$(dirname "${BASH_SOURCE[0]}")/broker.sh"

fleet_bridge=""
fleet_sim=""
fleet_dir=""
fleet_own_dir=false
fleet_sim_pids=()
fleet_bridge_pids=()
fleet_tracked_pids=()
# What a script's fleet_sim_options_of <i> (when it defines one) sets: more
# options for box<i>'s simulator, such as its events.
fleet_box_sim_options=()
fleet_page_url=""
fleet_web_pid=""
# How many boxes fleet_start has started: a second call numbers its boxes on
# from there, so that two sites of a federation hold box1..boxN between them.
fleet_count=0
# The port of the broker the next fleet_start connects its bridges to, when
# it is not the broker of start_broker (a site broker of a federation).
fleet_box_broker_port=""

# fleet_init <bridge> <simulator> [dir]: the programs to run and where the
# boxes go (a new temporary directory, removed at the end, unless given).
fleet_init() {
  fleet_bridge=$1
  fleet_sim=$2
  if [ $# -ge 3 ]; then
    fleet_dir=$3
    mkdir -p "$fleet_dir"
  else
    fleet_dir=$(mktemp -d "${TMPDIR:-/tmp}/kdx-fleet.XXXXXX")
    fleet_own_dir=true
  fi
  trap fleet_cleanup EXIT
  # The exit runs the clean-up; the status says which signal ended it.
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

# A box's simulator has made its socket, or has ended (and will not).
fleet_socket_or_end() { [ -S "$1" ] || ! kill -0 "$2" 2>/dev/null; }

# fleet_start <count> <prefix> [bridge options...]: starts <count>
# simulators (no log; no events, unless the script's fleet_sim_options_of
# says otherwise for the box) and then their bridges, box<i> below
# <prefix> on the broker of start_broker (or of fleet_box_broker_port), each
# bridge's standard error in its box's bridge.err. All simulators start
# before the first socket is waited for: start_sim (scripts/lib/sim.sh) waits
# for each in turn, 50 ms a box. Returns once every simulator serves; the
# bridges connect on their own.
fleet_start() {
  local first=$((fleet_count + 1)) last=$((fleet_count + $1)) prefix=$2 i box
  local port=${fleet_box_broker_port:-$broker_port}
  shift 2
  fleet_count=$last
  for ((i = first; i <= last; i++)); do
    box="$fleet_dir/box$i"
    mkdir -p "$box"
    fleet_box_sim_options=()
    if declare -F fleet_sim_options_of >/dev/null; then fleet_sim_options_of "$i"; fi
    "$fleet_sim" --log /dev/null --event-interval 0 "${fleet_box_sim_options[@]}" "$box/svc" &
    fleet_sim_pids+=("$!")
  done
  for ((i = first; i <= last; i++)); do
    if ! wait_until 20 fleet_socket_or_end "$fleet_dir/box$i/svc" "${fleet_sim_pids[i - 1]}" ||
      [ ! -S "$fleet_dir/box$i/svc" ]; then
      echo "the simulator of box$i did not start" >&2
      return 1
    fi
  done
  for ((i = first; i <= last; i++)); do
    box="$fleet_dir/box$i"
    "$fleet_bridge" -b "mqtt://127.0.0.1:$port" -s "$box/svc" -d "$box" -p "$prefix" -i "box$i" "$@" \
      2>>"$box/bridge.err" &
    fleet_bridge_pids+=("$!")
  done
}

# fleet_web_start <kendrivex-fleet> [options...]: starts kendrivex-fleet web
# on a free loopback port against the broker of start_broker, its output in
# the fleet's directory (fleet.out, fleet.err), and returns once it listens;
# the page's address is then in fleet_page_url, its process id in
# fleet_web_pid (stopped with the fleet).
fleet_web_start() {
  local program=$1
  shift
  "$program" -b "mqtt://127.0.0.1:$broker_port" "$@" web --listen 127.0.0.1:0 >"$fleet_dir/fleet.out" \
    2>"$fleet_dir/fleet.err" &
  fleet_web_pid=$!
  fleet_track "$fleet_web_pid"
  if ! wait_until 10 fleet_web_listening || ! grep -qs '^http://' "$fleet_dir/fleet.out"; then
    echo "kendrivex-fleet web did not start:" >&2
    cat "$fleet_dir/fleet.err" >&2
    return 1
  fi
  fleet_page_url=$(head -n 1 "$fleet_dir/fleet.out")
}

# kendrivex-fleet web has printed its address, or has ended (and will not).
fleet_web_listening() { grep -qs '^http://' "$fleet_dir/fleet.out" || ! kill -0 "$fleet_web_pid" 2>/dev/null; }

# fleet_web_online <count>: whether kendrivex-fleet web lists <count> boxes
# online with their services up (its GET /api/boxes, read with node).
fleet_web_online() {
  node -e '
    fetch(process.argv[1] + "api/boxes")
      .then((response) => response.json())
      .then((boxes) => boxes.filter((box) => box.status === "online" && box.service === "up").length)
      .then((online) => process.exit(online >= Number(process.argv[2]) ? 0 : 1), () => process.exit(1));
  ' "$fleet_page_url" "$1"
}

# fleet_track <pid...>: processes of the script's own to stop at the end.
fleet_track() { fleet_tracked_pids+=("$@"); }

# stop_pids <pid...>: SIGTERM to each, then waits for each.
stop_pids() {
  local pid
  for pid in "$@"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "$@"; do wait "$pid" 2>/dev/null || true; done
}

# fleet_stop: the bridges first, which unregister from their simulators as
# they stop, then the simulators, the script's own processes and the broker.
fleet_stop() {
  stop_pids "${fleet_bridge_pids[@]}"
  fleet_bridge_pids=()
  stop_pids "${fleet_sim_pids[@]}"
  fleet_sim_pids=()
  fleet_count=0
  stop_pids "${fleet_tracked_pids[@]}"
  fleet_tracked_pids=()
  stop_broker
}

fleet_cleanup() {
  # A second Ctrl-C during the clean-up must not leave half of it undone.
  trap '' INT TERM
  fleet_stop
  if [ "$fleet_own_dir" = true ]; then rm -rf "$fleet_dir"; fi
}
