#!/usr/bin/env bash
# Installs what the benchmarks need, builds them optimised and runs them.
# Every argument goes to the benchmark program, e.g.
#   scripts/bench.sh --benchmark_filter=Redis
# The Redis comparison starts its own private server on a Unix socket; this
# script never starts Redis as a system service.
set -euo pipefail
cd "$(dirname "$0")/.."
# Besides what the build needs: the peer of the state-table comparison (the
# server binary and its C client) and the hash table's peers in the
# collection comparison (Boost's and Abseil's hash maps). The comparison
# starts its own Redis; installing it starts no system service.
scripts/setup.sh redis-server libhiredis-dev pkg-config libboost1.81-dev libabsl-dev

cmake --preset release
# RSVP_BENCH_JOBS, when set, bounds the build jobs (the preset uses two).
cmake --build --preset release --target rsvp_bench ${RSVP_BENCH_JOBS:+--parallel "$RSVP_BENCH_JOBS"}
exec build/release/bench/rsvp_bench "$@"
