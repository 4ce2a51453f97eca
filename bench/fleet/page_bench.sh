#!/usr/bin/env bash
# Measures the fleet page in headless Chromium over a large fleet on this
# machine, and prints the figures as Markdown. A measurement, not a test:
# nothing is compared with a limit (the goals are printed beside the
# figures).
#
# A Mosquitto broker on a free loopback port, kendrivex-fleet web, and N
# simulated boxes with their bridges, each box sending one event a second;
# once every box is online, bench/fleet/page_bench.js opens the page and
# measures:
# - load: from the start of the page's navigation to the first frame whose
#   table holds every box (goal: under 1 s);
# - latency: from an event's own time stamp (the bridge's clock, which is
#   this machine's) to its line in the page's event log, median and 99th
#   percentile over the run (goals: 200 ms and 1 s);
# - the browser's CPU (all its processes, from /proc) over the run (goal:
#   under half a core), and the resident memory of the browser and of
#   kendrivex-fleet, sampled through the run (goal: flat).
#
# Usage: bench/fleet/page_bench.sh [N] [SECONDS] (defaults 1000 and 600).
# With N = 1000 this runs 2000 processes beside the browser: on a 2-core
# machine run it alone. The load average is printed at the start and the
# end: the machine may be shared.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)

count="${1:-1000}"
seconds="${2:-600}"
scripts/deps.sh release >&2
cmake --preset release >/dev/null
cmake --build --preset release --target kendrivex-sim kendrivex-bridge kendrivex-fleet kdx_node_modules >&2
bin="$root/build/release/bin"

# shellcheck source=bench/support/fleet.sh
source bench/support/fleet.sh
fleet_init "$bin/kendrivex-bridge" "$bin/kendrivex-sim"
fleet_sim_options_of() {
  fleet_box_sim_options=(--event-interval 1000 --event-id $(($1 % 100 + 1)) --event-text "event of box$1")
}

echo "load average at the start: $(cut -d ' ' -f 1-3 /proc/loadavg)" >&2
start_broker "$fleet_dir" "allow_anonymous true" "set_tcp_nodelay true" "max_connections -1"
fleet_web_start "$bin/kendrivex-fleet"
start=$(date +%s)
fleet_start "$count" kendrivex
wait_until 300 fleet_web_online "$count"
echo "$count boxes online after $(($(date +%s) - start)) s" >&2

NODE_PATH="$root/build/release/node/node_modules" node bench/fleet/page_bench.js "$fleet_page_url" "$count" \
  "$seconds" "$fleet_web_pid"
echo "load average at the end: $(cut -d ' ' -f 1-3 /proc/loadavg)" >&2
