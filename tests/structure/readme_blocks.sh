#!/usr/bin/env bash
# Runs the README's examples of the simulator and kendrivex-ctl against the
# programs of a build, so that the README cannot drift from them. Usage:
#   readme_blocks.sh README BIN_DIR
#
# A shell block is run when the line just above its opening fence (```sh) is
# the marker <!-- readme-test -->. The marked blocks run in the order they
# appear, one after another in one bash, as a reader pastes them into one
# shell, with BIN_DIR first on PATH (behind KDX_TEST_LAUNCHER, the emulator of
# a cross build, when that is set). Every command must succeed (errexit and
# pipefail); the blocks wait for what they need themselves. /tmp/kdx, the
# README's folder for the sockets, becomes a fresh temporary directory, so
# that runs never meet each other or a reader's own /tmp/kdx. At the end no
# program the blocks started may still run, and the simulator's socket must
# be gone: the last block stops it.
set -euo pipefail

readme=$1
bin=$2
marker='<!-- readme-test -->'

work=$(mktemp -d "${TMPDIR:-/tmp}/kdx-readme.XXXXXX")
trap 'rm -rf "$work"' EXIT

# The programs, under the emulator where there is one.
path="$bin"
if [ -n "${KDX_TEST_LAUNCHER:-}" ]; then
  path="$work/bin"
  mkdir "$path"
  for program in "$bin"/*; do
    [ -x "$program" ] || continue
    printf '#!/bin/sh\nexec %s "%s" "$@"\n' "$KDX_TEST_LAUNCHER" "$program" >"$path/${program##*/}"
    chmod +x "$path/${program##*/}"
  done
fi

# The marked blocks as one script; each announces itself with its line in
# the README. A marker that is not followed by a shell block is an error.
script="$work/readme.sh"
awk -v marker="$marker" '
  armed && /^```sh$/ { printf "echo \"--- README line %d\"\n", NR; inside = 1; armed = 0; blocks++; next }
  armed { printf "README line %d: %s is not followed by a ```sh block\n", NR - 1, marker > "/dev/stderr"; bad = 1; armed = 0 }
  $0 == marker { armed = 1; next }
  inside && /^```$/ { inside = 0; next }
  inside { print }
  END { if (blocks == 0) { print "no marked block in the README" > "/dev/stderr"; bad = 1 } exit bad }
' "$readme" | sed "s#/tmp/kdx\\b#$work/kdx#g" >"$script.blocks"

# After the last block every program it started has ended (the simulator
# within a few seconds of the block that stops it); whatever happens, nothing
# the blocks started outlives them.
# shellcheck disable=SC2016 # the lines are the script's own, expanded when it runs
{
  echo 'set -eo pipefail'
  echo "source '$(cd "$(dirname "$0")/../.." && pwd)/scripts/lib/wait.sh'"
  echo 'trap '\''kill $(jobs -p) 2>/dev/null || true'\'' EXIT'
  cat "$script.blocks"
  echo 'echo "--- every block ran"'
  echo 'nothing_runs() { [ -z "$(jobs -rp)" ]; }'
  echo 'wait_until 10 nothing_runs || { echo "still running after the last block:"; jobs -l; exit 1; }'
} >"$script"

status=0
PATH="$path:$PATH" bash "$script" </dev/null || status=$?
if [ "$status" -ne 0 ]; then
  echo "the README's blocks failed with status $status; they were:" >&2
  cat -n "$script" >&2
  exit 1
fi
if [ -e "$work/kdx/svc" ]; then
  echo "the simulator's socket is still there: the blocks did not stop it" >&2
  exit 1
fi
