#!/usr/bin/env bash
# Measures how a fleet's bridges come back after their broker restarts: N
# simulated boxes (bench/support/fleet.sh) on one local Mosquitto broker, all
# online; the broker stopped, and started again on the same port after
# KDX_BROKER_DOWN seconds (default 5). Every bridge publishes its retained
# status "online" once it is connected and subscribed again, so a subscriber
# that stamps each message with its arrival time (mosquitto_sub -F with %U)
# sees when each box came back. Printed as Markdown: the first and the last
# box back (seconds after the broker started), the spread from first to last
# and the largest number that came back within any 100 ms; the same for the
# first start, where the script starts the bridges one after another. Bridges
# that reconnect all at once hit a restarted broker in one burst; the spread
# shows whether their waits are spread out.
#
# The broker's log counts the connections it accepted in each phase (one per
# box when nothing fails). The subscriber connects to the restarted broker
# first, within milliseconds; a box that is back even sooner arrives as a
# retained message, whose time is unknown, and is counted apart.
#
# Usage: bench/bridge/reconnect_spread.sh [N] (default 100). KDX_BRIDGE and
# KDX_SIM name the programs (default: the release build's, built when
# missing; KDX_BUILD_ROOT, default build, holds it). A measurement, not a
# test: nothing is compared with a limit.
set -euo pipefail
cd "$(dirname "$0")/../.."
# shellcheck source=bench/support/fleet.sh
source bench/support/fleet.sh

count="${1:-100}"
down="${KDX_BROKER_DOWN:-5}"
prefix=spread
build="${KDX_BUILD_ROOT:-build}/release"
bridge="${KDX_BRIDGE:-$build/bin/kendrivex-bridge}"
sim="${KDX_SIM:-$build/bin/kendrivex-sim}"
scripts/deps.sh mosquitto mosquitto-clients >&2
if [ ! -x "$bridge" ] || [ ! -x "$sim" ]; then
  scripts/deps.sh release >&2
  cmake --preset release -B "$build" >/dev/null
  cmake --build "$build" --target kendrivex-bridge kendrivex-sim >&2
fi

log() { echo "reconnect_spread: $*" >&2; }
load() { cut -d' ' -f1-3 /proc/loadavg; }

fleet_init "$bridge" "$sim"
# Each box's bridge holds one connection, and the subscribers one each.
broker_descriptors=$((count + 64))
marker="$prefix/measure/status"

# watch_statuses <file>: a subscriber to every box's status in the
# background, lines "time retained topic payload" to <file>; returns once its
# subscription holds (it has received the retained marker published just
# before it).
watch_statuses() {
  mosquitto_pub -h 127.0.0.1 -p "$broker_port" -r -q 1 -t "$marker" -m ready
  : >"$1"
  mosquitto_sub -h 127.0.0.1 -p "$broker_port" -i kdx-measure-statuses -V mqttv5 -q 1 --nodelay \
    -t "$prefix/+/status" -F '%U %r %t %p' >"$1" &
  watcher_pid=$!
  fleet_track "$watcher_pid"
  wait_until 10 grep -q " $marker ready\$" "$1"
}

# The number of boxes whose first "online" since the subscriber started is
# in <file>.
online_count() { awk -v m="$marker" '$3 != m && $4 == "online" && !seen[$3]++' "$1" | wc -l; }
all_online() { [ "$(online_count "$1")" -ge "$count" ]; }

# phase_row <name> <file> <broker start time> <connections>: one table row
# from the first "online" of each box in <file>.
phase_row() {
  awk -v m="$marker" -v start="$3" -v name="$1" -v conns="$4" '
    $3 != m && $4 == "online" && !seen[$3]++ {
      if ($2 == 1) early++; else t[++n] = $1 - start
    }
    END {
      if (n == 0) { printf "| %s | 0 | | | | | %d |\n", name, conns; exit }
      # Arrival order is time order: one subscriber, one connection.
      most = 0; j = 1
      for (i = 1; i <= n; i++) {
        while (t[i] - t[j] >= 0.1) j++
        if (i - j + 1 > most) most = i - j + 1
      }
      printf "| %s | %d | %d | %.3f s | %.3f s | %.1f ms | %d | %d |\n",
        name, n, early, t[1], t[n], (t[n] - t[1]) * 1000, most, conns
    }' "$2"
}

log "starting the broker and $count boxes (load $(load))"
load_before=$(load)
start_broker "$fleet_dir" "allow_anonymous true" "set_tcp_nodelay true"
first_start=$EPOCHREALTIME
watch_statuses "$fleet_dir/first.sub"
fleet_start "$count" "$prefix" --health 0
if ! wait_until 120 all_online "$fleet_dir/first.sub"; then
  log "only $(online_count "$fleet_dir/first.sub") of $count boxes came online"
  exit 1
fi
first_row=$(phase_row "first start (bridges started one after another)" "$fleet_dir/first.sub" "$first_start" \
  "$(broker_connections 0)")

log "all online; stopping the broker for $down s"
stop_pids "$watcher_pid"
stop_broker
# The broker stays away for a set time, as a restart by an operator does;
# the bridges try again meanwhile.
sleep "$down"
log_lines=$(broker_log_lines)
restart_start=$EPOCHREALTIME
restart_broker
watch_statuses "$fleet_dir/restart.sub"
if ! wait_until 300 all_online "$fleet_dir/restart.sub"; then
  log "only $(online_count "$fleet_dir/restart.sub") of $count boxes came back"
  exit 1
fi
restart_row=$(phase_row "after a restart of the broker, away for $down s" "$fleet_dir/restart.sub" \
  "$restart_start" "$(broker_connections "$log_lines")")

printf 'Reconnection of %d bridges (%s) to one local broker; load average %s before, %s after.\n' \
  "$count" "$bridge" "$load_before" "$(load)"
echo "Times are from the broker's start to each box's first \"online\"."
echo
echo "| phase | boxes seen | back before the subscriber | first | last | first to last | most in any 100 ms | connections the broker accepted |"
echo "|---|---:|---:|---:|---:|---:|---:|---:|"
echo "$first_row"
echo "$restart_row"
