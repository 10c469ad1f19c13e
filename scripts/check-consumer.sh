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

# The Python module, where the build made one: imported from where it was
# installed, it lists the state paths that are up of a tree it builds.
module_dir=$(sed -n 's/^RSVP_PYTHON_INSTALL_DIR:STRING=//p' "$build/CMakeCache.txt")
if grep -q '^RSVP_BUILD_PYTHON:BOOL=ON' "$build/CMakeCache.txt" && [ -n "$module_dir" ]; then
  PYTHONPATH="$scratch/prefix/$module_dir" /usr/bin/python3 python/examples/paths_up.py --demo
fi
