#!/usr/bin/env bash
# Builds tavrin with warnings as errors and runs every test: the unit tests,
# the header and export checks, and a project that consumes the installed
# package through CMake and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
jobs=$(nproc)

cmake --preset dev >/dev/null
cmake --build --preset dev -j "$jobs"
ctest --preset dev -j "$jobs"

# Install into a scratch prefix and build a consumer against it.
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install build/dev --prefix "$prefix/usr" >/dev/null
cmake -S tests/consumer -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix/usr" >/dev/null
cmake --build "$prefix/consumer"
"$prefix/consumer/consumer_cmake"
export PKG_CONFIG_PATH="$prefix/usr/lib/pkgconfig:$prefix/usr/lib/x86_64-linux-gnu/pkgconfig"
# shellcheck disable=SC2046
g++ tests/consumer/consumer.cpp -o "$prefix/consumer_pkgconfig" $(pkg-config --cflags --libs tavrin) \
    -Wl,-rpath,"$(pkg-config --variable=libdir tavrin)"
"$prefix/consumer_pkgconfig"
