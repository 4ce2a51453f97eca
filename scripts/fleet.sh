#!/usr/bin/env bash
# Starts a demo fleet on this machine and prints the address of its page: a
# Mosquitto broker on a free loopback port, N simulated boxes (default 20)
# with their bridges, events at varied rates, one box whose service stops now
# and then, and kendrivex-fleet web. Ctrl-C stops all of it and removes what
# it made. With --screenshot FILE it saves a picture of the page instead
# (the README's) and ends. -h or --help prints the usage.
set -euo pipefail

usage() {
  cat <<'TEXT'
usage: scripts/fleet.sh [--screenshot FILE] [N]

Builds the simulator, the bridge and kendrivex-fleet (the release build),
starts a Mosquitto broker on a free loopback port, kendrivex-fleet web and N
simulated boxes (box1 to boxN, default 20) with their bridges, and prints
the page's address. The boxes send events at rates from two a second to one
in ten seconds; box3's service stops for a few seconds every half minute.
Ctrl-C stops everything and removes the temporary directory.

  --screenshot FILE  once every box is online, open the page in headless
                     Chromium, stop one box's service and one box's bridge,
                     run ping on all boxes, save the page as FILE (PNG) and
                     stop
  -h, --help         show this text
TEXT
}

count=20
screenshot=""
while [ $# -gt 0 ]; do
  case "$1" in
    -h|--help) usage; exit 0 ;;
    --screenshot)
      [ $# -ge 2 ] || { usage >&2; exit 2; }
      screenshot=$(realpath -m "$2")
      shift 2
      ;;
    *)
      if ! [[ "$1" =~ ^[1-9][0-9]*$ ]]; then usage >&2; exit 2; fi
      count=$1
      shift
      ;;
  esac
done

cd "$(dirname "$0")/.."
root=$(pwd)

scripts/deps.sh release
cmake --preset release >/dev/null
targets=(kendrivex-sim kendrivex-bridge kendrivex-fleet)
if [ -n "$screenshot" ]; then targets+=(kdx_node_modules); fi
cmake --build --preset release --target "${targets[@]}"
bin="$root/build/release/bin"

# shellcheck source=bench/support/fleet.sh
source bench/support/fleet.sh
fleet_init "$bin/kendrivex-bridge" "$bin/kendrivex-sim"
trap 'exit 129' HUP

# What the boxes report: an event number and its text, one kind per box,
# every so many milliseconds, from busy to quiet.
kinds=("7|link up" "12|station joined 02:5e:33:10:aa:01" "31|temperature 48 C" "44|dhcp lease renewed"
  "100|heartbeat" "52|channel changed to 11")
intervals=(500 1000 2000 3000 5000 10000)
fleet_sim_options_of() {
  local i=$1 kind=${kinds[$(($1 % ${#kinds[@]}))]}
  fleet_box_sim_options=(--event-interval "${intervals[$((i * 7 % ${#intervals[@]}))]}" --event-id "${kind%%|*}"
    --event-text "${kind#*|}" --mac "$(printf '02:00:00:00:%02x:%02x' $((i / 256)) $((i % 256)))")
}

# box3's service comes and goes: its simulator is stopped for six seconds
# every thirty, and started again on the same socket. The bridges ask their
# services every two seconds, so that the page shows it soon.
flap_service() {
  local box_dir=$1 pid=$2 pause=""
  shift 2
  trap 'kill -TERM $pid $pause 2>/dev/null; exit 0' TERM
  while true; do
    sleep 24 &
    pause=$!
    wait "$pause"
    kill -TERM "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    sleep 6 &
    pause=$!
    wait "$pause"
    "$bin/kendrivex-sim" --log /dev/null "$@" "$box_dir/svc" &
    pid=$!
  done
}

start_broker "$fleet_dir" "allow_anonymous true" "set_tcp_nodelay true"
fleet_web_start "$bin/kendrivex-fleet"
fleet_start "$count" kendrivex --health 2

if [ -n "$screenshot" ]; then
  # Every box online first; then one service down and one box gone, so that
  # the picture shows how they stand out.
  wait_until 60 fleet_web_online "$count"
  if [ "$count" -ge 5 ]; then
    kill -TERM "${fleet_sim_pids[2]}" "${fleet_bridge_pids[4]}"
  fi
  NODE_PATH="$root/build/release/node/node_modules" node scripts/lib/page_screenshot.js "$fleet_page_url" \
    "$screenshot" "$count"
  echo "the page of $count boxes: $screenshot"
  exit 0
fi

if [ "$count" -ge 3 ]; then
  fleet_sim_options_of 3
  flap_service "$fleet_dir/box3" "${fleet_sim_pids[2]}" "${fleet_box_sim_options[@]}" &
  fleet_track $!
fi
echo "$count boxes on mqtt://127.0.0.1:$broker_port; their page: $fleet_page_url"
echo "logs in $fleet_dir; Ctrl-C stops the fleet"
wait "$fleet_web_pid"
