#!/usr/bin/env bash
# `scripts/run.sh --help` prints the script's own usage, at once and with
# status 0 (it builds and starts nothing), and names every option of the
# simulator that the script passes on. Usage: run_script_help.sh SIMULATOR
# (behind KDX_TEST_LAUNCHER, the emulator of a cross build, when that is set).
set -euo pipefail
cd "$(dirname "$0")/../.."

sim=$1
read -ra launcher <<<"${KDX_TEST_LAUNCHER:-}"

help=$(scripts/run.sh --help)
first=${help%%$'\n'*}
if [ "$first" != "usage: scripts/run.sh [simulator options]" ]; then
  echo "scripts/run.sh --help begins with: $first" >&2
  exit 1
fi

# The simulator's options, from its own help; --version is not for a run.
sim_help=$("${launcher[@]}" "$sim" --help)
options=$(grep -oE -- '^  (-[A-Za-z], )?--[a-z-]+' <<<"$sim_help" | grep -oE -- '--[a-z-]+' | grep -vx -- '--version')
[ -n "$options" ] || { echo "no option found in the simulator's help" >&2; exit 1; }
missing=0
for option in $options; do
  if ! grep -qE -- "(^|[ ,])$option( |,|$)" <<<"$help"; then
    echo "scripts/run.sh --help does not name $option" >&2
    missing=1
  fi
done
exit "$missing"
