#!/usr/bin/env bash
# Line and branch coverage of cli/, ipc/, util/, app/ and tools/ by the whole
# test suite: builds the coverage preset (GCC, -O0, gcov counters), runs every test
# once, and reports with gcovr. Prints a Markdown table per folder and in
# total, writes an HTML report to build/coverage/report/index.html, and fails
# when a test fails or the total is below 95 % of lines or 85 % of branches.
# Usage: scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/coverage
min_lines=95
min_branches=85

scripts/deps.sh coverage
cmake --preset coverage >/dev/null
start=$(date +%s)
cmake --build --preset coverage
echo "build (coverage) took $(( $(date +%s) - start )) s"

# Counters of earlier runs would add to this one's.
find "$build" -name '*.gcda' -delete
ulimit -c 0
jobs=$(( $(nproc) * 2 ))
start=$(date +%s)
tests=0
ctest --preset coverage -j "$jobs" || tests=$?
echo "tests (coverage) took $(( $(date +%s) - start )) s"

# Only the shipped code counts: the product's folders and the tools (the
# simulator, kendrivex-ctl and its client core, which the packages ship too,
# and the C example program); tests, fuzz targets, benchmarks, GoogleTest and
# the interface demo (a driver for trying the interface by hand, which is not
# installed) are outside these filters. Branches that the compiler adds for
# exceptions (every call that may throw) and branches it proves unreachable
# are left out; they are not decisions of the code.
report="$build/report"
rm -rf "$report"
mkdir -p "$report"
start=$(date +%s)
gate=0
gcovr --root . --object-directory "$build" -j "$(nproc)" \
  --filter 'cli/' --filter 'ipc/' --filter 'util/' --filter 'app/' --filter 'tools/' --exclude 'tools/cli_demo/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --json-summary "$report/summary.json" --html-details "$report/index.html" --print-summary \
  --fail-under-line "$min_lines" --fail-under-branch "$min_branches" || gate=$?
echo "report (coverage) took $(( $(date +%s) - start )) s"

python3 - "$report/summary.json" <<'PY'
import json
import sys

# A row per folder, and for tools/ a row per program beneath it.
folders = ["cli", "ipc", "util", "app", "tools"]
sums = {}
for entry in json.load(open(sys.argv[1]))["files"]:
    parts = entry["filename"].split("/")
    names = [parts[0], "total"]
    if parts[0] == "tools" and len(parts) > 2:
        names.append("tools/" + parts[1])
    for name in names:
        row = sums.setdefault(name, [0, 0, 0, 0])
        row[0] += entry["line_covered"]
        row[1] += entry["line_total"]
        row[2] += entry["branch_covered"]
        row[3] += entry["branch_total"]


def cell(covered, total):
    percent = 100.0 * covered / total if total else 100.0
    return f"{percent:.1f} % ({covered} / {total})"


rows = []
for name in folders:
    rows.append(name)
    if name == "tools":
        rows += sorted(key for key in sums if key.startswith("tools/"))
rows.append("total")
print("| folder | lines | branches |")
print("|---|---:|---:|")
for name in rows:
    lines_covered, lines_total, branches_covered, branches_total = sums.get(name, [0, 0, 0, 0])
    label = "**total**" if name == "total" else f"`{name}/`"
    print(f"| {label} | {cell(lines_covered, lines_total)} | {cell(branches_covered, branches_total)} |")
PY
echo "HTML report: $report/index.html"

if [ "$tests" -ne 0 ]; then
  echo "coverage: tests failed" >&2
  exit 1
fi
if [ "$gate" -ne 0 ]; then
  echo "coverage: below $min_lines % of lines or $min_branches % of branches" >&2
  exit 1
fi
