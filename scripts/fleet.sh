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

source scripts/lib/fleet.sh

dir=$(mktemp -d "${TMPDIR:-/tmp}/kdx-fleet.XXXXXX")
flapper=""
cleanup() {
  if [ -n "$flapper" ]; then
    kill -TERM "$flapper" 2>/dev/null || true
    wait "$flapper" 2>/dev/null || true
  fi
  fleet_stop
  rm -rf "$dir"
}
trap cleanup EXIT
# A signal that ends the script still ends it through the EXIT trap.
trap 'exit 130' INT
trap 'exit 129' HUP
trap 'exit 143' TERM

# What the boxes report: an event number and its text, one kind per box.
kinds=("7|link up" "12|station joined 02:5e:33:10:aa:01" "31|temperature 48 C" "44|dhcp lease renewed"
  "100|heartbeat" "52|channel changed to 11")
# Milliseconds between two events of a box, from busy to quiet.
intervals=(500 1000 2000 3000 5000 10000)

# The box whose service comes and goes: its simulator is stopped for six
# seconds every thirty, and started again on the same socket. Its bridge
# pings the service every second, so that the page shows it soon.
flapping=box3
flapping_sim=""
fifth_bridge=""
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
    "$bin/kendrivex-sim" --log "$box_dir/sim.log" "$@" "$box_dir/svc" &
    pid=$!
  done
}

fleet_start_broker "$dir"
fleet_start_web "$dir" "$bin"
for ((i = 1; i <= count; i++)); do
  kind=${kinds[$((i % ${#kinds[@]}))]}
  sim_options=(--event-interval "${intervals[$((i * 7 % ${#intervals[@]}))]}" --event-id "${kind%%|*}"
    --event-text "${kind#*|}" --mac "$(printf '02:00:00:00:%02x:%02x' $((i / 256)) $((i % 256)))")
  health=(--health 5)
  if [ "box$i" = "$flapping" ]; then health=(--health 1); fi
  fleet_start_box "$dir" "$bin" "box$i" "${sim_options[@]}" -- "${health[@]}"
  if [ "box$i" = "$flapping" ]; then flapping_sim=$fleet_last_sim_pid; fi
  if [ "$i" -eq 5 ]; then fifth_bridge=$fleet_last_bridge_pid; fi
  if [ "box$i" = "$flapping" ] && [ -z "$screenshot" ]; then
    flap_service "$dir/box$i" "$fleet_last_sim_pid" "${sim_options[@]}" &
    flapper=$!
  fi
done

if [ -n "$screenshot" ]; then
  # Every box online first; then one service down and one box gone, so that
  # the picture shows how they stand out.
  wait_until 60 fleet_online "$count"
  if [ "$count" -ge 5 ]; then
    kill -TERM "$flapping_sim" "$fifth_bridge"
  fi
  NODE_PATH="$root/build/release/node/node_modules" node scripts/lib/page_screenshot.js "$fleet_page_url" \
    "$screenshot" "$count"
  echo "the page of $count boxes: $screenshot"
  exit 0
fi

echo "$count boxes on $fleet_broker_url; their page: $fleet_page_url"
echo "logs in $dir; Ctrl-C stops the fleet"
wait "${fleet_pids[0]}"
