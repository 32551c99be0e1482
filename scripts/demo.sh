#!/usr/bin/env bash
# Builds tavrin (release) and runs the demo program.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target hello_tavrin
build/release/examples/hello_tavrin
