#!/usr/bin/env bash
# Builds the benchmarks (release) and runs them: the bus, then a connection
# event's and an advertiser event's cost in the client, a peer's GATT value
# write or read to its answer, a walk of a GATT database, then the time to
# `enabled`. Arguments go to each benchmark: --quick makes a short smoke run.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tavrin_bench_bus tavrin_bench_conn_event \
    tavrin_bench_adv_event tavrin_bench_gatt_value tavrin_bench_gatt_sync tavrin_bench_enable
build/release/bench/tavrin_bench_bus "$@"
build/release/bench/tavrin_bench_conn_event "$@"
build/release/bench/tavrin_bench_adv_event "$@"
build/release/bench/tavrin_bench_gatt_value "$@"
build/release/bench/tavrin_bench_gatt_sync "$@"
build/release/bench/tavrin_bench_enable "$@"
