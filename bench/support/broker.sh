# shellcheck shell=bash
# A Mosquitto broker of a script's own, on a free loopback port, for the
# bridge's measurements: started, stopped and started again on the same port
# with the same configuration. Sourced by the scripts, not run; one broker at
# a time, whose process id is in broker_pid while it runs. Its log (every
# connection, take-over and refusal, which the measurements count) is in
# broker_log, appended to across restarts.

# shellcheck source=scripts/lib/wait.sh
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib/wait.sh"

broker_port=""
broker_pid=""
broker_conf=""
broker_log=""
# The descriptor limit the broker is started with: one descriptor per client
# and a few of its own. The shell's soft limit (often 1024) would refuse the
# connections of a large fleet.
broker_descriptors=4096

# A loopback port that nothing listens on.
free_port() {
  local port
  while true; do
    port=$((20000 + RANDOM % 40000))
    if ! (: <>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return
    fi
  done
}

# The broker has started to serve since its log had <lines> lines, or it has
# ended (and will not).
broker_running_or_end() {
  tail -n "+$(($1 + 1))" "$broker_log" | grep -q ' running$' || ! kill -0 "$broker_pid" 2>/dev/null
}

# start_broker <dir> [configuration lines...]: writes <dir>/mosquitto.conf
# (a listener on a free loopback port, no persistence, so that a restart
# forgets the retained messages, and the log on standard error) with the
# lines given after it, starts the broker with its log in <dir>/broker.log
# and returns once it serves. Status 1 with its log on standard error when it
# does not start.
start_broker() {
  local dir=$1
  shift
  broker_port=$(free_port)
  broker_conf="$dir/mosquitto.conf"
  broker_log="$dir/broker.log"
  {
    echo "listener $broker_port 127.0.0.1"
    echo "persistence false"
    echo "log_dest stderr"
    echo "log_type error"
    echo "log_type warning"
    echo "log_type notice"
    echo "log_type information"
    # Started as root, it would become the user mosquitto, who may not read
    # the script's private directory.
    if [ "$(id -u)" -eq 0 ]; then echo "user root"; fi
    local line
    for line in "$@"; do echo "$line"; done
  } >"$broker_conf"
  : >"$broker_log"
  run_broker
}

# restart_broker: starts the broker again on the same port with the same
# configuration, after stop_broker.
restart_broker() { run_broker; }

run_broker() {
  local lines hard limit=$broker_descriptors
  lines=$(wc -l <"$broker_log")
  hard=$(ulimit -Hn)
  if [ "$hard" != unlimited ] && [ "$hard" -lt "$limit" ]; then limit=$hard; fi
  (
    ulimit -n "$limit"
    exec mosquitto -c "$broker_conf"
  ) 2>>"$broker_log" &
  broker_pid=$!
  wait_until 10 broker_running_or_end "$lines" || true
  if ! kill -0 "$broker_pid" 2>/dev/null; then
    echo "the broker did not start:" >&2
    tail -n "+$((lines + 1))" "$broker_log" >&2
    broker_pid=""
    return 1
  fi
}

# stop_broker: ends the broker (SIGTERM; SIGCONT first, in case it was
# stopped on purpose) and waits for it.
stop_broker() {
  [ -n "$broker_pid" ] || return 0
  kill -TERM "$broker_pid" 2>/dev/null || true
  kill -CONT "$broker_pid" 2>/dev/null || true
  wait "$broker_pid" 2>/dev/null || true
  broker_pid=""
}

# broker_log_count <extended regular expression>: how many lines of the
# broker's log match.
broker_log_count() { grep -c -E "$1" "$broker_log" || true; }

broker_log_lines() { wc -l <"$broker_log"; }

# broker_connections [n]: the connections the broker accepted after line <n>
# of its log (default 0), leaving out the measurement's own clients: those
# whose client ids begin with kdx-measure-, and the Mosquitto tools' own
# (auto-...).
broker_connections() {
  tail -n "+$((${1:-0} + 1))" "$broker_log" | grep 'New client connected from ' |
    grep -c -v -E ' as (auto-|kdx-measure-)' || true
}

# broker_takeovers [n]: the sessions taken over by a new connection with the
# same client id after line <n> of the broker's log (default 0).
broker_takeovers() {
  tail -n "+$((${1:-0} + 1))" "$broker_log" | grep -c 'already connected, closing old connection' || true
}
