#!/usr/bin/env bash
# Builds and runs every test. Usage: scripts/test.sh [release|asan|tsan|armhf]
# (release is the default; asan is AddressSanitizer + UndefinedBehaviorSanitizer;
# armhf cross-builds for the 32-bit ARM device and runs the tests under qemu-arm).
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
scripts/deps.sh "$preset"
cmake --preset "$preset" >/dev/null
start=$(date +%s)
cmake --build --preset "$preset"
echo "build ($preset) took $(( $(date +%s) - start )) s"
# Death tests and crashing programs end on purpose; their core files (which
# the emulator writes into the working directory) are of no use.
ulimit -c 0
jobs=$(( $(nproc) * 2 ))
start=$(date +%s)
ctest --preset "$preset" -j "$jobs"
echo "tests ($preset) took $(( $(date +%s) - start )) s"
