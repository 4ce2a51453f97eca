#!/usr/bin/env bash
# Builds the fuzz targets (clang 14, libFuzzer with ASan+UBSan) and runs each
# for the given number of seconds (default 60), two at a time, starting from
# the seed and regression inputs in fuzz/. Prints the executions of each
# target and fails on any crash, sanitizer report, leak or time-out; the
# input that caused it is left in build/fuzz/artifacts/<target>/ and belongs,
# once the fault is fixed, in fuzz/regression/<target>/.
# Usage: scripts/fuzz.sh [seconds]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
targets=(key_decoder line_editor line_format datagram bridge_intake bridge_config fleet_messages)

scripts/deps.sh clang-14 libclang-rt-14-dev
cmake --preset fuzz >/dev/null
start=$(date +%s)
cmake --build --preset fuzz
echo "build (fuzz) took $(( $(date +%s) - start )) s"

out=build/fuzz/runs
rm -rf "$out" build/fuzz/artifacts
ulimit -c 0

# One target: new inputs it finds go to a scratch corpus, so that the tree's
# seeds stay as they are. A single input taking over 10 s is a time-out.
run_target() {
  local target=$1
  mkdir -p "$out/corpus/$target" "build/fuzz/artifacts/$target"
  build/fuzz/fuzz/fuzz_"$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build/fuzz/artifacts/$target/" \
    "$out/corpus/$target" "fuzz/corpus/$target" "fuzz/regression/$target" >"$out/$target.log" 2>&1
}

start=$(date +%s)
pids=()
status=()
for target in "${targets[@]}"; do
  run_target "$target" &
  pids+=($!)
  # Two at a time: one target per core.
  if [ ${#pids[@]} -eq 2 ]; then
    for pid in "${pids[@]}"; do
      if wait "$pid"; then status+=(0); else status+=(1); fi
    done
    pids=()
  fi
done
for pid in "${pids[@]}"; do
  if wait "$pid"; then status+=(0); else status+=(1); fi
done

failed=0
for i in "${!targets[@]}"; do
  target=${targets[$i]}
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/$target.log")
  if [ "${status[$i]}" -ne 0 ] || ! grep -q '^Done [0-9]* runs' "$out/$target.log"; then
    echo "fuzz: $target FAILED after ${runs:-?} executions; its log:" >&2
    tail -n 60 "$out/$target.log" >&2
    ls -l "build/fuzz/artifacts/$target" >&2
    failed=1
  else
    echo "fuzz: $target: ${runs} executions in ${seconds} s, no crash, leak or time-out"
  fi
done
echo "fuzzing took $(( $(date +%s) - start )) s"
exit "$failed"
