#!/usr/bin/env bash
# Installs, through apt-get, the Debian packages that building, testing and
# fuzzing this library need, and any further packages named as arguments
# (scripts/bench.sh names the benchmarks' peers), skipping those already
# present.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev
          libbenchmark-dev libssl-dev python3 python3-jinja2 python3-yaml
          python3-dev pybind11-dev python3-pybind11 python3-pytest "$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
# A package that brings a service (redis-server) would otherwise start it
# system-wide; a policy that refuses service starts holds it back while we
# install. An existing policy is left alone.
policy=/usr/sbin/policy-rc.d
added_policy=""
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | $sudo tee "$policy" >/dev/null
  $sudo chmod 755 "$policy"
  added_policy=yes
fi
remove_policy() { if [ -n "$added_policy" ]; then $sudo rm -f "$policy"; fi; }
trap remove_policy EXIT
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
