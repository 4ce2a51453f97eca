#!/usr/bin/env bash
# Formats every C and C++ source of the project with the checked-in
# .clang-format. With --check, changes nothing and fails (listing what
# differs) when a file is not formatted; CI runs it that way.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh clang-format

mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
  if ! clang-format --dry-run -Werror "${files[@]}"; then
    echo "format: the files above are not formatted; run scripts/format.sh and commit the result" >&2
    exit 1
  fi
  echo "format: ${#files[@]} files formatted"
else
  clang-format -i "${files[@]}"
fi
