#!/usr/bin/env bash
# Sets up what is missing, builds the library with warnings as errors and runs
# every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset ci
cmake --build --preset ci
ctest --preset ci
