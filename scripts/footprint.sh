#!/usr/bin/env bash
# Measures what the programs cost, and prints it as Markdown tables for the
# README. This is a measurement, not a test: nothing is compared with a limit.
#
# - Storage: the armhf executables and the client library as the device
#   stores them (stripped copies of the cross build, which is built for size:
#   -Os, link-time optimised, unreferenced sections collected), in bytes;
#   kendrivex-bridge and kendrivex-fleet without libmosquitto, which they
#   link as a shared library.
# - Memory and threads: the client runs on a pseudo-terminal (util-linux's
#   `script`) against the simulator in a temporary directory; after a few
#   commands its peak resident set (VmHWM), resident set (VmRSS) and thread
#   count are read from /proc, then it is told "exit". Natively on this
#   machine, and the armhf client under qemu-arm, whose figures include the
#   emulator.
#
# KDX_BUILD_ROOT (default: build) names the directory that holds the release
# and armhf build directories.
set -euo pipefail
cd "$(dirname "$0")/.."

source scripts/lib/sim.sh

build_root="${KDX_BUILD_ROOT:-build}"
host="$build_root/release"
arm="$build_root/armhf"
qemu=(qemu-arm -L /usr/arm-linux-gnueabihf)

# What the device stores: the build target and its path in the build tree,
# one line each; the table has a row for each, in this order.
shipped=(
  "kendrivex-cli bin/kendrivex-cli"
  "kendrivex-ctl bin/kendrivex-ctl"
  "kendrivex-sim bin/kendrivex-sim"
  "kendrivex_ipc ipc/libkendrivex_ipc.so"
  "kendrivex-bridge bin/kendrivex-bridge"
  "kendrivex-fleet bin/kendrivex-fleet"
)

targets=()
for entry in "${shipped[@]}"; do targets+=("${entry%% *}"); done
scripts/deps.sh release armhf >&2
cmake --preset release -B "$host" >/dev/null
cmake --build "$host" --target kendrivex-cli kendrivex-sim >&2
cmake --preset armhf -B "$arm" >/dev/null
cmake --build "$arm" --target "${targets[@]}" >&2

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kdx-footprint.XXXXXX")
session_pid=""
cleanup() {
  if [ -n "$session_pid" ]; then
    kill -TERM "$session_pid" 2>/dev/null || true
    wait "$session_pid" 2>/dev/null || true
  fi
  stop_sim 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT

prompts_at_least() { [ "$(grep -o 'hi>' "$1" | wc -l)" -ge "$2" ]; }
status_field() { awk -v f="$2:" '$1 == f { print $2 }' "/proc/$1/status"; }

# Runs one client (the command line in the arguments, before its two
# arguments) through a few commands and prints a table row.
measure() {
  local label=$1 seconds=$2
  shift 2
  local run="$tmp/run"
  rm -rf "$run"
  mkdir "$run"
  start_sim "$host/bin/kendrivex-sim" "$run/service" --log "$run/sim.log"

  # The keys go through a FIFO that stays open for writing until the end, so
  # that `script` never sees the end of its input while the client runs.
  mkfifo "$run/keys"
  local command
  printf -v command '%q ' "$@" "$run/service" "$run"
  script -q -e -c "echo \$\$ > $run/pid; exec $command" /dev/null <"$run/keys" >"$run/out" 2>&1 &
  session_pid=$!
  exec 3>"$run/keys"
  wait_until "$seconds" test -s "$run/pid"
  local pid
  pid=$(cat "$run/pid")

  local expect=1
  wait_until "$seconds" prompts_at_least "$run/out" "$expect"
  for line in send_ping atcmd_wlanapclist atcmd_wlanmac help; do
    printf '%s\r' "$line" >&3
    expect=$(( expect + 1 ))
    wait_until "$seconds" prompts_at_least "$run/out" "$expect"
  done
  grep -q 'PING response : PONG' "$run/out"
  grep -q 'WIFI MAC: ' "$run/out"

  local hwm rss threads
  hwm=$(status_field "$pid" VmHWM)
  rss=$(status_field "$pid" VmRSS)
  threads=$(status_field "$pid" Threads)

  printf 'exit\r' >&3
  local status=0
  wait "$session_pid" || status=$?
  session_pid=""
  exec 3>&-
  if [ "$status" -ne 0 ]; then
    echo "footprint: the client ended with status $status" >&2
    exit 1
  fi
  stop_sim || true
  printf '| %s | %s kB | %s kB | %s |\n' "$label" "$hwm" "$rss" "$threads"
}

# A table row for one shipped file, named as installed (a library by its
# full version name).
stripped_row() {
  local file
  file=$(readlink -f "$1")
  local name
  name=$(basename "$file")
  arm-linux-gnueabihf-strip -o "$tmp/stripped" "$file"
  local bytes text data bss
  bytes=$(stat -c %s "$tmp/stripped")
  read -r text data bss _ < <(arm-linux-gnueabihf-size "$tmp/stripped" | tail -n 1)
  local quote='`'
  printf '| %s | %s | %s | %s | %s |\n' "$quote$name$quote" "$bytes" "$text" "$data" "$bss"
}

echo "| armhf, stripped | bytes | text | data | bss |"
echo "|---|---:|---:|---:|---:|"
for entry in "${shipped[@]}"; do stripped_row "$arm/${entry#* }"; done
echo
echo "| running client, after send_ping, atcmd_wlanapclist, atcmd_wlanmac, help | peak RSS (VmHWM) | RSS (VmRSS) | threads |"
echo "|---|---:|---:|---:|"
measure "$(uname -m), native" 10 "$host/bin/kendrivex-cli"
measure "armhf under qemu-arm (emulated: the emulator's own memory and thread included)" 60 \
  "${qemu[@]}" "$arm/bin/kendrivex-cli"
echo
echo "Measured on $(date -u +%Y-%m-%d) with $(g++ --version | head -n 1) (host, Release build) and" \
  "$(arm-linux-gnueabihf-g++ --version | head -n 1) (armhf, size build)."
