#!/usr/bin/env bash
# Builds tavrin (release) and runs `tavrin demo`: a client against a simulated
# controller in the same process, step by step. Extra arguments go to the
# demo (for example --interface NAME, or --ctrl ADDR:PORT for a controller
# started with `tavrin sim`).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tavrin_command
build/release/cli/tavrin demo "$@"
