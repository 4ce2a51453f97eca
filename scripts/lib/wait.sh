# shellcheck shell=bash
# The one way the scripts wait for something another process brings about:
# check a condition, and check again after a short pause until it holds or
# the time is up. Sourced by the scripts, not run.

# wait_until <seconds> <command...>: runs the command every 50 ms until it
# succeeds; status 1 and a message on standard error when it still fails
# after <seconds>.
wait_until() {
  local seconds=$1
  shift
  local tries=$((seconds * 20))
  while ! "$@"; do
    tries=$((tries - 1))
    if [ "$tries" -le 0 ]; then
      echo "gave up waiting for: $*" >&2
      return 1
    fi
    sleep 0.05
  done
}
