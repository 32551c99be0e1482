#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing and running tavrin
# need. Runs apt-get only when something is missing.
set -euo pipefail

packages=(
    cmake ninja-build g++ clang clang-format pkg-config binutils
    nlohmann-json3-dev libgtest-dev libgmock-dev libbenchmark-dev
    libasio-dev libcli11-dev libclang-rt-14-dev
)

missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
