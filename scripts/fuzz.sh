#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time (seconds, default 120).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-120}
cd "$root"
cmake --preset fuzz >/dev/null
names=()
for src in tests/fuzz/*.cpp; do names+=("$(basename "$src" .cpp)"); done
# Only the fuzz targets: they link the Socket.IO layer alone.
cmake --build --preset fuzz -j"$(nproc)" --target "${names[@]}"
for name in "${names[@]}"; do
  target=build/fuzz/tests/$name
  corpus=$(mktemp -d)
  seeds=tests/fuzz/corpus/${name#fuzz_}
  echo "fuzzing $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    "$corpus" $( [[ -d $seeds ]] && echo "$seeds" )
  rm -rf "$corpus"
done
