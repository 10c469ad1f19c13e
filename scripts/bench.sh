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

# A router's agent keeps hundreds of megabytes of state on its heap, and a
# walk over it misses the TLB on every entity on small pages. The
# benchmarks run with glibc's heap on transparent huge pages, as we advise
# for the agent (docs/ARCHITECTURE.md); the kernel must allow them on
# request ("madvise" or "always"). RSVP_BENCH_HUGEPAGES=0 runs them on small
# pages. Each benchmark's context says which it had.
if [ "${RSVP_BENCH_HUGEPAGES:-1}" != 0 ]; then
  export GLIBC_TUNABLES="${GLIBC_TUNABLES:+$GLIBC_TUNABLES:}glibc.malloc.hugetlb=1"
fi

cmake --preset release
# RSVP_BENCH_JOBS, when set, bounds the build jobs (the preset uses two).
cmake --build --preset release --target rsvp_bench ${RSVP_BENCH_JOBS:+--parallel "$RSVP_BENCH_JOBS"}
exec build/release/bench/rsvp_bench "$@"
