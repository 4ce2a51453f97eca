#!/usr/bin/env bash
# Builds and runs every test. Usage: scripts/test.sh [release|asan|tsan]
# (release is the default; asan is AddressSanitizer + UndefinedBehaviorSanitizer).
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-release}"
scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
jobs=$(( $(nproc) * 2 ))
start=$(date +%s)
ctest --preset "$preset" -j "$jobs"
echo "tests ($preset) took $(( $(date +%s) - start )) s"
