#!/usr/bin/env bash
# Builds the bus benchmark (release) and runs it. Arguments go to the
# benchmark: --quick makes a short smoke run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tavrin_bench_bus
build/release/bench/tavrin_bench_bus "$@"
