#!/usr/bin/env bash
# Builds the project and starts the interactive command-line driver.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target kendrivex-cli-demo
exec build/release/tools/cli_demo/kendrivex-cli-demo "$@"
