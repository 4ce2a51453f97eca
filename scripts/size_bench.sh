#!/usr/bin/env bash
# Compares the speed of the build for size (what the packages ship: -Os,
# link-time optimised, unreferenced sections collected) with the Release
# build, on this machine: builds both, runs the same benchmarks from each in
# turn, round after round, and prints the median of each benchmark in each
# build and their ratio (size / release) as a Markdown table. A measurement,
# not a test: nothing is compared with a limit. Rounds alternate the builds,
# so that a change of load on the machine falls on both alike.
#
# KDX_BENCH_ROUNDS (default 5) sets the number of rounds; KDX_BUILD_ROOT
# (default: build) names the directory that holds the build directories.
set -euo pipefail
cd "$(dirname "$0")/.."

rounds="${KDX_BENCH_ROUNDS:-5}"
build_root="${KDX_BUILD_ROOT:-build}"
builds=(release size)

# The benchmarks compared, one line each: executable (in the build's bench
# folder), benchmark name, the time that counts (wall time for exchanges
# between threads, CPU time otherwise) and the label of the table row.
benchmarks=(
  "ipc/ipc_bench BM_PingRoundTrip real_time ping request and reply through the IPC client (wall)"
  "cli/cli_bench BM_DecodePrintableByte cpu_time decode a printable key"
  "cli/cli_bench BM_DecodeControlByte cpu_time decode a control key"
  "cli/cli_bench BM_DecodeEscapeSequencesFromPipe cpu_time read and decode four keys (escape sequences) from a pipe"
)

scripts/deps.sh "${builds[@]}" >&2
for build in "${builds[@]}"; do
  cmake --preset "$build" -B "$build_root/$build" >/dev/null
  cmake --build "$build_root/$build" --target ipc_bench cli_bench >&2
done

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kdx-size-bench.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

# Runs one benchmark of one build once and prints its time in nanoseconds.
run_once() {
  local build=$1 executable=$2 name=$3 column=$4
  "$build_root/$build/bench/$executable" --benchmark_filter="^$name(/real_time)?\$" \
    --benchmark_format=csv 2>/dev/null |
    awk -F, -v column="$column" '
      NR == 1 { for (i = 1; i <= NF; i++) field[$i] = i; next }
      {
        unit = $field["time_unit"]
        scale = unit == "us" ? 1000 : unit == "ms" ? 1000000 : unit == "s" ? 1000000000 : 1
        printf "%.3f\n", $field[column] * scale
      }'
}

median() { sort -g "$1" | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

for round in $(seq 1 "$rounds"); do
  echo "round $round of $rounds" >&2
  for index in "${!benchmarks[@]}"; do
    read -r executable name column _ <<<"${benchmarks[$index]}"
    for build in "${builds[@]}"; do
      run_once "$build" "$executable" "$name" "$column" >>"$tmp/$index-$build"
    done
  done
done

echo "| benchmark | Release | size build | size / Release |"
echo "|---|---:|---:|---:|"
for index in "${!benchmarks[@]}"; do
  read -r _ _ _ label <<<"${benchmarks[$index]}"
  release=$(median "$tmp/$index-release")
  size=$(median "$tmp/$index-size")
  awk -v label="$label" -v r="$release" -v s="$size" \
    'BEGIN { printf "| %s | %.1f ns | %.1f ns | %.3f |\n", label, r, s, s / r }'
done
echo
echo "Medians of $rounds rounds on $(date -u +%Y-%m-%d), $(nproc) cores, load average" \
  "$(cut -d' ' -f1-3 /proc/loadavg) at the end; $(g++ --version | head -n 1)."
