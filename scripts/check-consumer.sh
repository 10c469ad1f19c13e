#!/usr/bin/env bash
# Installs a configured build tree into a scratch prefix and builds and runs
# the outside project under tests/consumer against it.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/ci}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
cmake -S tests/consumer -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/consumer"
