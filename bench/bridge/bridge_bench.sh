#!/usr/bin/env bash
# Measures kendrivex-bridge against its baselines, each pair in the same run
# and through the same local Mosquitto broker (started here on a free
# loopback port with a configuration of its own), and prints the figures as
# Markdown. A measurement, not a test: nothing is compared with a limit.
#
# - Command round trip: a libmosquitto requester (MQTT 5, response topic and
#   correlation data) sends N pings one after another to the bridge, against
#   the simulator; the same requester against a responder that answers from
#   memory (the broker's floor); and N pings through one `kendrivex-ctl -`
#   (the direct per-command time). Goal: bridge <= (floor + direct) x 1.2.
# - Nagle's algorithm: one request and its reply with TCP_NODELAY on the
#   clients and `set_tcp_nodelay true` in the broker, and with neither.
# - Events: E events from a stand-in service (bridge_event_service, which
#   pushes them on a signal) through the bridge to a QoS 1 subscriber, against
#   a libmosquitto publisher loop to the same subscriber (goal: at least
#   0.7x the rate): once as fast as the bridge takes them, once paced at 0.7
#   times the publisher loop's rate; with the bridge's resident memory
#   (VmRSS) before and after.
# - Fleet: for each size, that many simulators and bridges on one broker; the
#   time from one `ping` on PREFIX/all/cmd until every reply is in.
#
# Usage: bench/bridge/bridge_bench.sh [N] [E] (defaults 10000 and 100000).
# KDX_BENCH_ROUNDS (default 3) rounds of each comparison, whose medians are
# printed; KDX_FLEET_SIZES (default "10 50 100"); KDX_BUILD_ROOT (default:
# build) names the directory that holds the release build; KDX_BRIDGE, a
# kendrivex-bridge to measure instead of the build's (a variant under
# investigation). The load average is printed with each part: the machine
# may be shared.
set -euo pipefail
cd "$(dirname "$0")/../.."
# shellcheck source=bench/support/broker.sh
source bench/support/broker.sh

commands="${1:-10000}"
events="${2:-100000}"
rounds="${KDX_BENCH_ROUNDS:-3}"
read -r -a fleet_sizes <<<"${KDX_FLEET_SIZES:-10 50 100}"
build="${KDX_BUILD_ROOT:-build}/release"
scripts/deps.sh release >&2
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target kendrivex-bridge kendrivex-sim kendrivex-ctl mqtt_bench bridge_event_service >&2

bridge="${KDX_BRIDGE:-$build/bin/kendrivex-bridge}"
sim="$build/bin/kendrivex-sim"
ctl="$build/bin/kendrivex-ctl"
mqtt_bench="$build/bench/bridge/mqtt_bench"
event_service="$build/bench/bridge/bridge_event_service"

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kdx-bridge-bench.XXXXXX")
# The processes this script started in the background that still run
# (jobs -p lists only this shell's own) are stopped at the end.
cleanup() {
  local pids
  pids=$(jobs -p)
  if [ -n "$pids" ]; then
    # shellcheck disable=SC2086 # one process id a word
    kill -TERM $pids 2>/dev/null || true
    wait
  fi
  rm -rf "$tmp"
}
trap cleanup EXIT

log() { echo "bridge_bench: $*" >&2; }
load() { cut -d' ' -f1-3 /proc/loadavg; }

# stop <pid...>: SIGTERM, then waits for each.
stop() {
  local pid
  for pid in "$@"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "$@"; do wait "$pid" 2>/dev/null || true; done
}

# bench_broker <name> <true|false>: a broker of its own, set_tcp_nodelay as
# given; sets broker_port and broker_pid. Queued messages are not limited, so
# that a subscriber slower than its publisher loses nothing at the broker.
# Two run at once, so the one-broker helpers of bench/support/broker.sh
# serve only for the port.
bench_broker() {
  local name=$1 nodelay=$2 conf="$tmp/$1.conf"
  broker_port=$(free_port)
  {
    echo "listener $broker_port 127.0.0.1"
    echo "allow_anonymous true"
    echo "persistence false"
    echo "set_tcp_nodelay $nodelay"
    echo "max_queued_messages 0"
    echo "log_dest stderr"
    echo "log_type error"
    echo "log_type warning"
    echo "log_type information"
    # Started as root, it would become the user mosquitto, who cannot read
    # this private directory.
    if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
  } >"$conf"
  mosquitto -c "$conf" 2>"$tmp/$name.log" &
  broker_pid=$!
  wait_until 10 grep -q ' running$' "$tmp/$name.log" || { cat "$tmp/$name.log" >&2; exit 1; }
}

# start_bridge <port> <service socket> <prefix> <id>: sets bridge_pid.
start_bridge() {
  "$bridge" -b "mqtt://127.0.0.1:$1" -s "$2" -d "$tmp" -p "$3" -i "$4" --health 0 2>>"$tmp/bridges.err" &
  bridge_pid=$!
}

# wait_online <port> <prefix> <count>: until <count> bridges below <prefix>
# have said "online".
wait_online() {
  local text
  text=$(mosquitto_sub -h 127.0.0.1 -p "$1" -t "$2/+/status" -v -C "$3" -W 120) || true
  [ "$(grep -c ' online$' <<<"$text")" -eq "$3" ] || { log "not all $3 bridges below $2 came online"; exit 1; }
}

# start_ready <name> <mqtt_bench arguments...>: an mqtt_bench role in the
# background that writes a ready file; returns once it has. Sets ready_pid;
# its output goes to $tmp/<name>.out.
start_ready() {
  local name=$1
  shift
  rm -f "$tmp/$name.ready"
  "$mqtt_bench" "$@" --ready "$tmp/$name.ready" >"$tmp/$name.out" &
  ready_pid=$!
  wait_until 20 test -e "$tmp/$name.ready"
}

# field <name> <line of name=value pairs>
field() { tr ' ' '\n' <<<"$2" | sed -n "s/^$1=//p"; }

# The median of the numbers on standard input.
median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

rss_kib() { awk '$1 == "VmRSS:" { print $2 }' "/proc/$1/status"; }

# How many pushes the stand-in service has reported, and whether it has
# reported more than <count>.
pushes_done() { grep -c . "$tmp/event_service.out" || true; }
pushed_more() { [ "$(pushes_done)" -gt "$1" ]; }

# --- Command round trip -----------------------------------------------------
log "command round trip: $commands pings, $rounds rounds (load $(load))"
load_start=$(load)
bench_broker fast true
fast_port=$broker_port
"$sim" --log /dev/null --event-interval 0 "$tmp/svc" &
sim_pid=$!
wait_until 10 test -S "$tmp/svc"
start_bridge "$fast_port" "$tmp/svc" kendrivex box1
fast_bridge_pid=$bridge_pid
wait_online "$fast_port" kendrivex 1
start_ready responder respond --port "$fast_port" --topic bench/floor/cmd
responder_pid=$ready_pid
seq "$commands" | sed "s/.*/ping/" >"$tmp/pings"

floor_us=()
floor_median_us=()
bridge_us=()
bridge_median_us=()
direct_us=()
ratios=()
for round in $(seq "$rounds"); do
  line=$("$mqtt_bench" request --port "$fast_port" --topic bench/floor/cmd --count "$commands")
  floor_us+=("$(field mean_us "$line")")
  floor_median_us+=("$(field median_us "$line")")
  log "round $round, floor:  $line"
  line=$("$mqtt_bench" request --port "$fast_port" --topic kendrivex/box1/cmd --count "$commands")
  bridge_us+=("$(field mean_us "$line")")
  bridge_median_us+=("$(field median_us "$line")")
  log "round $round, bridge: $line"
  start=$(date +%s%N)
  "$ctl" -s "$tmp/svc" -d "$tmp" - <"$tmp/pings" >/dev/null
  direct_us+=("$(awk -v ns=$(($(date +%s%N) - start)) -v n="$commands" 'BEGIN { printf "%.1f", ns / 1000 / n }')")
  log "round $round, direct: ${direct_us[-1]} us a command"
  # The round's own ratio, by the means: the three ran one after another.
  ratios+=("$(awk -v f="${floor_us[-1]}" -v b="${bridge_us[-1]}" -v d="${direct_us[-1]}" \
    'BEGIN { printf "%.2f", b / (f + d) }')")
done
floor=$(printf '%s\n' "${floor_us[@]}" | median)
floor_median=$(printf '%s\n' "${floor_median_us[@]}" | median)
through_bridge=$(printf '%s\n' "${bridge_us[@]}" | median)
bridge_median=$(printf '%s\n' "${bridge_median_us[@]}" | median)
direct=$(printf '%s\n' "${direct_us[@]}" | median)
ratio=$(printf '%s\n' "${ratios[@]}" | median)
load_rt="$load_start / $(load)"

# --- Nagle's algorithm ------------------------------------------------------
# One request and its reply, median of many: the responder from memory, and
# the bridge (which always sets TCP_NODELAY on its own connection), with
# TCP_NODELAY on the requester and responder and set_tcp_nodelay in the
# broker, and with neither.
log "Nagle's algorithm (load $(load))"
load_start=$(load)
line=$("$mqtt_bench" request --port "$fast_port" --topic bench/floor/cmd --count 1000)
fast_floor=$(field median_us "$line")
line=$("$mqtt_bench" request --port "$fast_port" --topic kendrivex/box1/cmd --count 1000)
fast_bridge=$(field median_us "$line")
stop "$responder_pid"
bench_broker slow false
slow_port=$broker_port
start_ready slow_responder respond --port "$slow_port" --topic bench/floor/cmd --nodelay 0
slow_responder_pid=$ready_pid
start_bridge "$slow_port" "$tmp/svc" kendrivex box1
slow_bridge_pid=$bridge_pid
wait_online "$slow_port" kendrivex 1
line=$("$mqtt_bench" request --port "$slow_port" --topic bench/floor/cmd --count 50 --warmup 5 --nodelay 0)
slow_floor=$(field median_us "$line")
log "Nagle, floor: $line"
line=$("$mqtt_bench" request --port "$slow_port" --topic kendrivex/box1/cmd --count 50 --warmup 5 --nodelay 0)
slow_bridge=$(field median_us "$line")
log "Nagle, bridge: $line"
stop "$slow_responder_pid" "$slow_bridge_pid" "$broker_pid" "$fast_bridge_pid"
stop "$sim_pid"
load_nagle="$load_start / $(load)"

# --- Events -----------------------------------------------------------------
log "events: $events, $rounds rounds (load $(load))"
load_start=$(load)
# The publisher's payload: an event as the bridge publishes it.
payload='{"time":"2026-11-25T14:06:00.568Z","id":7,"args":["bench event"]}'
publisher_rates=()
full_rates=()
full_received=()
paced_rates=()
paced_received=()

# The publisher loop to a subscriber of its own.
publisher_round() {
  local line publisher
  start_ready published subscribe --port "$fast_port" --topic 'bench/pub/event/#' --count "$events" --idle 3
  publisher=$("$mqtt_bench" publish --port "$fast_port" --topic bench/pub/event/7 --count "$events" --payload "$payload")
  wait "$ready_pid" || true
  line=$(cat "$tmp/published.out")
  log "round $round, publisher: $line ($publisher)"
  publisher_rates+=("$(field rate_per_s "$line")")
}

# bridge_round <signal> <name>: the stand-in service pushes on <signal>,
# through the bridge, to a subscriber; sets round_rate and round_received.
bridge_round() {
  local line pushes
  start_ready events subscribe --port "$fast_port" --topic 'events/box2/event/#' --count "$events" --idle 3
  pushes=$(pushes_done)
  kill "-$1" "$event_service_pid"
  wait "$ready_pid" || true
  line=$(cat "$tmp/events.out")
  wait_until 120 pushed_more "$pushes"
  log "round $round, bridge ($2): $line; service: $(tail -n 1 "$tmp/event_service.out")"
  round_rate=$(field rate_per_s "$line")
  round_received=$(field received "$line")
}

round=1
publisher_round
paced=$(awk -v p="${publisher_rates[0]}" 'BEGIN { printf "%d", p * 0.7 }')
"$event_service" "$tmp/events.svc" "$events" "$paced" >"$tmp/event_service.out" &
event_service_pid=$!
wait_until 10 test -S "$tmp/events.svc"
start_bridge "$fast_port" "$tmp/events.svc" events box2
event_bridge_pid=$bridge_pid
wait_online "$fast_port" events 1
rss=("$(rss_kib "$event_bridge_pid")")
for round in $(seq "$rounds"); do
  [ "$round" -eq 1 ] || publisher_round
  bridge_round USR1 "as fast as taken"
  full_rates+=("$round_rate")
  full_received+=("$round_received")
  bridge_round USR2 "paced at $paced /s"
  paced_rates+=("$round_rate")
  paced_received+=("$round_received")
  rss+=("$(rss_kib "$event_bridge_pid")")
done
publisher_rate=$(printf '%s\n' "${publisher_rates[@]}" | median)
full_rate=$(printf '%s\n' "${full_rates[@]}" | median)
paced_rate=$(printf '%s\n' "${paced_rates[@]}" | median)
load_events="$load_start / $(load)"
stop "$event_bridge_pid" "$event_service_pid"

# --- Fleet ------------------------------------------------------------------
fleet_rows=()
for size in "${fleet_sizes[@]}"; do
  log "fleet of $size (load $(load))"
  load_start=$(load)
  mkdir -p "$tmp/fleet$size"
  sims=()
  bridges=()
  for i in $(seq "$size"); do
    "$sim" --log /dev/null --event-interval 0 "$tmp/fleet$size/box$i.svc" &
    sims+=("$!")
  done
  for i in $(seq "$size"); do wait_until 20 test -S "$tmp/fleet$size/box$i.svc"; done
  for i in $(seq "$size"); do
    start_bridge "$fast_port" "$tmp/fleet$size/box$i.svc" "fleet$size" "box$i"
    bridges+=("$bridge_pid")
  done
  wait_online "$fast_port" "fleet$size" "$size"
  line=$("$mqtt_bench" request --port "$fast_port" --topic "fleet$size/all/cmd" --replies "$size" --count 20 --warmup 2)
  log "fleet of $size: $line"
  fleet_rows+=("$size $(field median_us "$line") $(field p90_us "$line") $load_start $(load)")
  # The bridges first: each unregisters from its simulator as it stops.
  stop "${bridges[@]}"
  stop "${sims[@]}"
done

# --- Figures ----------------------------------------------------------------
awk -v floor="$floor" -v bridge="$through_bridge" -v direct="$direct" -v fm="$floor_median" -v bm="$bridge_median" \
  -v n="$commands" -v r="$rounds" -v load="$load_rt" -v ratio="$ratio" -v ratios="${ratios[*]}" 'BEGIN {
  printf "Command round trip, %d pings one after another, medians of %d rounds (load average %s):\n\n", n, r, load
  print "| path | per command (mean) | one request (median) |"
  print "|---|---:|---:|"
  printf "| requester -> broker -> responder from memory (the floor) | %.1f µs | %.1f µs |\n", floor, fm
  printf "| `kendrivex-ctl -` against the simulator (direct) | %.1f µs | |\n", direct
  printf "| requester -> broker -> kendrivex-bridge -> simulator | %.1f µs | %.1f µs |\n", bridge, bm
  printf "| goal: (floor + direct) x 1.2 | %.1f µs | %.1f µs |\n", (floor + direct) * 1.2, (fm + direct) * 1.2
  printf "\nbridge / (floor + direct), goal at most 1.2: %.2f, the median of the rounds\047 own ratios (%s);", ratio, ratios
  printf " %.2f by the medians of a request\n\n", bm / (fm + direct)
}'
awk -v ff="$fast_floor" -v fb="$fast_bridge" -v sf="$slow_floor" -v sb="$slow_bridge" -v load="$load_nagle" 'BEGIN {
  printf "One request and its reply, median (load average %s):\n\n", load
  print "| | TCP_NODELAY, set_tcp_nodelay true | Nagle (neither) |"
  print "|---|---:|---:|"
  printf "| requester and responder from memory | %.2f ms | %.2f ms |\n", ff / 1000, sf / 1000
  printf "| requester and kendrivex-bridge (its own TCP_NODELAY always on) | %.2f ms | %.2f ms |\n\n", fb / 1000, sb / 1000
}'
printf 'Events: %d through the bridge and from a publisher loop, QoS 1 subscriber (load average %s):\n\n' \
  "$events" "$load_events"
echo "| sender | rate (median of $rounds) | received |"
echo "|---|---:|---:|"
printf '| libmosquitto publisher loop -> broker -> subscriber | %s /s | all |\n' "$publisher_rate"
printf '| service as fast as the bridge takes them -> kendrivex-bridge -> broker -> subscriber | %s /s | %s |\n' \
  "$full_rate" "$(IFS=/; echo "${full_received[*]}")"
printf '| service paced at %s /s (0.7 x the first publisher rate) -> kendrivex-bridge -> broker -> subscriber | %s /s | %s |\n' \
  "$paced" "$paced_rate" "$(IFS=/; echo "${paced_received[*]}")"
awk -v b="$full_rate" -v p="$publisher_rate" 'BEGIN { printf "\nbridge / publisher = %.2f (goal at least 0.7)\n", b / p }'
rss_text="${rss[*]}"
printf 'kendrivex-bridge VmRSS before and after each round: %s KiB\n\n' "${rss_text// / -> }"
echo "Fleet: one ping on PREFIX/all/cmd until every box has answered (20 requests):"
echo
echo "| boxes | median | 90th percentile | load average before / after |"
echo "|---:|---:|---:|---|"
for row in "${fleet_rows[@]}"; do
  read -r size med p90 l1 l2 l3 m1 m2 m3 <<<"$row"
  awk -v s="$size" -v m="$med" -v p="$p90" -v l="$l1 $l2 $l3 / $m1 $m2 $m3" \
    'BEGIN { printf "| %d | %.2f ms | %.2f ms | %s |\n", s, m / 1000, p / 1000, l }'
done
