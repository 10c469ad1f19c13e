#!/usr/bin/env bash
# Sets up what is missing, builds the demonstration program and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release
cmake --build --preset release --target rsvp_demo
build/release/examples/rsvp_demo "$@"
