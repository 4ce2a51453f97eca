#!/usr/bin/env bash
# Measures kendrivex-fleet on fleets of simulated boxes (bench/support/fleet.sh):
# for each size N, N simulators and N bridges on one local Mosquitto broker,
# all online with their services up, then
# - the memory that takes per box: the resident and the proportional set
#   (PSS, which shares the libraries out) of a simulator and its bridge;
# - `kendrivex-fleet ls` and `kendrivex-fleet run all ping`, each KDX_RUNS
#   times (default 20), start to exit, every run checked: ls lists every box,
#   run ends with status 0, so every box answered with success;
# - at the smallest size, `kendrivex-fleet run box1 ping` against
#   `mosquitto_rr` asking box1 the same, alternately in one hyperfine run.
# Then, for the largest size, the same fleet split into two sites of N/2 boxes
# whose brokers Mosquitto's bridge links to a central broker (the README's
# configuration, "More boxes than one broker"): ls and run all ping at the
# central broker, and what that adds to the single broker's times.
#
# Printed as Markdown tables (median and 90th percentile in milliseconds).
# Usage: bench/fleet/fleet_bench.sh [SIZE...] (default 10 100 1000). KDX_FLEET,
# KDX_BRIDGE and KDX_SIM name the programs (default: the release build's,
# built when missing; KDX_BUILD_ROOT, default build, holds it). A
# measurement, not a test: nothing is compared with a goal. With 1000 boxes
# it runs 2000 processes: run it alone.
set -euo pipefail
cd "$(dirname "$0")/../.."
# shellcheck source=bench/support/fleet.sh
source bench/support/fleet.sh

sizes=("$@")
if [ ${#sizes[@]} -eq 0 ]; then sizes=(10 100 1000); fi
runs="${KDX_RUNS:-20}"
build="${KDX_BUILD_ROOT:-build}/release"
fleet="${KDX_FLEET:-$build/bin/kendrivex-fleet}"
bridge="${KDX_BRIDGE:-$build/bin/kendrivex-bridge}"
sim="${KDX_SIM:-$build/bin/kendrivex-sim}"
scripts/deps.sh mosquitto mosquitto-clients hyperfine jq >&2
if [ ! -x "$fleet" ] || [ ! -x "$bridge" ] || [ ! -x "$sim" ]; then
  scripts/deps.sh release >&2
  cmake --preset release -B "$build" >/dev/null
  cmake --build "$build" --target kendrivex-fleet kendrivex-bridge kendrivex-sim >&2
fi

log() { echo "fleet_bench: $*" >&2; }
load() { cut -d' ' -f1-3 /proc/loadavg; }

fleet_init "$bridge" "$sim"
largest=0
for size in "${sizes[@]}"; do
  if [ "$size" -gt "$largest" ]; then largest=$size; fi
done
# Each box's bridge holds a connection; the sites' links and the tools a few.
broker_descriptors=$((largest + 64))
# No broker limit on the messages queued for one client: an ls of N boxes
# reads 2N retained messages (see the README on max_queued_messages).
broker_lines=("allow_anonymous true" "set_tcp_nodelay true" "max_queued_messages 0")
tmp="$fleet_dir/measure"
mkdir -p "$tmp"

# The programs' options towards the broker the operator uses.
operator_port=""
fleet_cmd() { "$fleet" -b "mqtt://127.0.0.1:$operator_port" -t 20000 "$@"; }

# all_online <count>: whether ls lists <count> boxes online with their
# services up.
all_online() {
  local lines
  lines=$(fleet_cmd ls 2>/dev/null) || return 1
  [ "$(grep -c -P '\tonline\tup$' <<<"$lines")" -eq "$1" ]
}

# wait_online <count>: waits for the fleet to come up (a thousand bridges
# connect and register within seconds, spread by their back-off's jitter).
wait_online() {
  if ! wait_until 300 all_online "$1"; then
    log "not every box came online; the first bridges' errors:"
    head -n 5 "$fleet_dir"/box*/bridge.err >&2 || true
    exit 1
  fi
}

# ls_ok <count>: one ls that lists exactly <count> boxes, online and up.
ls_ok() { [ "$(fleet_cmd ls | grep -c -P '\tonline\tup$')" -eq "$1" ]; }

# run_ok <count>: one run all ping, every box answering PONG.
run_ok() { [ "$(fleet_cmd run all ping 2>/dev/null | grep -c -P '\tPONG$')" -eq "$1" ]; }

# timed <file> <command...>: runs the command <runs> times, appends each
# run's milliseconds to <file>; fails when a run fails its check.
timed() {
  local file=$1 i start end
  shift
  : >"$file"
  for ((i = 0; i < runs; i++)); do
    start=$(date +%s%N)
    if ! "$@"; then
      log "a run of '$*' failed its check"
      exit 1
    fi
    end=$(date +%s%N)
    echo $(((end - start) / 1000)) >>"$file"
  done
}

# percentile <file> <p>: the p-th percentile (nearest rank) of the
# microseconds in <file>, in milliseconds with one decimal.
percentile() {
  sort -n "$1" | awk -v p="$2" '{ v[NR] = $1 } END {
    rank = int((p * NR + 99) / 100); if (rank < 1) rank = 1
    printf "%.1f", v[rank] / 1000 }'
}

# memory_per_box: the mean kilobytes of resident and proportional set of a
# simulator plus its bridge, "RSS PSS".
memory_per_box() {
  local pid rss=0 pss=0 kb
  for pid in "${fleet_sim_pids[@]}" "${fleet_bridge_pids[@]}"; do
    kb=$(awk '$1 == "VmRSS:" { print $2 }' "/proc/$pid/status")
    rss=$((rss + kb))
    kb=$(awk '$1 == "Pss:" { print $2 }' "/proc/$pid/smaps_rollup")
    pss=$((pss + kb))
  done
  echo $((rss / fleet_count)) $((pss / fleet_count))
}

# measure <label> <count>: ls and run all ping, one table row each.
measure() {
  local label=$1 count=$2
  timed "$tmp/ls" ls_ok "$count"
  timed "$tmp/run" run_ok "$count"
  printf '| %s | %d | ls | %s | %s |\n' "$label" "$count" "$(percentile "$tmp/ls" 50)" "$(percentile "$tmp/ls" 90)"
  printf '| %s | %d | run all ping | %s | %s |\n' "$label" "$count" "$(percentile "$tmp/run" 50)" \
    "$(percentile "$tmp/run" 90)"
}

# compare_rr: kendrivex-fleet run box1 ping against mosquitto_rr asking the
# same of box1 (its reply topic inside box1's own, as the bridge requires),
# alternately in one hyperfine run; prints the two medians in ms and the
# ratio.
compare_rr() {
  hyperfine -N --warmup 5 --runs 200 --export-json "$tmp/rr.json" \
    "$fleet -b mqtt://127.0.0.1:$operator_port run box1 ping" \
    "mosquitto_rr -h 127.0.0.1 -p $operator_port -V 5 -t kendrivex/box1/cmd -e kendrivex/box1/reply/rr -m ping" \
    >&2
  jq -r '[.results[].median * 1000] | "\(.[0]) \(.[1]) \(.[0] / .[1])"' "$tmp/rr.json" |
    awk '{ printf "| `kendrivex-fleet run box1 ping` | %.2f ms |\n| `mosquitto_rr` | %.2f ms |\n| ratio | %.2fx |\n", $1, $2, $3 }'
}

: >"$tmp/rows"
memory_rows=()
rr_table=""
single_largest_run=""
for size in "${sizes[@]}"; do
  log "$size boxes on one broker (load $(load))"
  start_broker "$fleet_dir" "${broker_lines[@]}"
  operator_port=$broker_port
  fleet_start "$size" kendrivex --health 0
  wait_online "$size"
  read -r rss pss < <(memory_per_box)
  memory_rows+=("| $size | $rss KB | $pss KB |")
  measure "one broker" "$size" >>"$tmp/rows"
  if [ "$size" -eq "$largest" ]; then single_largest_run=$(percentile "$tmp/run" 50); fi
  if [ -z "$rr_table" ]; then rr_table=$(compare_rr); fi
  fleet_stop
done

# start_site <name> <central port>: a site broker linked to the central one
# as the README configures it; its port in site_port, stopped with the fleet.
site_port=""
start_site() {
  local name=$1 central=$2 port dir="$fleet_dir/$1"
  mkdir -p "$dir"
  port=$(free_port)
  cat >"$dir/mosquitto.conf" <<EOF
listener $port 127.0.0.1
persistence false
log_dest stderr
log_type all
allow_anonymous true
set_tcp_nodelay true
max_queued_messages 0
$(if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi)
connection central
address 127.0.0.1:$central
bridge_protocol_version mqttv50
remote_clientid $name
local_clientid $name.local
cleansession true
local_cleansession false
topic kendrivex/+/status out 1
topic kendrivex/+/service out 1
topic kendrivex/+/event/# out 1
topic kendrivex/+/reply/# out 1
topic kendrivex/+/cmd in 1
EOF
  (
    ulimit -n "$broker_descriptors"
    exec mosquitto -c "$dir/mosquitto.conf"
  ) >/dev/null 2>"$dir/broker.log" &
  fleet_track "$!"
  if ! wait_until 10 grep -q ' running$' "$dir/broker.log"; then
    log "the broker of $name did not start"
    cat "$dir/broker.log" >&2
    exit 1
  fi
  site_port=$port
}

half=$((largest / 2))
log "$largest boxes on two sites of $half, asked at the central broker (load $(load))"
start_broker "$fleet_dir" "${broker_lines[@]}"
operator_port=$broker_port
start_site site-a "$broker_port"
fleet_box_broker_port=$site_port
fleet_start "$half" kendrivex --health 0
start_site site-b "$broker_port"
fleet_box_broker_port=$site_port
fleet_start "$((largest - half))" kendrivex --health 0
fleet_box_broker_port=""
wait_online "$largest"
measure "two sites, central broker" "$largest" >>"$tmp/rows"
federated_run=$(percentile "$tmp/run" 50)
fleet_stop

echo "## kendrivex-fleet, $(date -u +%Y-%m-%d), load before each part on standard error"
echo
echo "| broker | boxes | command | median | 90th percentile |"
echo "|---|---:|---|---:|---:|"
sed -E 's/\| ([0-9.]+) \| ([0-9.]+) \|$/| \1 ms | \2 ms |/' "$tmp/rows"
echo
echo "The federation adds $(awk -v a="$federated_run" -v b="$single_largest_run" 'BEGIN { printf "%.1f", a - b }') ms" \
  "to the median run all ping of $largest boxes."
echo
echo "| boxes | resident a box (simulator and bridge) | proportional set a box |"
echo "|---:|---:|---:|"
printf '%s\n' "${memory_rows[@]}"
echo
echo "| one box, start to exit (median of 200, alternately) | |"
echo "|---|---:|"
echo "$rr_table"
