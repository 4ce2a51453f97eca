# shellcheck shell=bash
# A fleet on this machine, for the demo (scripts/fleet.sh) and the page's
# benchmark (bench/fleet/page_bench.sh): a Mosquitto broker of its own on a
# free loopback port, simulated boxes with their bridges, and kendrivex-fleet
# web. Sourced by the scripts, not run. Every process started is added to
# fleet_pids; fleet_stop ends them all, by their ids, last started first.

# shellcheck source=scripts/lib/wait.sh
source "$(dirname "${BASH_SOURCE[0]}")/wait.sh"

fleet_pids=()
fleet_broker_url=""
fleet_page_url=""
fleet_last_sim_pid=""
fleet_last_bridge_pid=""

# fleet_free_port: prints a loopback TCP port that nothing listens on now.
fleet_free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

# fleet_start_broker <dir>: starts Mosquitto on a free loopback port with its
# configuration and log in <dir>, and returns once it listens; its address
# is then in fleet_broker_url.
fleet_start_broker() {
  local dir=$1 port
  port=$(fleet_free_port)
  {
    echo "listener $port 127.0.0.1"
    echo "allow_anonymous true"
    echo "persistence false"
    echo "set_tcp_nodelay true"
    # A thousand boxes hold two thousand connections and their sockets.
    echo "max_connections -1"
    # Started as root, the broker would become the user mosquitto, who
    # cannot read a private directory.
    if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
  } >"$dir/mosquitto.conf"
  mosquitto -c "$dir/mosquitto.conf" -v >"$dir/broker.log" 2>&1 &
  fleet_pids+=($!)
  fleet_broker_url="mqtt://127.0.0.1:$port"
  wait_until 10 grep -qs ' running$' "$dir/broker.log"
}

# fleet_start_box <dir> <bin> <id> [simulator options...] [-- bridge options...]:
# starts the simulator of box <id> (the programs of build folder <bin>) on a
# socket in <dir>/<id>/, once the socket is there its bridge to the broker
# of fleet_start_broker; their process ids are then in fleet_last_sim_pid
# and fleet_last_bridge_pid. Logs go to <dir>/<id>/.
fleet_start_box() {
  local dir=$1 bin=$2 id=$3
  shift 3
  local sim_options=() bridge_options=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do
    sim_options+=("$1")
    shift
  done
  [ $# -gt 0 ] && shift
  bridge_options=("$@")
  local box_dir="$dir/$id"
  mkdir -p "$box_dir"
  "$bin/kendrivex-sim" --log "$box_dir/sim.log" "${sim_options[@]}" "$box_dir/svc" &
  fleet_last_sim_pid=$!
  fleet_pids+=($!)
  wait_until 10 test -S "$box_dir/svc"
  "$bin/kendrivex-bridge" -s "$box_dir/svc" -d "$box_dir" -i "$id" -b "$fleet_broker_url" "${bridge_options[@]}" \
    2>>"$box_dir/bridge.log" &
  fleet_last_bridge_pid=$!
  fleet_pids+=($!)
}

# fleet_start_web <dir> <bin> [kendrivex-fleet options...]: starts
# kendrivex-fleet web on a free loopback port against the broker and returns
# once it listens; the page's address is then in fleet_page_url.
fleet_start_web() {
  local dir=$1 bin=$2
  shift 2
  "$bin/kendrivex-fleet" -b "$fleet_broker_url" "$@" web --listen 127.0.0.1:0 >"$dir/fleet.out" 2>"$dir/fleet.log" &
  fleet_pids+=($!)
  wait_until 10 grep -qs '^http://' "$dir/fleet.out"
  fleet_page_url=$(head -n 1 "$dir/fleet.out")
}

# fleet_online <count>: whether kendrivex-fleet web (fleet_page_url) lists
# <count> boxes online with their services up.
fleet_online() {
  node -e '
    fetch(process.argv[1] + "api/boxes")
      .then((response) => response.json())
      .then((boxes) => boxes.filter((box) => box.status === "online" && box.service === "up").length)
      .then((online) => process.exit(online >= Number(process.argv[2]) ? 0 : 1), () => process.exit(1));
  ' "$fleet_page_url" "$1"
}

# fleet_stop: ends every process started here (SIGTERM, last started first)
# and waits for each.
fleet_stop() {
  local i pid
  for ((i = ${#fleet_pids[@]} - 1; i >= 0; i--)); do
    kill -TERM "${fleet_pids[i]}" 2>/dev/null || true
  done
  for pid in "${fleet_pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  fleet_pids=()
}
