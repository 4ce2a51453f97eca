#!/usr/bin/env bash
# Static analysis of the project's code: clang-tidy with the checked-in
# .clang-tidy, then cppcheck, both from the compile database of the release
# preset (configured here in build/lint, never built). Prints every finding
# and a summary (findings per tool, time taken) and fails on any finding. A
# finding is fixed, or suppressed where it stands with a one-line reason (see
# CONVENTIONS.md). Usage: scripts/lint.sh [FILE...] analyses only the given
# sources (paths relative to the top of the tree) instead of all of them.
#
# A source that clang-tidy found clean is remembered outside the clone, by a
# key of everything the analysis depends on (scripts/lib/tidy_keys.py: its
# preprocessed text with the comments, its compile command, the tool's
# version and .clang-tidy), in KDX_TIDY_CACHE (default
# ~/.cache/kendrivex-tidy, beside ccache's cache), and is not analysed again
# until one of these changes. Any clone shares the cache.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)

scripts/deps.sh clang-tidy-14 cppcheck

# What is analysed: clang-tidy takes the libraries, the program, the tools
# (the simulator, kendrivex-ctl, the demo, the C example program), the fuzz
# targets and the benchmarks; cppcheck, which is quick, takes the tests too.
# clang-tidy over the tests would take longer than CI allows (see README).
tidy_folders=(cli ipc util app tools fuzz bench)
cppcheck_folders=("${tidy_folders[@]}" tests)

# The test sources are in the database one by one, as written: this tree
# has neither the unity builds of the tests nor their precompiled header.
lint_build=build/lint
cmake --preset release -B "$lint_build" -DKDX_UNITY_TESTS=OFF -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON >/dev/null
database=$lint_build/compile_commands.json

# The sources of the compile database in the given folders, one a line.
sources_in() {
  local pattern
  pattern=$(IFS='|'; echo "$*")
  sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$database" | grep -E "^$top/($pattern)/" | sort -u
}

# The ones named on the command line instead, if any.
if [ $# -gt 0 ]; then
  tidy_sources=()
  for file in "$@"; do tidy_sources+=("$top/${file#./}"); done
  cppcheck_sources=("${tidy_sources[@]}")
else
  mapfile -t tidy_sources < <(sources_in "${tidy_folders[@]}")
  mapfile -t cppcheck_sources < <(sources_in "${cppcheck_folders[@]}")
fi
[ ${#tidy_sources[@]} -gt 0 ] || { echo "lint: no sources to analyse" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/kdx-lint.XXXXXX")
trap 'rm -rf "$work"' EXIT
jobs=$(nproc)

# clang-tidy, one process per source on every core, for the sources not
# known to be clean. A finding in a header shows once for each source that
# includes it; the summary counts it once.
finding_pattern='^[^ ]+:[0-9]+:[0-9]+: (warning|error): .*\[[a-z].*\]$'
failure_pattern='^(Error while processing|Found compiler error|PLEASE submit a bug report)'
start=$(date +%s)
tidy_cache="${KDX_TIDY_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kendrivex-tidy}"
mkdir -p "$tidy_cache"
tidy_config="$(clang-tidy-14 --version) $(c++ --version | head -n 1) $(sha256sum <.clang-tidy)"
printf '%s\n' "${tidy_sources[@]}" | scripts/lib/tidy_keys.py "$tidy_config" "$top" "$database" "$jobs" >"$work/keys"
tidy_cached=0
: >"$work/todo"
while read -r key source; do
  if [ "$key" != - ] && [ -e "$tidy_cache/$key" ]; then
    touch "$tidy_cache/$key"
    tidy_cached=$((tidy_cached + 1))
  else
    echo "$source" >>"$work/todo"
  fi
done <"$work/keys"
xargs -P "$jobs" -I{} sh -c 'clang-tidy-14 -p "$3" --quiet "$1" >"$2/$(echo "$1" | tr / _).tidy" 2>&1 || true' \
  _ {} "$work" "$lint_build" <"$work/todo"
while read -r key source; do
  output="$work/$(echo "$source" | tr / _).tidy"
  if [ "$key" != - ] && [ -e "$output" ] && ! grep -Eq "$finding_pattern|$failure_pattern" "$output"; then
    touch "$tidy_cache/$key"
  fi
done <"$work/keys"
# Keys not met for 30 days belong to sources long changed.
find "$tidy_cache" -type f -mtime +30 -delete
cat "$work"/*.tidy >"$work/tidy.log" 2>/dev/null || : >"$work/tidy.log"
grep -E "$finding_pattern" "$work/tidy.log" |
  sed -e 's/,-warnings-as-errors\]$/]/' -e 's/: error: /: warning: /' | sort -u >"$work/tidy.findings" || true
tidy_count=$(wc -l <"$work/tidy.findings")
tidy_time=$(( $(date +%s) - start ))
# Each finding with the code it points at, once.
if [ "$tidy_count" -gt 0 ]; then
  while IFS= read -r finding; do
    location=${finding%%: warning: *}
    grep -F -m1 -A2 -- "$location: " "$work/tidy.log" | sed 's/,-warnings-as-errors\]$/]/'
  done <"$work/tidy.findings"
fi
# A source that clang-tidy could not analyse (a compiler error, a crash) is
# a failure too.
tidy_errors=$(grep -cE "$failure_pattern" "$work/tidy.log" || true)
if [ "$tidy_errors" -gt 0 ]; then
  grep -E -B5 "$failure_pattern" "$work/tidy.log"
fi

# cppcheck, with the include paths and definitions of the compile database;
# its GoogleTest library file makes the test macros known to it.
start=$(date +%s)
filters=()
for file in "${cppcheck_sources[@]}"; do filters+=("--file-filter=${file#"$top"/}"); done
cppcheck_status=0
cppcheck --project="$database" "${filters[@]}" --enable=warning,performance,portability --inline-suppr --library=googletest \
  --error-exitcode=1 --std=c++17 --quiet -j "$jobs" \
  --template='{file}:{line}:{column}: {severity}: {message} [{id}]\n{code}' 2>"$work/cppcheck.log" ||
  cppcheck_status=$?
cat "$work/cppcheck.log"
cppcheck_count=$(grep -cE '^[^ ]+:[0-9]+:[0-9]+: [a-z]+: .*\[[A-Za-z0-9_]+\]$' "$work/cppcheck.log" || true)
if [ "$cppcheck_status" -ne 0 ] && [ "$cppcheck_count" -eq 0 ]; then cppcheck_count=1; fi
cppcheck_time=$(( $(date +%s) - start ))

echo "lint: clang-tidy: $tidy_count findings in ${#tidy_sources[@]} sources, $tidy_cached of them clean before" \
  "and unchanged ($tidy_time s);" \
  "cppcheck: $cppcheck_count findings in ${#cppcheck_sources[@]} sources ($cppcheck_time s)"
if [ "$tidy_count" -gt 0 ] || [ "$tidy_errors" -gt 0 ] || [ "$cppcheck_count" -gt 0 ]; then
  echo "lint: fix each finding, or suppress it where it stands with a one-line reason (CONVENTIONS.md)" >&2
  exit 1
fi
