#!/usr/bin/env bash
# Sets up what is missing, builds the demonstration program and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release
cmake --build --preset release --target rsvp_demo rsvp_walkthrough
# A tour of values, entities and the log, then the agent walk-through
# (arguments go to the walk-through: --lsps N, --rounds R, --quiet).
build/release/examples/rsvp_demo
build/release/examples/rsvp_walkthrough "$@"
