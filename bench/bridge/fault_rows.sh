#!/usr/bin/env bash
# Runs the bridge's fault scenarios against one build of kendrivex-bridge and
# prints one Markdown table row per scenario with what was measured, so that
# builds can be compared row by row. Each scenario gets a Mosquitto broker of
# its own on a free loopback port (bench/support/broker.sh), simulators
# (scripts/lib/sim.sh) and a directory of its own, all stopped and removed
# when it ends.
#
# The figures come from what the broker and subscribers observe (the broker's
# log of connections, take-overs and refusals; time-stamped subscriptions;
# the simulators' logs of the requests they answered; /proc), not from the
# bridge's own log texts, which change between builds. Where the bridge's
# output is itself the figure (what it prints, a warning or not), a sample
# is printed. A scenario that needs an option the build lacks says so in its
# row.
#
# Usage: bench/bridge/fault_rows.sh. KDX_BRIDGE and KDX_SIM name the programs
# (default: the release build's, built when missing; KDX_BUILD_ROOT, default
# build, holds it); KDX_FAULTS, a space-separated list of scenario names, runs
# only those (the names are the scenario_* functions below); KDX_WINDOW (default
# 60) is the length in seconds of the two scenarios that count over a minute;
# KDX_KEEP_FAILED, a directory, receives a copy of the directory (logs,
# subscriptions) of each scenario that fails. It takes about six minutes. A measurement, not a test: nothing is compared
# with a limit.
set -euo pipefail
cd "$(dirname "$0")/../.."
# shellcheck source=bench/support/broker.sh
source bench/support/broker.sh
# shellcheck source=scripts/lib/sim.sh
source scripts/lib/sim.sh

build="${KDX_BUILD_ROOT:-build}/release"
bridge="${KDX_BRIDGE:-$build/bin/kendrivex-bridge}"
sim="${KDX_SIM:-$build/bin/kendrivex-sim}"
window="${KDX_WINDOW:-60}"
# jq reads the events' payloads; GNU time the peak memory of a bridge that
# may end by itself; script(1), from util-linux, gives the bridge a terminal.
scripts/deps.sh mosquitto mosquitto-clients jq time util-linux >&2
if [ ! -x "$bridge" ] || [ ! -x "$sim" ]; then
  scripts/deps.sh release >&2
  cmake --preset release -B "$build" >/dev/null
  cmake --build "$build" --target kendrivex-bridge kendrivex-sim >&2
fi
bridge=$(realpath "$bridge")
sim=$(realpath "$sim")
bridge_help=$("$bridge" --help 2>&1 || true)

tmp=$(mktemp -d "${TMPDIR:-/tmp}/kdx-fault-rows.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
# The exit runs the clean-up; the status says which signal ended it.
trap 'exit 130' INT
trap 'exit 143' TERM

log() { echo "fault_rows: $*" >&2; }

# --- Helpers of the scenarios -------------------------------------------------
# Each scenario runs in a subshell of its own with these globals: dir (its
# directory), the broker's, mqtt (the clients' connection options) and the
# process ids it started.

dir=""
mqtt=()
bridges=()
bridge_pid=""

# unmeasurable <item> <fault> <option...>: when this build's --help does
# not name one of the options, prints the scenario's row saying so and
# succeeds.
unmeasurable() {
  local item=$1 fault=$2 option
  shift 2
  for option in "$@"; do
    if ! grep -q -e "$option\\b" <<<"$bridge_help"; then
      row "$item" "$fault" "not measurable: this build has no $option"
      return 0
    fi
  done
  return 1
}

# cell <text>: the text fit for a table cell: one line (lines of at most
# 200 characters, joined by " / "), no control bytes, a "|" escaped.
cell() {
  tr -d '\r' <<<"$1" | cut -c1-200 | tr '\n' '\036' | sed -e 's/\o036$//' -e 's/\o036/ \/ /g' \
    -e 's/[[:cntrl:]]/?/g' -e 's/|/\\|/g'
}

# sample <file> <lines>: the first lines of a file, for a cell, in a code
# span ("nothing" when it is empty).
sample() {
  if [ -s "$1" ]; then
    local tick='`'
    printf '%s%s%s' "$tick" "$(cell "$(head -n "$2" "$1" | tr "$tick" "'")")" "$tick"
  else
    echo "nothing"
  fi
}

# row <item> <fault> <figure>
row() { printf '| %s | %s | %s |\n' "$1" "$2" "$3"; }

# since <start>: seconds since an $EPOCHREALTIME, to a tenth.
since() { awk -v s="$1" -v n="$EPOCHREALTIME" 'BEGIN { printf "%.1f", n - s }'; }

mib() { awk -v k="$1" 'BEGIN { printf "%.1f MiB", k / 1024 }'; }

vmhwm_kib() { awk '$1 == "VmHWM:" { print $2 }' "/proc/$1/status"; }

# broker <configuration lines...>: this scenario's broker; the clients
# connect as anonymous unless `login` says otherwise.
broker() {
  start_broker "$dir" "$@"
  mqtt=(-h 127.0.0.1 -p "$broker_port")
}

login() { mqtt=(-h 127.0.0.1 -p "$broker_port" -u "$1" -P "$2"); }

# subscribe <name> <topic...>: a subscriber in the background, lines
# "time retained topic payload" to $dir/<name>.sub; returns once its
# subscription holds (it has received the retained marker published just
# before it).
subscribe() {
  local name=$1 topic
  local marker="measure/ready/$name" topics=()
  shift
  for topic in "$@" "$marker"; do topics+=(-t "$topic"); done
  mosquitto_pub "${mqtt[@]}" -r -q 1 -t "$marker" -m ready
  : >"$dir/$name.sub"
  mosquitto_sub "${mqtt[@]}" -i "kdx-measure-$name" -V mqttv5 -q 1 -F '%U %r %t %p' "${topics[@]}" \
    >"$dir/$name.sub" 2>>"$dir/clients.err" &
  wait_until 10 grep -q " $marker ready\$" "$dir/$name.sub"
}

# live <name> <topic> [from] [to]: the payloads of the messages on <topic>
# that subscriber <name> got as they were published (not retained ones),
# one a line, between two $EPOCHREALTIME values when given.
live() {
  awk -v t="$2" -v from="${3:-0}" -v to="${4:-1e12}" '$2 == 0 && $3 == t && $1 >= from && $1 < to {
    sub(/^[^ ]+ [^ ]+ [^ ]+ /, ""); print }' "$dir/$1.sub"
}

# seen <name> <topic> <payload regex>: subscriber <name> has got a message
# on <topic> whose payload matches.
seen() { awk -v t="$2" -v p="$3" '$3 == t { sub(/^[^ ]+ [^ ]+ [^ ]+ /, ""); if ($0 ~ p) f = 1 } END { exit !f }' \
  "$dir/$1.sub"; }
seen_count_above() { [ "$(live "$1" "$2" | grep -c -E "$3")" -gt "$4" ]; }

# online <name> <id...>: subscriber <name> (which takes kdx/+/status) has
# seen each box below kdx/ say "online".
online() {
  local name=$1 id
  shift
  for id in "$@"; do seen "$name" "kdx/$id/status" '^online$' || return 1; done
}

# frequent_lines <file> <n>: the <n> most frequent of its lines, counted,
# lines that differ only in numbers (ports, process ids, waits) taken as
# one, and the IPC library's records of each request and reply ("client snd
# [...]", "client rcv [...]", texts that never change) left out; for a cell.
frequent_lines() {
  grep -v -E 'client (snd|rcv) \[' "$1" | sed -e 's/[0-9][0-9]*/N/g' | sort | uniq -c | sort -rn | head -n "$2" |
    sed -e 's/^ *//' >"$1.frequent" || true
  sample "$1.frequent" "$2"
}

# changes: how many lines of standard input differ from the line before.
changes() { awk 'NR > 1 && $0 != last { n++ } { last = $0 } END { print n + 0 }'; }

# box <name> [simulator options...]: a simulator serving $dir/<name>/svc,
# its log in $dir/<name>/sim.log, no events unless the options say so.
box() {
  local name=$1
  shift
  mkdir -p "$dir/$name"
  start_sim "$sim" "$dir/$name/svc" --log "$dir/$name/sim.log" --event-interval 0 "$@"
}

# start_bridge <name> [options...]: the bridge of box <name> on this
# scenario's broker (when it has one), its sockets in $dir/<name>/, the
# service's socket $dir/<name>/svc, standard error to $dir/<name>/bridge.err;
# sets bridge_pid.
start_bridge() {
  local name=$1
  shift
  mkdir -p "$dir/$name"
  local url=()
  [ -z "$broker_port" ] || url=(-b "mqtt://127.0.0.1:$broker_port")
  "$bridge" "${url[@]}" -s "$dir/$name/svc" -d "$dir/$name" "$@" 2>>"$dir/$name/bridge.err" &
  bridge_pid=$!
  bridges+=("$bridge_pid")
}

# The requests of command <n> that the simulator of box <name> answered.
requests() { grep -c "^request \\[$2[]\\t]" "$dir/$1/sim.log" || true; }

# A process has ended.
ended() { ! kill -0 "$1" 2>/dev/null; }

# The end of a scenario: the bridges first (each unregisters from its
# simulator as it stops), then every other process it started.
scenario_cleanup() {
  trap '' INT TERM
  local pid others
  for pid in "${bridges[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${bridges[@]}"; do wait "$pid" 2>/dev/null || true; done
  [ -z "$broker_pid" ] || kill -CONT "$broker_pid" 2>/dev/null || true
  others=$(jobs -p)
  if [ -n "$others" ]; then
    # shellcheck disable=SC2086 # one process id a word
    kill -TERM $others 2>/dev/null || true
    wait 2>/dev/null || true
  fi
}

# --- 1. Duplicate ids ---------------------------------------------------------

# Two boxes with the same id and prefix for the window, one ping on P/cmd
# every 0.5 s; which box ran each is told by its simulator's log.
scenario_same_id() {
  local fault="two bridges with \`-i box1\` for $window s"
  if unmeasurable 1 "$fault" --health; then return; fi
  broker "allow_anonymous true" "set_tcp_nodelay true"
  subscribe status kdx/box1/status kdx/box1/reply
  box a --mac 02:00:00:00:00:0a
  box b --mac 02:00:00:00:00:0b
  start_bridge a -p kdx -i box1 --health 0 -v
  start_bridge b -p kdx -i box1 --health 0 -v
  wait_until 20 seen status kdx/box1/status '^online$'
  local start=$EPOCHREALTIME first_line
  first_line=$(broker_log_lines)
  local pings=$((window * 2)) i
  # The pace is the measurement's: one command every half second.
  for ((i = 0; i < pings; i++)); do
    echo ping
    sleep 0.5
  done | mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -l &
  wait "$!"
  local end=$EPOCHREALTIME
  local connections takeovers flips statuses replies
  connections=$(broker_connections "$first_line")
  takeovers=$(broker_takeovers "$first_line")
  statuses=$(live status kdx/box1/status "$start" "$end" | wc -l)
  flips=$(live status kdx/box1/status "$start" "$end" | changes)
  replies=$(live status kdx/box1/reply "$start" | grep -c PONG || true)
  row 1 "$fault" "$connections connections accepted, $takeovers session take-overs (broker's log); P/status \
changed $flips times ($statuses messages); of $pings pings, box a ran $(requests a 1) and box b $(requests b 1), \
$replies answers on P/reply; bridge a's most frequent lines (-v): $(frequent_lines "$dir/a/bridge.err" 3)"
}

# The same id under two prefixes for 15 s: collisions show as take-overs.
scenario_prefixes() {
  local fault="the same id under two prefixes (\`-p kdxa -i box1\`, \`-p kdxb -i box1\`), 15 s"
  broker "allow_anonymous true"
  subscribe status kdxa/box1/status kdxb/box1/status
  box a
  box b
  start_bridge a -p kdxa -i box1 --health 0
  start_bridge b -p kdxb -i box1 --health 0
  wait_until 20 seen status kdxa/box1/status '^online$'
  wait_until 20 seen status kdxb/box1/status '^online$'
  local start=$EPOCHREALTIME first_line
  first_line=$(broker_log_lines)
  # The length of the observation is the measurement's.
  sleep 15
  local takeovers
  takeovers=$(broker_takeovers "$first_line")
  row 1 "$fault" "$(broker_connections "$first_line") connections accepted, $takeovers session take-overs; \
status changes: kdxa $(live status kdxa/box1/status "$start" | changes), kdxb $(live status kdxb/box1/status \
"$start" | changes)"
}

# --- 2. A refused subscription ------------------------------------------------

# Mosquitto's dynamic-security plugin denies the subscription to P/cmd to
# everyone: its SUBACK then carries reason 0x87 (Not authorized). An ACL file
# (acl_file) cannot serve: Mosquitto 2.0 grants the subscription and only
# withholds the messages.
scenario_refused_subscription() {
  local fault="a broker that refuses the subscription to P/cmd (dynamic-security plugin), $window s"
  local plugin
  plugin=$(dpkg -L mosquitto | grep '/mosquitto_dynamic_security\.so$' | head -n 1 || true)
  if [ -z "$plugin" ]; then row 2 "$fault" "not measurable: no mosquitto_dynamic_security.so"; return; fi
  cat >"$dir/dynsec.json" <<'EOF'
{
  "defaultACLAccess": {"publishClientSend": true, "publishClientReceive": true, "subscribe": true, "unsubscribe": true},
  "clients": [],
  "groups": [{"groupname": "everyone", "roles": [{"rolename": "no-commands"}]}],
  "roles": [{"rolename": "no-commands",
             "acls": [{"acltype": "subscribePattern", "topic": "kdx/box1/cmd", "priority": 0, "allow": false}]}],
  "anonymousGroup": "everyone"
}
EOF
  broker "allow_anonymous true" "plugin $plugin" "plugin_opt_config_file $dir/dynsec.json"
  local suback
  suback=$(mosquitto_sub "${mqtt[@]}" -d -V mqttv5 -t kdx/box1/cmd -W 1 2>&1 |
    sed -n 's/^Subscribed (mid: [0-9]*): //p' || true)
  subscribe status kdx/box1/status
  box a
  local start=$EPOCHREALTIME
  start_bridge a -p kdx -i box1 --health 0 -v
  # The length of the observation is the measurement's.
  sleep "$window"
  local end=$EPOCHREALTIME
  local lines distinct
  lines=$(wc -l <"$dir/a/bridge.err")
  distinct=$(sed -e 's/[0-9][0-9]*/N/g' "$dir/a/bridge.err" | sort -u | wc -l)
  row 2 "$fault" "SUBACK to a test subscriber: reason $suback; $(broker_connections) connections accepted, \
$(live status kdx/box1/status "$start" "$end" | grep -c '^offline$' || true) \`offline\` on P/status, \
$lines lines on standard error with -v ($distinct distinct without numbers; the most frequent, counted: \
$(frequent_lines "$dir/a/bridge.err" 4))"
}

# two_boxes <subscriber> <topic...>: an open broker, a subscriber to the
# topics and to kdx/+/status, and the boxes box1 (a) and box2 (b); returns
# once both are online.
two_boxes() {
  local name=$1
  shift
  broker "allow_anonymous true" "set_tcp_nodelay true"
  subscribe "$name" "$@" 'kdx/+/status'
  box a
  box b
  start_bridge a -p kdx -i box1 --health 0
  start_bridge b -p kdx -i box2 --health 0
  wait_until 20 online "$name" box1 box2
}

# --- 3. One large command -----------------------------------------------------

# The broker takes what its defaults take (messages and packets up to
# 256 MB: no message_size_limit or max_packet_size is set). Each bridge's
# peak resident memory (VmHWM) is read before and after each publish, once
# a ping sent after it has been answered: the broker delivers one box's
# commands in order, so the large one has been dealt with (or never
# delivered) by then.
scenario_large_command() {
  local fault="one large command: peak memory (VmHWM) of the bridge"
  two_boxes replies 'kdx/+/reply'
  local a_pid=${bridges[0]} b_pid=${bridges[1]}
  head -c 10485760 /dev/zero | tr '\0' x >"$dir/10MB"
  head -c 104857600 /dev/zero | tr '\0' x >"$dir/100MB"
  # Each answers a ping first, so that a later ping is each box's second.
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/all/cmd -m ping
  wait_until 20 seen_count_above replies kdx/box2/reply PONG 0
  wait_until 20 seen_count_above replies kdx/box1/reply PONG 0
  local a0 a10 a100 b0 b100
  a0=$(vmhwm_kib "$a_pid")
  b0=$(vmhwm_kib "$b_pid")
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -f "$dir/10MB"
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -m ping
  wait_until 60 seen_count_above replies kdx/box1/reply PONG 1
  a10=$(vmhwm_kib "$a_pid")
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -f "$dir/100MB"
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -m ping
  wait_until 120 seen_count_above replies kdx/box1/reply PONG 2
  a100=$(vmhwm_kib "$a_pid")
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/all/cmd -f "$dir/100MB"
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/all/cmd -m ping
  wait_until 120 seen_count_above replies kdx/box2/reply PONG 1
  b100=$(vmhwm_kib "$b_pid")
  rm -f "$dir/10MB" "$dir/100MB"
  live replies kdx/box1/reply | grep -v PONG | head -n 1 >"$dir/large" || true
  row 3 "$fault" "box1: $(mib "$a0") at rest, $(mib "$a10") after 10 MB on P/cmd, $(mib "$a100") after 100 MB \
on P/cmd; box2: $(mib "$b0") at rest, $(mib "$b100") after 100 MB on PREFIX/all/cmd; box1's answer to the large \
ones: $(sample "$dir/large" 1)"
}

# --- 4. Response topics -------------------------------------------------------

# The README's access control: each box confined to kendrivex/<its user
# name>/, the operator everywhere, and a requester that may write box1's
# commands and read its replies only. The requester asks for the reply on
# box1's own topics; an operator's subscription shows what box1 published
# there.
scenario_acl_response() {
  local fault="README's ACL: a requester that may only write P/cmd asks for the reply on box1's P/status, \
P/service, P/event/7"
  if unmeasurable 4 "$fault" --username --password-file; then return; fi
  mosquitto_passwd -c -b "$dir/passwd" box1 box1-secret
  mosquitto_passwd -b "$dir/passwd" operator operator-secret
  mosquitto_passwd -b "$dir/passwd" requester requester-secret
  cat >"$dir/acl" <<'EOF'
pattern readwrite kendrivex/%u/#
pattern read kendrivex/all/cmd
user operator
topic readwrite kendrivex/#
topic readwrite measure/#
user requester
topic write kendrivex/box1/cmd
topic read kendrivex/box1/reply/#
EOF
  broker "allow_anonymous false" "password_file $dir/passwd" "acl_file $dir/acl" "set_tcp_nodelay true"
  login operator operator-secret
  subscribe operator kendrivex/box1/status kendrivex/box1/service 'kendrivex/box1/event/#' kendrivex/box1/reply
  box a
  printf 'box1-secret\n' >"$dir/box1.password"
  chmod 600 "$dir/box1.password"
  start_bridge a -i box1 --username box1 --password-file "$dir/box1.password" --health 0
  wait_until 20 seen operator kendrivex/box1/status '^online$'
  # The requester's own attempt, which the ACL must stop.
  mosquitto_pub -h 127.0.0.1 -p "$broker_port" -u requester -P requester-secret -V mqttv5 -q 1 \
    -t kendrivex/box1/status \
    -m forged-by-requester 2>/dev/null || true
  local target results=() answered
  for target in status service event/7; do
    answered=$(live operator kendrivex/box1/reply | wc -l)
    mosquitto_pub -h 127.0.0.1 -p "$broker_port" -u requester -P requester-secret -V mqttv5 -q 1 -t kendrivex/box1/cmd \
      -m ping -D publish response-topic "kendrivex/box1/$target"
    # The reply where asked, or an answer on P/reply (a refusal), within 5 s.
    wait_until 5 reply_or_refusal "kendrivex/box1/$target" "$answered" || true
    if live operator "kendrivex/box1/$target" | grep '"command"' >/dev/null; then
      results+=("$target: yes")
    elif [ "$(live operator kendrivex/box1/reply | wc -l)" -gt "$answered" ]; then
      results+=("$target: no, refused on P/reply")
    else
      results+=("$target: no (nothing within 5 s)")
    fi
  done
  live operator kendrivex/box1/reply | head -n 1 >"$dir/refusal"
  local forged="stopped by the ACL"
  if live operator kendrivex/box1/status | grep forged-by-requester >/dev/null; then forged="NOT stopped: the ACL is wrong"; fi
  local joined
  joined=$(printf '%s; ' "${results[@]}")
  row 4 "$fault" "box1 published the reply there: ${joined%; }; \
the requester's own publish on P/status: $forged; first answer on P/reply: $(sample "$dir/refusal" 1)"
}

reply_or_refusal() {
  live operator "$1" | grep '"command"' >/dev/null || [ "$(live operator kendrivex/box1/reply | wc -l)" -gt "$2" ]
}

# On an open broker: box1 asked to reply on box2's command topic.
scenario_relay() {
  local fault="open broker: a request to box1 whose response topic is \`kdx/box2/cmd\`"
  two_boxes relay kdx/box2/cmd kdx/box2/reply kdx/box1/reply
  local start=$EPOCHREALTIME
  mosquitto_pub "${mqtt[@]}" -V mqttv5 -q 1 -t kdx/box1/cmd -m ping -D publish response-topic kdx/box2/cmd
  # box2's answer to what box1 sent it, or box1's refusal, within 5 s.
  wait_until 5 relay_answered "$start" || true
  live relay kdx/box2/cmd "$start" | head -n 1 >"$dir/sent"
  live relay kdx/box2/reply "$start" | head -n 1 >"$dir/box2"
  live relay kdx/box1/reply "$start" | head -n 1 >"$dir/box1"
  local verdict="no"
  [ -s "$dir/box2" ] && verdict="yes"
  row 4 "$fault" "box2 answered box1's reply as a command of its own: $verdict; on kdx/box2/cmd: $(sample "$dir/sent" 1); \
box2's answer: $(sample "$dir/box2" 1); box1's answer on its P/reply: $(sample "$dir/box1" 1)"
}

relay_answered() { [ "$(live relay kdx/box2/reply "$1" | wc -l)" -gt 0 ] || [ "$(live relay kdx/box1/reply "$1" | wc -l)" -gt 0 ]; }

# On an open broker with two boxes: one request on all/cmd whose response
# topic is all/cmd; every message below the prefix in the 5 s after it.
scenario_amplification() {
  local fault="open broker, two boxes: one request on \`kdx/all/cmd\` with response topic \`kdx/all/cmd\`"
  two_boxes all 'kdx/#'
  local start=$EPOCHREALTIME
  mosquitto_pub "${mqtt[@]}" -V mqttv5 -q 1 -t kdx/all/cmd -m ping -D publish response-topic kdx/all/cmd
  # Counting stops after a set time, so that a loop cannot run on.
  sleep 5
  local end=$EPOCHREALTIME
  local on_all on_reply total
  on_all=$(live all kdx/all/cmd "$start" "$end" | wc -l)
  on_reply=$(awk -v from="$start" -v to="$end" '$2 == 0 && $3 ~ /^kdx\/box[0-9]+\/reply$/ && $1 >= from && $1 < to' \
    "$dir/all.sub" | wc -l)
  total=$(awk -v from="$start" -v to="$end" '$2 == 0 && $3 ~ /^kdx\// && $1 >= from && $1 < to' "$dir/all.sub" | wc -l)
  row 4 "$fault" "$total messages below \`kdx/\` in 5 s: $on_all on \`kdx/all/cmd\` (the request included), \
$on_reply on the boxes' P/reply"
}

# `--allow send`: commands 4 (register) and 5 (unregister) for a path where
# nothing receives; the simulator's log says whether they reached it.
scenario_allow_send() {
  local fault="\`--allow send\`: \`send 4 PATH\` and \`send 5 PATH\` from the broker"
  if unmeasurable 4 "$fault" --allow; then return; fi
  broker "allow_anonymous true" "set_tcp_nodelay true"
  subscribe replies kdx/box1/reply kdx/box1/status
  box a
  start_bridge a -p kdx -i box1 --health 0 --allow send
  wait_until 20 online_or_ended "$bridge_pid" || true
  if ended "$bridge_pid"; then
    row 4 "$fault" "the bridge did not run: $(sample "$dir/a/bridge.err" 1)"
    return
  fi
  local before4 before5
  before4=$(requests a 4)
  before5=$(requests a 5)
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -m "send 4 $dir/nowhere"
  mosquitto_pub "${mqtt[@]}" -q 1 -t kdx/box1/cmd -m "send 5 $dir/nowhere"
  wait_until 20 seen_count_above replies kdx/box1/reply . 1 || true
  live replies kdx/box1/reply >"$dir/answers"
  row 4 "$fault" "requests 4 that reached the service: $(($(requests a 4) - before4)), requests 5: \
$(($(requests a 5) - before5)); answers: $(sample "$dir/answers" 2)"
}

online_or_ended() { online replies box1 || ended "$1"; }

# --- 5. The password file -----------------------------------------------------

# A broker that wants box1's password; the measurement's clients log in as
# a user of their own.
password_broker() {
  mosquitto_passwd -c -b "$dir/passwd" box1 box1-secret
  mosquitto_passwd -b "$dir/passwd" measure measure-secret
  broker "allow_anonymous false" "password_file $dir/passwd"
  login measure measure-secret
}

# password_case <name> <password file> <fault>: runs the bridge with the
# file for 5 s (without -v, as an operator would); exit status, standard
# error and the broker's refusals.
password_case() {
  local name=$1 file=$2 fault=$3
  if unmeasurable 5 "$fault" --password-file; then return; fi
  password_broker
  local start=$EPOCHREALTIME status="still running after 5 s"
  start_bridge "$name" -p kdx -i box1 --username box1 --password-file "$file" --health 0
  if wait_until 5 ended "$bridge_pid" 2>/dev/null; then
    local code=0
    wait "$bridge_pid" || code=$?
    status="exit status $code after $(since "$start") s"
  fi
  row 5 "$fault" "$status; $(broker_log_count 'not authorised') connections refused as not authorised; standard \
error: $(sample "$dir/$name/bridge.err" 2)"
}

scenario_password_empty() {
  : >"$dir/empty.password"
  chmod 600 "$dir/empty.password"
  password_case empty "$dir/empty.password" "password file empty"
}

scenario_password_directory() {
  mkdir -p "$dir/passdir"
  password_case directory "$dir/passdir" "password file a directory"
}

# normalised_lines <file>: its lines with numbers, the broker's address and
# the scenario's directory replaced, sorted and unique, for a comparison of
# two runs.
normalised_lines() {
  sed -e "s|$dir|DIR|g" -e 's/mqtt:\/\/[^ :]*:/mqtt:\/\/HOST:/g' -e 's/[0-9][0-9]*/N/g' "$1" | sort -u
}

# verbose_run <output> <seconds> [options...]: the bridge of box "box" (no
# service there) with -v for a set time, then stopped; its standard error in
# $dir/<output>. Two runs that differ only in what is measured print the
# same paths.
verbose_run() {
  local output=$1 seconds=$2
  shift 2
  rm -f "$dir/box/bridge.err"
  start_bridge box -p kdx -i box1 --health 0 -v "$@"
  local pid=$bridge_pid
  # The length of the observation is the measurement's.
  sleep "$seconds"
  kill -TERM "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  mv "$dir/box/bridge.err" "$dir/$output"
}

# The right password in a file readable by everyone, against the same file
# with mode 0600: what the first run prints (-v, 3 s) that the second does
# not.
scenario_password_readable() {
  local fault="password file readable by others (mode 0644)"
  if unmeasurable 5 "$fault" --password-file; then return; fi
  password_broker
  subscribe status kdx/box1/status
  printf 'box1-secret\n' >"$dir/password"
  chmod 600 "$dir/password"
  verbose_run private.err 3 --username box1 --password-file "$dir/password"
  chmod 644 "$dir/password"
  verbose_run public.err 3 --username box1 --password-file "$dir/password"
  comm -13 <(normalised_lines "$dir/private.err") <(normalised_lines "$dir/public.err") >"$dir/only"
  local online
  online=$(live status kdx/box1/status | grep -c '^online$' || true)
  row 5 "$fault" "came online $online times in the two runs; lines printed (-v, 3 s) only with mode 0644: \
$(sample "$dir/only" 3)"
}

# The first sign of a bridge reading an endless password file: a line on
# standard error, a connection to the broker, or its end.
zero_sign() { [ -s "$dir/zero.err" ] || [ "$(broker_log_count 'New connection from')" -gt 0 ] || ended "$1"; }

# /dev/zero as the password file, under a limit of 1 GiB of address space
# (and 20 s) so that the machine is not harmed; GNU time reports the peak
# resident memory of the bridge, whether it ends by itself or is stopped.
scenario_password_zero() {
  local fault="password file \`/dev/zero\` (address space limited to 1 GiB)"
  if unmeasurable 5 "$fault" --password-file; then return; fi
  password_broker
  mkdir -p "$dir/zero"
  local start=$EPOCHREALTIME
  (
    ulimit -v 1048576
    exec /usr/bin/time -o "$dir/zero.time" -f '%M %e %x' timeout -s KILL 20 "$bridge" \
      -b "mqtt://127.0.0.1:$broker_port" -s "$dir/zero/svc" -d "$dir/zero" -p kdx -i box1 --health 0 -v \
      --username box1 --password-file /dev/zero
  ) >/dev/null 2>"$dir/zero.err" &
  local pid=$!
  wait_until 25 zero_sign "$pid" || true
  local first
  first=$(since "$start")
  local what="its end"
  if [ -s "$dir/zero.err" ]; then
    what="a line on standard error"
  elif [ "$(broker_log_count 'New connection from')" -gt 0 ]; then
    what="a connection to the broker"
  fi
  # A bridge that goes on running is stopped through timeout, which passes
  # the signal on and lets GNU time report.
  local timeout_pid
  timeout_pid=$(pgrep -P "$pid" || true)
  [ -z "$timeout_pid" ] || kill -TERM "$timeout_pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  local peak seconds code
  read -r peak seconds code < <(tail -n 1 "$dir/zero.time")
  grep -v '^Command ' "$dir/zero.err" >"$dir/zero.lines" || true
  row 5 "$fault" "first sign after $first s: $what; ended after $seconds s with status $code (the stop after the \
first sign included); peak resident memory $(mib "$peak"); standard error: $(sample "$dir/zero.lines" 2)"
}

# A password over plain mqtt:// to a non-loopback address of this machine
# (a port where nothing listens, so nothing leaves it), against the same to
# 127.0.0.1: what the first run prints (-v, 3 s) that the second does not.
scenario_password_plain() {
  local fault="password over plain \`mqtt://\` to a non-loopback host"
  if unmeasurable 5 "$fault" --password-file; then return; fi
  local address
  address=$(hostname -I 2>/dev/null | tr ' ' '\n' | grep -v -e '^127\.' -e ':' -e '^$' | head -n 1 || true)
  if [ -z "$address" ]; then row 5 "$fault" "not measurable: this machine has no non-loopback IPv4 address"; return; fi
  printf 'secret\n' >"$dir/password"
  chmod 600 "$dir/password"
  local port
  port=$(free_port)
  verbose_run loopback.err 3 -b "mqtt://127.0.0.1:$port" --username box1 --password-file "$dir/password"
  verbose_run remote.err 3 -b "mqtt://$address:$port" --username box1 --password-file "$dir/password"
  comm -13 <(normalised_lines "$dir/loopback.err") <(normalised_lines "$dir/remote.err") >"$dir/only"
  row 5 "$fault" "lines printed (-v, 3 s) only for \`mqtt://$address\`, not for \`mqtt://127.0.0.1\`: \
$(sample "$dir/only" 3)"
}

# --- 6. Other defects ---------------------------------------------------------

# The service killed (SIGKILL) and started again on the same socket path 20
# times. After each restart (the new simulator has bound its socket, which
# its log says: the file of the killed one is still there until then) and
# once P/service has said "up" again, 3 s more are watched; the
# messages on P/service between one kill and the next make one restart's
# sequence.
scenario_restart() {
  local fault="service restarted by SIGKILL, 20 times: P/service per restart"
  broker "allow_anonymous true" "set_tcp_nodelay true"
  subscribe service kdx/box1/service
  box a
  start_bridge a -p kdx -i box1
  wait_until 20 seen service kdx/box1/service '^up$'
  local kills=() i served
  for ((i = 0; i < 20; i++)); do
    served=$(serving a)
    kills+=("$EPOCHREALTIME")
    kill -KILL "$sim_pid"
    wait "$sim_pid" 2>/dev/null || true
    box a
    wait_until 10 serving_more a "$served"
    wait_until 10 up_since "${kills[-1]}" || true
    # The repeated down/up came 0.3 to 0.6 s after the first: 3 s covers it.
    sleep 3
  done
  kills+=("$EPOCHREALTIME")
  local sequences=()
  for ((i = 0; i < 20; i++)); do
    sequences+=("$(live service kdx/box1/service "${kills[i]}" "${kills[i + 1]}" | paste -sd ' ')")
  done
  local tally
  tally=$(printf '%s\n' "${sequences[@]}" | sed 's/^$/(nothing)/' | sort | uniq -c | sort -rn |
    awk '{ n = $1; $1 = ""; printf "%s%s: %d", sep, substr($0, 2), n; sep = "; " }')
  row 6 "$fault" "$tally"
}

# How often the simulator of box <name> has started serving.
serving() { grep -c '^serving on ' "$dir/$1/sim.log" || true; }
serving_more() { [ "$(serving "$1")" -gt "$2" ]; }
up_since() { live service kdx/box1/service "$1" | grep '^up$' >/dev/null; }

# The broker stopped (SIGSTOP) until the bridge gives it up: the keep-alive
# (30 s) expires after at most about a minute. The bridge runs with -v and
# has nothing else to say meanwhile (no events, no health pings), so its
# first new lines are about the loss.
scenario_keepalive() {
  local fault="a broker that stops answering (SIGSTOP) until the keep-alive expires"
  broker "allow_anonymous true"
  subscribe status kdx/box1/status
  box a
  start_bridge a -p kdx -i box1 --health 0 -v
  wait_until 20 seen status kdx/box1/status '^online$'
  # What it prints on coming online must be over before the lines are
  # counted: no new byte for a second.
  wait_until 20 settled "$dir/a/bridge.err"
  local before start
  before=$(wc -l <"$dir/a/bridge.err")
  kill -STOP "$broker_pid"
  start=$EPOCHREALTIME
  if ! wait_until 150 more_lines "$dir/a/bridge.err" "$before"; then
    row 6 "$fault" "nothing printed (-v) within 150 s"
    return
  fi
  local after
  after=$(since "$start")
  tail -n "+$((before + 1))" "$dir/a/bridge.err" >"$dir/new"
  row 6 "$fault" "first line (-v) after $after s: $(sample "$dir/new" 2)"
}

more_lines() { [ "$(wc -l <"$1")" -gt "$2" ]; }

# settled <file>: true once the file's size has stayed the same through 20
# checks in a row (a second, at wait_until's pace).
settled_size=-1
settled_checks=0
settled() {
  local size
  size=$(wc -c <"$1")
  if [ "$size" = "$settled_size" ]; then
    settled_checks=$((settled_checks + 1))
  else
    settled_size=$size
    settled_checks=0
  fi
  [ "$settled_checks" -ge 20 ]
}

# --- 7. What an operator sees -------------------------------------------------

# terminal_run <seconds> [options...]: the bridge on a pseudo-terminal
# (script(1)), with no broker (a port where nothing listens) and no service,
# its standard output discarded; what reaches the terminal in that time is
# its standard error. Output in $dir/terminal.out.
terminal_run() {
  local seconds=$1
  shift
  mkdir -p "$dir/box"
  local command
  command=$(printf '%q ' "$bridge" -b "mqtt://127.0.0.1:$(free_port)" -s "$dir/box/svc" -d "$dir/box" -i box1 "$@")
  timeout "$seconds" script -q -c "$command >/dev/null" /dev/null </dev/null 2>/dev/null | tr -d '\r' \
    >"$dir/terminal.out" || true
}

scenario_terminal() {
  local fault="run by hand in a terminal, no broker and no service: standard error in 5 s"
  terminal_run 5
  row 7 "$fault" "$(grep -c . "$dir/terminal.out" || true) lines: $(sample "$dir/terminal.out" 3)"
}

scenario_terminal_verbose() {
  local fault="the same with \`-v\`: a sample of its lines"
  terminal_run 5 -v
  row 7 "$fault" "$(grep -c . "$dir/terminal.out" || true) lines, the first: $(sample "$dir/terminal.out" 6)"
}

scenario_event_box() {
  local fault="events carry \`\"box\"\`"
  broker "allow_anonymous true"
  subscribe events 'kdx/box1/event/#'
  box a --event-interval 200 --event-id 7 --event-text "link up"
  start_bridge a -p kdx -i box1 --health 0
  if ! wait_until 20 seen events kdx/box1/event/7 .; then
    row 7 "$fault" "no event within 20 s"
    return
  fi
  live events kdx/box1/event/7 | head -n 1 >"$dir/event"
  local verdict=no
  if jq -e 'has("box")' "$dir/event" >/dev/null 2>&1; then verdict=yes; fi
  row 7 "$fault" "$verdict: $(sample "$dir/event" 1)"
}

# --- The run ------------------------------------------------------------------

all_scenarios=(same_id prefixes refused_subscription large_command acl_response relay amplification allow_send
  password_empty password_directory password_readable password_zero password_plain restart keepalive terminal
  terminal_verbose event_box)
read -r -a scenarios <<<"${KDX_FAULTS:-${all_scenarios[*]}}"

echo "Fault rows of $bridge ($("$bridge" --version 2>/dev/null | head -n 1 || echo "version unknown")), \
$(date -u +%Y-%m-%dT%H:%MZ), load average $(cut -d' ' -f1-3 /proc/loadavg) at the start."
echo
echo "| item | scenario | measured |"
echo "|---|---|---|"
for name in "${scenarios[@]}"; do
  if ! declare -F "scenario_$name" >/dev/null; then
    log "no scenario $name (known: ${all_scenarios[*]})"
    exit 2
  fi
  log "$name (load $(cut -d' ' -f1-3 /proc/loadavg))"
  dir="$tmp/$name"
  mkdir -p "$dir"
  # A subshell per scenario: its processes, its globals and its clean-up are
  # its own, and a scenario that fails leaves a row saying so.
  set +e
  (
    set -e
    trap scenario_cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    "scenario_$name"
  ) >"$dir/row"
  status=$?
  set -e
  if [ "$status" -eq 0 ] && [ -s "$dir/row" ]; then
    cat "$dir/row"
  else
    row - "$name" "not measured: the scenario failed (status $status)"
    if [ -n "${KDX_KEEP_FAILED:-}" ]; then
      mkdir -p "$KDX_KEEP_FAILED"
      cp -r "$dir" "$KDX_KEEP_FAILED/"
    fi
  fi
done
