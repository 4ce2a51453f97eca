#!/usr/bin/env bash
# Measures kendrivex-ctl against its baselines, each pair in one run, and
# prints the figures and their ratios as Markdown. A measurement, not a test:
# nothing is compared with a limit.
#
# - Start to exit of one `kendrivex-ctl ping` against a C++ hello-world
#   (hyperfine, without a shell in between; goal: at most 3 times as long).
# - Commands a second through `kendrivex-ctl -` (N pings on standard input)
#   against a C program that sends the same N pings through the C binding
#   (goal: at least 0.8 times the rate).
# - The system calls of one `kendrivex-ctl ping` and of the C++ hello-world,
#   counted with `strace -f -c`.
#
# Both talk to the simulator, started here with its log thrown away. Usage:
# bench/ctl/ctl_bench.sh [N] (default 20000); KDX_BUILD_ROOT (default: build)
# names the directory that holds the release build.
set -euo pipefail
cd "$(dirname "$0")/../.."

count="${1:-20000}"
build="${KDX_BUILD_ROOT:-build}/release"
scripts/deps.sh release hyperfine jq strace >&2
cmake --preset release -B "$build" >/dev/null
cmake --build "$build" --target kendrivex-ctl kendrivex-sim ctl_bench_hello ctl_bench_c_loop >&2

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kdx-bench.XXXXXX")
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then
    kill -TERM "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$tmp"
}
trap cleanup EXIT

"$build/bin/kendrivex-sim" --log /dev/null --event-interval 0 "$tmp/svc" &
sim_pid=$!
for _ in $(seq 200); do [ -S "$tmp/svc" ] && break; sleep 0.05; done
[ -S "$tmp/svc" ] || { echo "ctl_bench: the simulator did not start" >&2; exit 1; }

ctl="$build/bin/kendrivex-ctl"
hello="$build/bench/ctl/ctl_bench_hello"
loop="$build/bench/ctl/ctl_bench_c_loop"
seq "$count" | sed "s/.*/ping/" >"$tmp/pings"

# Median seconds of each command of a hyperfine JSON export, one a line: the
# median rather than the mean, so that a run held up by another process on a
# shared machine does not move it.
medians() { jq -r '.results[].median' "$1"; }

hyperfine -N --warmup 50 --runs 1000 --export-json "$tmp/start.json" \
  "$hello" "$ctl -s $tmp/svc -d $tmp ping" >&2
read -r -d '' hello_s ping_s < <(medians "$tmp/start.json") || true

hyperfine --warmup 1 --runs 7 --export-json "$tmp/batch.json" \
  "$loop $tmp/svc $tmp $count" "$ctl -s $tmp/svc -d $tmp - <$tmp/pings >/dev/null" >&2
read -r -d '' loop_s batch_s < <(medians "$tmp/batch.json") || true

# The total of strace's summary: the line ending in "total", whose fourth
# column is the number of calls.
syscalls() { strace -f -c -o "$tmp/strace.txt" "$@" >/dev/null && awk '$NF == "total" { print $4 }' "$tmp/strace.txt"; }
ping_calls=$(syscalls "$ctl" -s "$tmp/svc" -d "$tmp" ping)
hello_calls=$(syscalls "$hello")

awk -v hello="$hello_s" -v ping="$ping_s" -v loop="$loop_s" -v batch="$batch_s" -v n="$count" \
  -v ping_calls="$ping_calls" -v hello_calls="$hello_calls" 'BEGIN {
  print "| measurement (medians) | kendrivex-ctl | baseline | ratio |"
  print "|---|---:|---:|---:|"
  printf "| one `ping`, start to exit, against a C++ hello-world | %.0f µs | %.0f µs | %.2fx (goal at most 3x) |\n",
    ping * 1e6, hello * 1e6, ping / hello
  printf "| %d pings through `-`, against a C loop over the C binding | %.0f /s | %.0f /s | %.2fx (goal at least 0.8x) |\n",
    n, n / batch, n / loop, loop / batch
  printf "| system calls of one `ping` (`strace -f -c`), against the C++ hello-world | %d | %d | %.2fx |\n",
    ping_calls, hello_calls, ping_calls / hello_calls
}'
