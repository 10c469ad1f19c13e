#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time
# (seconds per target, 60 unless given), starting from the checked-in corpus
# and seeds written afresh (every type's value; frames of every record kind
# and of the agent's road).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
cmake --preset clang-asan >/dev/null
cmake --build --preset clang-asan --target fuzz_values fuzz_attrlog fuzz_statuslog make_attrlog_corpus \
  make_values_corpus
for target in fuzz/fuzz_*.cpp; do
  name=$(basename "$target" .cpp)
  corpus=$(mktemp -d)
  cp -r "fuzz/corpus/${name#fuzz_}/." "$corpus/" 2>/dev/null || true
  if [ "$name" = fuzz_values ]; then
    build/clang-asan/fuzz/make_values_corpus "$corpus"  # every type's default value
  else
    # Valid frames: of every record kind, or of the agent's road.
    build/clang-asan/fuzz/make_attrlog_corpus "${name#fuzz_}" "$corpus"
  fi
  echo "fuzz: $name for ${seconds}s"
  "build/clang-asan/fuzz/$name" -max_total_time="$seconds" -print_final_stats=1 "$corpus" 2>&1 | tail -n 12
  rm -rf "$corpus"
done
