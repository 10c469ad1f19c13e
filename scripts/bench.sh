#!/usr/bin/env bash
# Installs what the benchmarks need, builds them optimised and runs them.
# Every argument goes to the benchmark program, e.g.
#   scripts/bench.sh --benchmark_filter=Redis
# The Redis comparison starts its own private server on a Unix socket; this
# script never starts Redis as a system service.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

# The peer of the state-table comparison: the server binary and its C client;
# the hash table's peers in the collection comparison: Boost's and Abseil's
# hash maps.
packages=(redis-server libhiredis-dev pkg-config libboost1.81-dev libabsl-dev)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  # Installing redis-server would otherwise start a system-wide server on
  # port 6379; a policy that refuses service starts holds it back. An
  # existing policy is left alone.
  policy=/usr/sbin/policy-rc.d
  added_policy=""
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
    $sudo chmod 755 "$policy"
    added_policy=yes
  fi
  remove_policy() { if [ -n "$added_policy" ]; then $sudo rm -f "$policy"; fi; }
  trap remove_policy EXIT
  echo "bench: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
  remove_policy
  trap - EXIT
fi

cmake --preset release
# RSVP_BENCH_JOBS, when set, bounds the build jobs (the preset uses two).
cmake --build --preset release --target rsvp_bench ${RSVP_BENCH_JOBS:+--parallel "$RSVP_BENCH_JOBS"}
exec build/release/bench/rsvp_bench "$@"
